"""Copies of the backups off-site: in a vault of another booted host that has nothing but sshd, rclone and a forced command, what a
server that is taken over can do there, what comes back, and who is told where something went wrong."""

import hashlib
import json
import re

import pytest
from hostfloor import OUTSIDE

LIMIT = 300
SETTINGS = "/etc/corvane/corvane.ini"
AUTO = "/var/backups/corvane/auto"
UNIT = "corv-offsite.service"
PLACE = f"ssh://vault@{OUTSIDE}"
STORE = "/home/vault/web1"
AUTHORIZED = "/home/vault/.ssh/authorized_keys"
KEPT = f"/var/lib/corvane/failures/{UNIT}"
APT = {"DEBIAN_FRONTEND": "noninteractive"}
KEY = re.compile(r"^    ((?:[a-z2-9]{4}-){7}[a-z2-9]{4})$", re.MULTILINE)
SSH = f"ssh -i /etc/corvane/offsite/ssh_key -o BatchMode=yes -o UserKnownHostsFile=/etc/corvane/offsite/known_hosts vault@{OUTSIDE}"

# A home of SIZE megabytes, half of which does not compress; and the change of one file in a hundred.
FILL = """
import os, random, sys
r, home, size = random.Random(7), sys.argv[1], int(sys.argv[2]) << 20
words = [bytes(r.choices(b"abcdefghijklmnopqrstuvwxyz", k=r.randint(2, 10))) for _ in range(4000)]
number = written = 0
while written < size:
    folder = f"{home}/public_html/d{number // 60:02}"
    os.makedirs(folder, exist_ok=True)
    data = r.randbytes(r.randint(50_000, 350_000)) if number % 6 == 0 else b" ".join(r.choices(words, k=r.randint(1_000, 10_000)))
    with open(f"{folder}/f{number % 60:02}", "wb") as file:
        file.write(data)
    written += len(data)
    number += 1
"""
CHANGE = """
import os, random, sys
r = random.Random(9)
files = sorted(os.path.join(folder, file) for folder, _, names in os.walk(sys.argv[1] + "/public_html") for file in names)
for path in r.sample(files, max(len(files) // 100, 1)):
    data = bytearray(open(path, "rb").read())
    at = r.randrange(len(data))
    data[at:at] = r.randbytes(r.randint(1, 200))
    open(path, "wb").write(data)
"""


@pytest.fixture(scope="module")
def vault(boot):
    """A second host, as the recipe makes it: nothing but sshd, rclone and a user."""
    host = boot(bare=True)
    host.ok(["apt-get", "install", "-yq", "rclone"], env=APT)
    host.ok(["sh", "-ec", "useradd -m -s /bin/sh vault; chmod 700 ~vault; install -d -o vault -m 700 ~vault/.ssh"])
    return host


@pytest.fixture(scope="module")
def server(boot, vault):
    """A host with two accounts whose backups are copied to the vault. It keeps what its setup said."""
    host = boot()
    host.ok(["apt-get", "install", "-yq", "restic"], env=APT)
    host.usual = host.get(SETTINGS)
    host.shop, host.blog = host.account(), host.account()
    host.put(f"{host.shop.home}/public_html/index.html", "the shop\n", owner=f"{host.shop.name}:www-data")
    host.sql("CREATE TABLE goods AS SELECT generate_series(1, 1000) AS id", database=host.shop.name)
    with host.reaching(vault, 22):
        host.first = host.run(["corvctl", "offsite", "setup", PLACE])
        line = next(line for line in host.first.out.splitlines() if line.startswith("restrict,"))
        vault.put(AUTHORIZED, f"{line}\n")
        host.second = host.run(["corvctl", "offsite", "setup", PLACE])
        assert host.second.code == 0, host.second
        yield host


def last_copy(host):
    """Which run of the copy was the last one, and whether it has ended."""
    told = host.ok(["systemctl", "show", "-p", "InvocationID", "-p", "ActiveState", UNIT])
    facts = dict(line.split("=", 1) for line in told.splitlines())
    return facts["InvocationID"], facts["ActiveState"] in ("inactive", "failed")


def start_backup(host, *, code=0):
    """A backup, and the copy that it starts. Returns the backup's name."""
    before, _ = last_copy(host)
    assert host.run(["systemctl", "start", "corv-backup.service"]).code == code
    host.wait_for(lambda: last_copy(host)[0] != before and last_copy(host)[1], "the copy's end", 120)
    return host.ok(["sh", "-c", f"ls {AUTO} | grep [0-9]$ | tail -n 1"]).strip()


def copy(host):
    return host.run(["corvctl", "offsite", "run"])


def there(host):
    """The homes that are off-site, by account and backup."""
    homes = json.loads(host.ok(["corvctl", "--json", "offsite", "list"]))["homes"]
    return {(home["username"], home["backup"]) for home in homes}


def state(host):
    return json.loads(host.get("/var/lib/corvane/offsite/state.json"))


def problems(host, check):
    checks = json.loads(host.run(["corvctl", "doctor", "--json"]).out)["checks"]
    return [finding["problem"] for one in checks if one["check"] == check for finding in one["findings"]]


@pytest.mark.core
def test_setting_up_a_vault(server):
    assert server.first.code == 1
    assert server.first.out.startswith("The vault does not let this server in yet. Put this line, in one piece, into\n"
                                       "the file .ssh/authorized_keys of the user vault there:\n\nrestrict,command=\"rclone serve "
                                       "restic --stdio --append-only web1\" ssh-ed25519 AAAA")
    assert server.first.err.startswith(f"corvctl: {OUTSIDE} cannot be reached: ")
    (key,) = KEY.findall(server.second.out)
    assert server.second.out == (
        f"Trying whether {PLACE} can be made to forget; that may take half a minute.\n"
        f"{PLACE} takes what is written to it and gives it back.\n"
        "It refuses to forget: a break-in on this server can add to it and take nothing away.\n\n"
        f"The key of the repository:\n\n    {key}\n\n"
        "Keep it elsewhere, on paper or in a password manager. Without it nothing that\n"
        "is off-site can be read again, and it is shown only now. On this server it is\n"
        "in /etc/corvane/offsite/key, for root alone.\n\n"
        "Each backup is copied from now on. corvctl offsite run copies the newest one now.\n")
    assert server.get("/etc/corvane/offsite/key") == f"{key}\n"
    assert server.mode("/etc/corvane/offsite") == "700 root root"
    assert server.mode("/etc/corvane/offsite/key") == "600 root root"
    assert server.get(SETTINGS).endswith(f'[offsite]\nappend_only="true"\nrepository="{PLACE}"\n') or \
        f'\nappend_only="true"\nrepository="{PLACE}"\n' in server.get(SETTINGS)


def test_each_backup_is_copied_also_one_with_problems(server):
    first = start_backup(server)
    expected = {(server.shop.name, first), (server.blog.name, first)}
    assert there(server) == expected
    assert state(server)["copied"] == first
    assert "Newest there  " + first in server.ok(["corvctl", "offsite", "status"])

    server.ok(["runuser", "-u", "postgres", "--", "psql", "-qc", f"ALTER DATABASE {server.blog.name} RENAME TO away"])
    try:
        second = start_backup(server, code=1)
    finally:
        server.ok(["runuser", "-u", "postgres", "--", "psql", "-qc", f"ALTER DATABASE away RENAME TO {server.blog.name}"])
    assert there(server) == expected | {(server.shop.name, second), (server.blog.name, second)}
    assert problems(server, "off-site") == []


def test_what_was_copied_comes_back_as_it_was(server):
    backup = start_backup(server)
    done = server.run(["corvctl", "--json", "offsite", "fetch", server.shop.name])
    assert done.code == 0, done
    folder = f"/var/backups/corvane/fetched/{server.shop.name}-{backup}"
    assert json.loads(done.out)["folder"] == folder
    assert server.mode(folder) == "700 root root"
    archive = f"{folder}/{server.shop.name}-home.tar.gz"
    saved = f"{AUTO}/{backup}/accounts/{server.shop.name}"
    assert server.ok(["sh", "-c", f"gzip -dc {archive} | sha256sum"]) == server.ok(
        ["sh", "-c", f"gzip -dc {saved}-home.tar.gz | sha256sum"])
    server.ok(["cmp", f"{folder}/{server.shop.name}-db.dump", f"{saved}-db.dump"])
    assert server.ok(["sh", "-c", f"stat -c '%a %U' {folder}/*"]).split("\n")[0] == "600 root"

    again = server.run(["corvctl", "offsite", "fetch", server.shop.name])
    assert (again.code, again.err.splitlines()[0]) == (1, f"corvctl: {folder} is there already")
    none = server.run(["corvctl", "offsite", "fetch", server.shop.name, "2001-01-01"])
    assert (none.code, none.err.splitlines()[0]) == (1, f"corvctl: nothing of {server.shop.name} is there from 2001-01-01")
    server.ok(["rm", "-r", "/var/backups/corvane/fetched"])


@pytest.fixture
def newest(server):
    """A backup that is newer than all others, and goes away again."""
    backup = start_backup(server)
    server.ok(["cp", "-a", f"{AUTO}/{backup}", f"{AUTO}/2099-01-01_000000"])
    yield "2099-01-01_000000"
    server.ok(["rm", "-r", f"{AUTO}/2099-01-01_000000"])


@pytest.mark.long
def test_an_archive_that_was_cut_off_is_not_copied_as_if_it_were_whole(server, newest):
    archive = f"{AUTO}/{newest}/accounts/{server.shop.name}-home.tar.gz"
    server.ok(["sh", "-ec", f"cp -a {archive} /root/whole; truncate -s -1000 {archive}"])
    done = copy(server)
    assert done.code == 1
    assert f"not all is off-site: {server.shop.name}: gzip failed: " in done.err and "unexpected end of file" in done.err
    assert (server.blog.name, newest) in there(server)
    assert (server.shop.name, newest) not in there(server)

    # What gzip ends well, tar has not ended.
    server.ok(["sh", "-ec", f"gzip -dc /root/whole | head -c 10000 | gzip >{archive}"])
    done = copy(server)
    assert f"not all is off-site: {server.shop.name}: the archive has no end, it was cut off" in done.err
    assert (server.shop.name, newest) not in there(server)
    assert server.ok(["corvctl", "offsite", "restic", "list locks --no-lock"]) == ""

    # Once it is whole, what is missing follows, and that alone.
    server.ok(["cp", "-a", "/root/whole", archive])
    done = copy(server)
    assert done.code == 0, done
    assert [line.split(":")[0] for line in done.out.splitlines() if line.startswith("  ")] == [f"  {server.shop.name}"]


@pytest.mark.long
def test_a_home_that_hardly_changed_costs_little(server, vault):
    def size():
        return int(vault.ok(["du", "-sb", STORE]).split()[0])

    server.ok(["python3", "-c", FILL, server.blog.home, "48"])
    empty = size()
    start_backup(server)
    first = size() - empty
    server.ok(["python3", "-c", CHANGE, server.blog.home])
    start_backup(server)
    second = size() - empty - first
    print(f"first night {first / 2**20:.1f} MiB, second {second / 2**20:.1f} MiB ({100 * second / first:.0f} %)")
    assert first > 20 << 20
    assert second < first / 4


@pytest.mark.long
def test_a_run_that_is_killed_is_gone_on_with(server):
    server.ok(["python3", "-c", FILL.replace("Random(7)", "Random(8)"), server.blog.home, "64"])
    server.ok(["python3", "-c", CHANGE.replace("// 100", "// 2"), server.blog.home])
    server.ok(["systemctl", "mask", "--runtime", UNIT])
    server.ok(["systemctl", "start", "corv-backup.service"])
    server.ok(["systemctl", "unmask", "--runtime", UNIT])
    backup = server.ok(["sh", "-c", f"ls {AUTO} | grep [0-9]$ | tail -n 1"]).strip()
    server.ok(["systemctl", "start", "--no-block", UNIT])
    server.wait_for(lambda: server.run(["pgrep", "-f", f"restic.*{server.blog.name}-home.tar"]).code == 0, "the copy of the home", 60)
    server.ok(["systemctl", "kill", "--signal=KILL", UNIT])
    server.wait_for(lambda: server.run(["pgrep", "-x", "restic"]).code == 1, "the end of restic")
    assert (server.blog.name, backup) not in there(server)

    done = copy(server)
    assert done.code == 0, done
    assert {(server.shop.name, backup), (server.blog.name, backup)} <= there(server)
    assert server.ok(["corvctl", "offsite", "restic", "list locks --no-lock"]) == ""
    assert server.ok(["corvctl", "offsite", "check"]).startswith("part ")


def test_a_server_that_is_taken_over_can_add_and_take_nothing_away(server, vault):
    start_backup(server)
    before = there(server)
    files = f"cd {STORE}; find data snapshots index keys config -type f | sort | xargs sha256sum"
    held = vault.ok(["sh", "-c", files])

    def intact():
        now = vault.ok(["sh", "-c", files])
        return set(held.splitlines()) <= set(now.splitlines())

    def attempt(command, seconds=20):
        return server.run(["sh", "-c", f"timeout -s INT -k 5 {seconds} sh -c '{command}' 2>&1"])

    attempt("corvctl offsite restic \"forget --tag corv --group-by host --keep-last 1 --prune\"")
    attempt("corvctl offsite restic \"prune --max-unused 0\"")
    attempt("corvctl offsite restic \"key passwd --new-password-file /etc/hostname\"")
    attempt("corvctl offsite restic \"unlock --remove-all\"")
    attempt("corvctl offsite restic \"rebuild-index\"")
    assert intact()

    # Past restic: a shell, a copy, another command, a way on.
    attempt(f"{SSH} rm -rf web1 </dev/null")
    attempt(f"echo rm -rf web1 | {SSH} sh")
    attempt(f"{SSH.replace('ssh ', 'sftp ', 1)} </dev/null")
    attempt(f"{SSH} rclone delete web1 </dev/null")
    attempt(f"{SSH} -W 127.0.0.1:22 </dev/null")
    assert intact()

    # The protocol that rclone speaks, by hand.
    server.ok(["sh", "-c", f"socat TCP-LISTEN:9999,bind=127.0.0.1,fork,reuseaddr EXEC:\"{SSH} x\" </dev/null >/dev/null 2>&1 &"])
    pack = vault.ok(["sh", "-c", f"ls {STORE}/data/*/* | head -n 1"]).strip().rpartition("/")[2]

    def speak(method, path, *options):
        return server.run(["curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "--http2-prior-knowledge", "--retry", "5",
                           "--retry-connrefused", "-X", method, *options, f"http://127.0.0.1:9999/{path}"]).out

    assert speak("GET", f"data/{pack}") == "200"
    assert speak("DELETE", f"data/{pack}") == "403"
    assert speak("DELETE", "config") == "403"
    assert speak("POST", f"data/{pack}", "--data-binary", "x") == "403"
    assert speak("POST", "config", "--data-binary", "x") == "403"
    for snapshot in vault.ok(["ls", f"{STORE}/snapshots"]).split():
        assert speak("DELETE", f"snapshots/{snapshot}") == "403"
    assert intact()
    added = hashlib.sha256(b"more").hexdigest()
    assert speak("POST", f"data/{added}", "--data-binary", "more") == "200"
    assert vault.exists(f"{STORE}/data/{added[:2]}/{added}")
    vault.ok(["rm", f"{STORE}/data/{added[:2]}/{added}"])
    server.run(["pkill", "socat"])
    server.run(["pkill", "-x", "restic"])
    assert there(server) == before
    assert copy(server).code == 0


@pytest.mark.long
def test_a_vault_that_deletes_is_refused_and_told_of(server, vault):
    authorized = vault.get(AUTHORIZED)
    vault.put(AUTHORIZED, authorized.replace(" --append-only", ""))
    try:
        done = server.run(["corvctl", "offsite", "setup", PLACE])
        assert (done.code, done.err) == (1, "corvctl: the vault lets this server delete what it holds\n"
                                         "  its authorized_keys needs rclone serve restic --stdio --append-only\n")
        done = server.run(["corvctl", "offsite", "check", "--all"])
        assert (done.code, done.err.splitlines()[0]) == (
            1, "corvctl: the place no longer refuses to forget: a break-in here can take away all backups")
    finally:
        vault.put(AUTHORIZED, authorized)
    assert server.run(["corvctl", "offsite", "check", "--all"]).code == 0


@pytest.mark.long
def test_a_damaged_pack_is_found_by_the_check_that_reads_it(server, vault):
    start_backup(server)
    largest = vault.ok(["sh", "-c", f"ls -S {STORE}/data/*/* | head -n 1"]).strip()
    vault.ok(["sh", "-ec", f"cp -a {largest} /root/pack; chmod u+w {largest}; "
              f"printf damaged | dd of={largest} bs=1 seek=100 conv=notrunc 2>/dev/null"])
    # What the names and sizes tell is as it was.
    assert server.run(["corvctl", "offsite", "restic", "check --quiet"]).code == 0
    part = int(largest.rpartition("/")[2][:2], 16) % 30 + 1
    kept = state(server)
    server.put("/var/lib/corvane/offsite/state.json", json.dumps({**kept, "part": part - 1}), mode="0600")
    assert server.run(["systemctl", "start", "corv-offsite-check.service"]).code == 1
    assert state(server)["part"] == part
    (problem,) = problems(server, "off-site")
    assert problem.startswith("the last check of what is off-site: restic: ")
    server.wait_for(lambda: server.exists("/var/lib/corvane/failures/corv-offsite-check.service"), "the telling")

    vault.ok(["cp", "-a", "/root/pack", largest])
    done = server.run(["corvctl", "offsite", "check", "--all"])
    assert (done.code, done.out) == (0, "all of the data was read, and is whole\n"), done
    server.ok(["systemctl", "start", "corv-offsite-check.service"])
    assert not server.exists("/var/lib/corvane/failures/corv-offsite-check.service")
    assert problems(server, "off-site") == []


def test_a_vault_that_cannot_be_reached_is_told_of(server, vault):
    vault.ok(["systemctl", "stop", "ssh.service", "ssh.socket"])
    try:
        start_backup(server)
        server.wait_for(lambda: server.exists(KEPT), "the telling")
        assert server.get(KEPT) == f"web1: {UNIT} failed (exit-code); corvctl doctor and journalctl -u {UNIT} tell more\n"
        (problem,) = problems(server, "off-site")
        assert problem.startswith("the last copy off-site: the place cannot be reached: restic: ")
        assert f"Failed    {UNIT} failed " in server.ok(["corvctl", "status"])
    finally:
        vault.ok(["systemctl", "start", "ssh.service"])
    server.ok(["systemctl", "start", UNIT])
    assert not server.exists(KEPT)
    assert problems(server, "off-site") == []


def test_a_late_copy_is_told_of(server):
    kept = state(server)
    server.put("/var/lib/corvane/offsite/state.json", json.dumps({**kept, "copied": "2026-01-05_031500"}), mode="0600")
    (problem,) = problems(server, "off-site")
    assert re.fullmatch(r"the newest backup that is off-site, 2026-01-05_031500, is \d+ hours old", problem)
    assert re.search(r"^! Off-site  the newest backup that is off-site, 2026-01-05_031500", server.ok(["corvctl", "status"]), re.MULTILINE)
    assert copy(server).code == 0
    assert problems(server, "off-site") == []


def test_the_key_is_in_no_argument_and_no_variable(server):
    looking = "while [ ! -e /root/enough ]; do cat /proc/[0-9]*/cmdline /proc/[0-9]*/environ 2>/dev/null | tr '\\0' '\\n' | " \
              "grep -F -f /etc/corvane/offsite/key >>/root/seen; echo . >>/root/looks; done"
    server.put("/root/looking", looking)
    server.ok(["sh", "-c", "setsid sh /root/looking >/dev/null 2>&1 &"])
    start_backup(server)
    server.put("/root/enough", "")
    assert server.get("/root/looks").count(".") > 10
    assert server.get("/root/seen") == ""


@pytest.mark.long
def test_a_lost_server_comes_back_with_the_address_and_the_key(server, vault):
    """What a new server has: the package, restic, and what its administrator wrote down."""
    key = server.get("/etc/corvane/offsite/key")
    before = there(server)
    server.ok(["mv", "/etc/corvane/offsite", "/root/offsite"])
    settings = server.get(SETTINGS)
    server.put(SETTINGS, server.usual)
    authorized = vault.get(AUTHORIZED)
    try:
        asked = server.run(["corvctl", "offsite", "setup", PLACE])
        line = next(line for line in asked.out.splitlines() if line.startswith("restrict,"))
        vault.put(AUTHORIZED, f"{line}\n")
        wrong = server.run(["corvctl", "offsite", "setup", PLACE, "--key-file", "-"], input="wrong\n")
        assert wrong.code == 1 and "wrong password or no key found" in wrong.err
        done = server.run(["corvctl", "offsite", "setup", PLACE, "--key-file", "-"], input=key)
        assert done.code == 0 and "The key of the repository" not in done.out
        assert there(server) == before
        assert server.run(["corvctl", "offsite", "fetch", server.shop.name, "--to", "/root/back"]).code == 0
        server.ok(["tar", "-xzOf", f"/root/back/{server.shop.name}-home.tar.gz", f"{server.shop.name}/public_html/index.html"])
    finally:
        server.ok(["sh", "-c", "rm -rf /etc/corvane/offsite /root/back; mv /root/offsite /etc/corvane/offsite"])
        server.put(SETTINGS, settings)
        vault.put(AUTHORIZED, authorized)


@pytest.mark.long
def test_a_disk_of_the_server_forgets_by_the_rules_and_setup_says_what_that_means(server):
    settings = server.get(SETTINGS)
    server.ok(["mv", "/etc/corvane/offsite", "/root/offsite"])
    server.put(SETTINGS, server.usual)
    try:
        done = server.run(["corvctl", "offsite", "setup", "/srv/copies"])
        assert done.code == 0
        assert "It is a disk of this server: a break-in here can make it forget everything." in done.out
        assert "Forgetting    possible from this server" in server.ok(["corvctl", "offsite", "status"])
        server.put(SETTINGS, server.get(SETTINGS).replace("[offsite]\n", "[offsite]\nretention=--keep-last 1\n"))
        start_backup(server)
        newest = start_backup(server)
        assert {backup for _, backup in there(server)} == {newest}
        server.ok(["mv", "/srv/copies", "/srv/away"])
        assert copy(server).code == 1
        assert not server.exists("/srv/copies")
    finally:
        server.ok(["sh", "-c", "rm -rf /etc/corvane/offsite /srv/away; mv /root/offsite /etc/corvane/offsite"])
        server.put(SETTINGS, settings)
    assert copy(server).code == 0
