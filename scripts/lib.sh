# Shared by the scripts beside it: progress lines, package installation, the cache folder. Sourced, never run.
# shellcheck shell=bash disable=SC2034

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Everything that the scripts build outside the source tree (host images, packages, test results) lives here.
cache=${CORV_CACHE:-/var/cache/corv-agent-dev}

# The Debian release that this runs on, by its code name; scripts/release runs a command on another one.
release=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")

# What a machine needs to build the agent and run its unit tests.
build_packages=(apache2-dev build-essential cmake libcli11-dev ninja-build postgresql-client python3 qt6-base-dev)

# step TEXT: says what starts now, with the seconds since the script began.
step() {
    printf '[%4ds] %s\n' "$SECONDS" "$*" >&2
}

# die TEXT: says why the script cannot go on, and ends it.
die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# progress LOG COMMAND...: runs a long command with its output in the file LOG, and says every ten seconds how far it is.
progress() {
    local log=$1 code=0 clock beat
    shift
    : >"$log"
    # A read that never gets anything, and not the sleep program: that would outlive this by ten seconds.
    (
        exec {clock}<> <(:)
        while ! read -r -t 10 -u "$clock" && kill -0 $$ 2>/dev/null; do
            step "    $(tail -n 1 "$log" | tr -d '\r' | cut -c 1-100)"
        done
    ) &
    beat=$!
    "$@" >>"$log" 2>&1 </dev/null || code=$?
    kill "$beat" 2>/dev/null || true
    wait "$beat" 2>/dev/null || true
    return "$code"
}

# need_root: the test floors build roots, name spaces and packages.
need_root() {
    [ "$(id -u)" = 0 ] || die "run this as root"
}

# need PACKAGE...: installs what is missing of the packages named; quick when nothing is.
need() {
    local missing=() package
    for package; do
        [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" = "install ok installed" ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    need_root
    step "installing ${missing[*]}"
    mkdir -p "$cache"
    (
        flock 9
        progress "$cache/apt.log" install_packages "${missing[@]}"
    ) 9>"$cache/apt.lock" || die "cannot install ${missing[*]}; see $cache/apt.log"
}

# install_packages PACKAGE...: fetches the archive's index only if what is known of it does not do.
install_packages() {
    local apt=(apt-get -q -o DPkg::Lock::Timeout=300)
    "${apt[@]}" install --no-install-recommends -y "$@" ||
        { "${apt[@]}" update && "${apt[@]}" install --no-install-recommends -y "$@"; }
}

# archive LABEL: the mirror of a Debian archive that this machine itself uses. An archive is known by what its index says of
# itself, so that there must be one.
archive() {
    local label uri
    apt-get indextargets --format "\$(LABEL)" 'Created-By: Packages' 2>/dev/null | grep -x "$1" >/dev/null || apt-get -qq update
    while read -r label uri; do
        if [ "$label" = "$1" ]; then
            printf '%s\n' "${uri%/}"
            return
        fi
    done < <(apt-get indextargets --format "\$(LABEL) \$(REPO_URI)" 'Created-By: Packages' 2>/dev/null)
    die "this machine's apt knows no archive named $1"
}

export DEBIAN_FRONTEND=noninteractive
