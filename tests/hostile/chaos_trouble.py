"""What goes wrong on a server: services, disk, clock, the agent itself, the administrator's mistakes and the tenants' malice."""

from dataclasses import dataclass

from chaos_commands import NAMES

VICTIM = "/srv/victim"


@dataclass
class Trouble:
    """Scripts that bring it about and undo it, as root. Where it ends the agent, requests may find nobody."""

    name: str
    do: str
    undo: str = ""
    ends_agent: bool = False


# Most of the disk is taken once and for all, which takes seconds; the rest of it comes and goes.
FILL = r"""
avail=$(df --output=avail -B1 / | tail -n 1)
[ "$avail" -lt 8000000000 ] || { echo "the disk is too large to be filled: $avail bytes" >&2; exit 9; }
[ -e /srv/filler-stays ] || [ "$avail" -lt 400000000 ] || fallocate -l "$((avail - 300000000))" /srv/filler-stays
avail=$(df --output=avail -B1 / | tail -n 1)
fallocate -l "$((avail > 65536 ? avail - 65536 : avail))" /srv/filler 2>/dev/null
dd if=/dev/zero of=/srv/filler-rest bs=4096 2>/dev/null
true
"""
CLOCK = r"""
for unit in corv-agent corv-backup; do
    mkdir -p /run/systemd/system/$unit.service.d
    printf '[Service]\nEnvironment=LD_PRELOAD=%s FAKETIME=@OFFSET@ FAKETIME_DONT_FAKE_MONOTONIC=1\n' \
        /usr/lib/*/faketime/libfaketime.so.1 >/run/systemd/system/$unit.service.d/clock.conf
done
systemctl daemon-reload
systemctl reset-failed corv-agent
systemctl restart corv-agent
"""
CLOCK_BACK = r"""
rm -f /run/systemd/system/corv-*.service.d/clock.conf
systemctl daemon-reload
systemctl reset-failed corv-agent
systemctl restart corv-agent
"""
# As vipw and apt hold them; each lets go by itself.
HOLD = """
systemd-run --quiet --collect --unit=holder-@NAME@ python3 -c '
import fcntl, time
file = open("@PATH@", "r+")
fcntl.lockf(file, fcntl.LOCK_EX)
time.sleep(@SECONDS@)'
"""
START_AGENT = "systemctl reset-failed corv-agent; systemctl start corv-agent"

# A tenant's scripts, run in the home. What they move away is put back by HOME_BACK.
TENANT = r"""
id @NAME@ >/dev/null 2>&1 || exit 0
systemd-run --quiet --collect --unit=tenant-@NAME@ --uid=@NAME@ -p TasksMax=200 -p WorkingDirectory=/home/@NAME@ sh -c '@SCRIPT@'
"""
TENANT_BACK = r"""
systemctl kill -s KILL tenant-@NAME@ 2>/dev/null
systemctl stop tenant-@NAME@ 2>/dev/null
id @NAME@ >/dev/null 2>&1 && pkill -KILL -u @NAME@
[ -d /home/@NAME@ ] && id @NAME@ >/dev/null 2>&1 && runuser -u @NAME@ -- sh -c '
cd ~ || exit
for each in public_html logs tmp folder; do
    [ ! -L $each ] || rm $each
    [ ! -e $each ] || [ ! -e away-$each ] || rm -rf away-$each
    [ ! -e away-$each ] || mv away-$each $each
done
rm -rf filler-* public_html/pipe deep'
true
"""
SCRIPTS = {
    "swaps folders for links": (
        "trap \"\" TERM; mkdir -p folder; while :; do for each in public_html logs tmp folder; do mv $each away-$each; "
        f"ln -s {VICTIM} $each; rm $each; ln -s /home/witness/public_html $each; rm $each; mv away-$each $each; done; done"),
    "forks": "trap \"\" TERM; while :; do sleep 60 & setsid sleep 60 & done",
    "fills the home": "i=0; while [ $i -lt 30 ]; do head -c 10000000 /dev/urandom >filler-$i || exit; i=$((i + 1)); done",
    "writes without an end": "trap \"\" TERM; while :; do date >>logs/growing; head -c 10000 /dev/zero >>logs/growing; "
                             "[ $(stat -c %s logs/growing) -lt 50000000 ] || : >logs/growing; done",
    "leaves odd files": "mkfifo public_html/pipe; ln -s /etc/shadow public_html/shadow; ln -s / root; printf x >\"$(printf \"a\\377b\\n\")\"; "
                        "mkdir deep; cd deep; i=0; while [ $i -lt 300 ]; do mkdir d; cd d; i=$((i + 1)); done; "
                        f"ln {VICTIM}/file hard; ln -s {VICTIM} out; sleep 60",
    "holds a lock in the database": "psql -qc \"CREATE TABLE IF NOT EXISTS t (n int)\" -c \"BEGIN; LOCK TABLE t; SELECT pg_sleep(60)\"",
    "closes the database": "psql -qc \"ALTER DATABASE @NAME@ ALLOW_CONNECTIONS false\" -d template1 || "
                           "psql -qc \"ALTER DATABASE @NAME@ IS_TEMPLATE true\"",
}


def units(php, postgres):
    """The units that go wrong."""
    return ["apache2", f"postgresql@{postgres}-main", f"php{php}-fpm", "fail2ban"]


def draw(rng, php, postgres):
    """One kind of trouble, by the generator alone."""
    kind = rng.choice(["service", "service", "disk", "clock", "agent", "agent", "apache", "lock", "tenant", "tenant", "tenant"])
    if kind == "service":
        unit = rng.choice(units(php, postgres))
        start = f"systemctl reset-failed {unit}; systemctl start {unit}"
        return rng.choice([
            Trouble(f"{unit} is stopped", f"systemctl stop {unit}", start),
            Trouble(f"{unit} is killed", f"systemctl kill -s KILL {unit}", start),
            Trouble(f"{unit} is restarted", f"systemctl restart {unit}", start),
        ])
    if kind == "disk":
        return Trouble("the disk is full", FILL, "rm -f /srv/filler /srv/filler-rest")
    if kind == "clock":
        offset = rng.choice(["+40d", "+3h", "-2d", "-400d"])
        return Trouble(f"the clock jumps by {offset}", CLOCK.replace("@OFFSET@", offset), CLOCK_BACK, ends_agent=True)
    if kind == "agent":
        return rng.choice([
            Trouble("the agent is killed", "systemctl kill -s KILL --kill-whom=main corv-agent", START_AGENT, ends_agent=True),
            Trouble("the agent and its programs are killed", "systemctl kill -s KILL corv-agent", START_AGENT, ends_agent=True),
            Trouble("the agent is stopped", "systemctl stop corv-agent", START_AGENT, ends_agent=True),
            Trouble("the agent is restarted", "systemctl restart corv-agent", START_AGENT, ends_agent=True),
        ])
    if kind == "apache":
        return Trouble("Apache has a broken file", "echo 'Nonsense On' >/etc/apache2/conf-enabled/broken.conf",
                       "rm -f /etc/apache2/conf-enabled/broken.conf; systemctl reset-failed apache2; systemctl start apache2")
    if kind == "lock":
        name, path = rng.choice([("users", "/etc/.pwd.lock"), ("packages", "/var/lib/dpkg/lock-frontend")])
        hold = HOLD.replace("@NAME@", name).replace("@PATH@", path).replace("@SECONDS@", str(rng.choice([3, 20])))
        return Trouble(f"somebody else changes {name}", hold, f"systemctl stop holder-{name}")
    name, does = rng.choice(NAMES), rng.choice(sorted(SCRIPTS))
    script = SCRIPTS[does]
    return Trouble(f"{name} {does}", TENANT.replace("@SCRIPT@", script).replace("@NAME@", name), TENANT_BACK.replace("@NAME@", name))
