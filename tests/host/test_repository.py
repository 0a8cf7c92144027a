"""The apt repository that scripts/repository makes, used on a host as docs/operations.md says, and tampered with."""

import os
import re
import shutil
import subprocess

import pytest
from booted import SUITE
from hostfloor import ROOT

LIMIT = 300
NONINTERACTIVE = {"DEBIAN_FRONTEND": "noninteractive"}
GUIDE = (ROOT / "docs" / "operations.md").read_text()
OLDER, NEWER = "0.0", "99"


def documented(heading, block):
    """The commands of an indented block, by its number, of a section of the operator's guide."""
    section = re.search(rf"^## {heading}\n(.*?)(?=^## )", GUIDE, re.MULTILINE | re.DOTALL)[1]
    blocks = re.findall(r"(?:^    .*\n)+", section, re.MULTILINE)
    return re.sub(r"^    ", "", blocks[block], flags=re.MULTILINE)


def make_key(folder):
    """A file with the secret key of a signer of its own."""
    home = folder / "gnupg"
    home.mkdir(mode=0o700, parents=True)
    env = {**os.environ, "GNUPGHOME": str(home)}
    subprocess.run(["gpg", "--batch", "--quiet", "--passphrase", "", "--quick-generate-key", "Packages <packages@web1.test>", "ed25519",
                    "sign", "never"], env=env, check=True)
    secret = subprocess.run(["gpg", "--batch", "--armor", "--export-secret-keys"], env=env, stdout=subprocess.PIPE, check=True).stdout
    subprocess.run(["gpgconf", "--kill", "all"], env=env, check=True)
    shutil.rmtree(home)
    path = folder / "secret.asc"
    path.write_bytes(secret)
    return path


def publish(folder, key, *options):
    """Runs scripts/repository: exit code and errors."""
    done = subprocess.run([ROOT / "scripts" / "repository", folder, "--key", key, *options], capture_output=True, text=True, check=False)
    return done.returncode, done.stderr


def add_version(package, version, folder):
    """Puts the package into a repository's pool under another version, as an earlier or later run would have."""
    tree = folder.parent / f"tree-{version}"
    subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
    control = tree / "DEBIAN" / "control"
    control.write_text(re.sub(r"^Version: .*", f"Version: {version}", control.read_text(), flags=re.MULTILINE))
    pool = folder / "pool" / SUITE
    pool.mkdir(parents=True, exist_ok=True)
    subprocess.run(["dpkg-deb", "-b", tree, pool], check=True, stdout=subprocess.DEVNULL)
    shutil.rmtree(tree)


def change(path):
    """Changes one bit in the middle of a file."""
    data = bytearray(path.read_bytes())
    data[len(data) // 2] ^= 1
    path.write_bytes(data)


def field(package, name):
    return subprocess.run(["dpkg-deb", "-f", package, name], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


class Server:
    """A host without the package but with the repository in reach; `sh` runs commands as the guide has them."""

    def __init__(self, host, folder, key, address):
        self.host, self.folder, self.key, self.address = host, folder, key, address

    def try_sh(self, script):
        script = script.replace("https://packages.example.org", self.address)
        return self.host.run(["bash", "-ec", script], env=NONINTERACTIVE, timeout=300)

    def sh(self, script):
        done = self.try_sh(script)
        assert done.code == 0, (script, done)
        return done.out

    def version(self):
        """The installed version, None without the package."""
        done = self.host.run(["dpkg-query", "-W", "-f=${db:Status-Abbrev}${Version}", "corv-agent"])
        return done.out.removeprefix("ii ").removeprefix("hi ") if done.code == 0 and done.out[1] == "i" else None

    def indexes(self):
        return self.folder / "dists" / SUITE


@pytest.fixture(scope="module")
def server(boot, package, tmp_path_factory):
    """Its repository has the older version only. What the other release's package needs is built before a test's time begins."""
    for suite in ("bookworm", "trixie"):
        subprocess.run([ROOT / "scripts" / "release", suite, ROOT / "scripts" / "package"], stdout=subprocess.DEVNULL, check=True)
    folder = tmp_path_factory.mktemp("repository") / "packages"
    key = make_key(folder.parent)
    add_version(package, OLDER, folder)
    assert publish(folder, key, "--no-build")[0] == 0
    host = boot(bare=True)
    with host.serving(folder) as address:
        yield Server(host, folder, key, address)
    host.stop()


@pytest.fixture
def fresh(server):
    """The server without anything that apt keeps of the repository, which the test may damage."""
    kept = server.folder.with_name("kept")
    shutil.copytree(server.folder, kept)
    server.host.ok(["sh", "-c", "apt-get clean; rm -rf /var/lib/apt/lists/*"])
    yield server
    shutil.rmtree(server.folder)
    kept.rename(server.folder)
    server.sh("apt-get update")


def test_the_documented_steps_install_upgrade_hold_and_go_back(server, package):
    host, current = server.host, field(package, "Version")
    server.sh(documented("Installation", 1))
    server.sh(documented("Installation", 2).replace("apt-get install", "apt-get install --yes"))
    assert server.version() == OLDER
    host.wait_for_unit("corv-agent")
    host.ok(["apt-get", "install", "-yq", "postgresql"], env=NONINTERACTIVE)
    account = host.account()
    before = host.main_process("corv-agent")

    code, errors = publish(server.folder, server.key)
    assert code == 0, errors
    assert sorted(path.name for path in server.folder.glob("pool/*/corv-agent_*.deb")) == sorted(
        [f"corv-agent_{OLDER}_amd64.deb"] + [f"corv-agent_{field(package, 'Version').partition('+')[0]}+deb{number}_amd64.deb"
                                            for number in (12, 13)])
    upgrade = documented("Upgrade", 0).replace("apt-get install", "apt-get install --yes")
    server.sh(upgrade)
    assert server.version() == current
    host.wait_for(lambda: host.main_process("corv-agent") not in ("0", before), "the restart after the upgrade")
    host.wait_for_unit("corv-agent")
    assert host.fetch(account.domain).status == 200

    hold, unhold = documented("Upgrade", 1).splitlines()
    add_version(package, NEWER, server.folder)
    assert publish(server.folder, server.key, "--no-build")[0] == 0
    server.sh(hold)
    server.sh("apt-get update && apt-get upgrade --yes")
    assert server.version() == current
    server.sh(unhold)
    server.sh(upgrade)
    assert server.version() == NEWER

    look, back, hold = documented("Upgrade", 2).splitlines()
    assert [line.split("|")[1].strip() for line in server.sh(look).splitlines()] == [NEWER, current, OLDER]
    server.sh(f"{back.replace('VERSION', OLDER)}\n{hold}")
    server.sh("apt-get upgrade --yes")
    assert server.version() == OLDER
    host.wait_for_unit("corv-agent")
    assert host.request("hosting.suspend", username=account.name) == {"ok": True}
    server.sh(unhold)


def test_a_package_that_was_changed_is_refused(fresh):
    fresh.sh("apt-get update")
    change(fresh.folder / "pool" / SUITE / f"corv-agent_{NEWER}_amd64.deb")
    done = fresh.try_sh(f"apt-get install --yes corv-agent={NEWER}")
    assert done.code == 100 and "Hash Sum mismatch" in done.err
    assert fresh.version() != NEWER


def test_an_index_that_was_changed_is_refused(fresh):
    indexes = [path for path in (fresh.indexes() / "main").rglob("*") if path.is_file()]
    assert len(indexes) > 2
    for index in indexes:
        change(index)
    done = fresh.try_sh("apt-get update")
    assert done.code == 100 and "Hash Sum mismatch" in done.err, done
    assert NEWER not in fresh.sh("apt-cache madison corv-agent")


@pytest.mark.parametrize("what", ["changed", "unsigned", "signed by another key"])
def test_a_release_is_refused(fresh, tmp_path, what):
    signed, release, signature = (fresh.indexes() / name for name in ("InRelease", "Release", "Release.gpg"))
    if what == "changed":
        for path in (signed, release):
            text = path.read_text()
            assert "Label: Corvane\n" in text
            path.write_text(text.replace("Label: Corvane\n", "Label: Corvanf\n"))
    elif what == "unsigned":
        signed.unlink()
        signature.unlink()
    else:
        assert publish(fresh.folder, make_key(tmp_path), "--no-build")[0] == 0
    done = fresh.try_sh("apt-get update")
    assert done.code == 100 and "is not signed" in done.err, done
    assert NEWER not in fresh.sh("apt-cache madison corv-agent")


def test_a_published_version_is_not_published_with_other_contents(server):
    published, = server.folder.glob(f"pool/{SUITE}/corv-agent_*+deb*.deb")
    change(published)
    code, errors = publish(server.folder, server.key)
    change(published)
    assert code == 1
    assert f"{published.name} is published with other contents; give debian/changelog a new version\n" in errors


def test_the_secret_key_stays_where_it_was(server):
    assert b"PRIVATE KEY" in server.key.read_bytes()
    files = [path for path in server.folder.rglob("*") if path.is_file()]
    assert [path for path in files if b"PRIVATE KEY" in path.read_bytes()] == []
    public = subprocess.run(["gpg", "--show-keys", "--with-colons", server.folder / "corv-agent.asc"], stdout=subprocess.PIPE, text=True,
                            check=True).stdout
    assert public.startswith("pub:") and "sec:" not in public


def test_the_three_commands_of_the_readme_install(server):
    server.try_sh("apt-mark unhold corv-agent; apt-get purge --yes corv-agent; "
                  "rm -f /etc/apt/sources.list.d/corv-agent.* /etc/apt/keyrings/corv-agent.asc; apt-get update")
    assert server.version() is None
    section = (ROOT / "README.md").read_text().partition("## On a server\n")[2]
    commands = re.search(r"^```\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)[1]
    assert len(commands.splitlines()) == 3
    server.sh(commands)
    assert server.version() is not None
    assert server.host.ok(["corvctl", "call", "ping"]).startswith('{"ok":true,')
