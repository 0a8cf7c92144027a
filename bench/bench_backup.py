"""Backups and restores on a booted host with its real tools, against the same tools without the agent."""

import json
import os
import pathlib
import statistics
import subprocess
import sys

TREE = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "host"))

from hostfloor import Host  # noqa: E402

ROUNDS = int(os.environ.get("CORV_BENCH_ROUNDS", "3"))
ACCOUNTS = 20
# What a home is made of, of 51 MiB each: so many in a small home, and in one of 1 GiB.
SMALL = 2
LARGE = 20
STATUS_ROUNDS = 15

# Runs inside the host. Times are taken there, so that getting in and out does not count.
INSIDE = r'''
import glob, json, os, resource, shutil, socket, statistics, subprocess, sys, time

AGENT = "/usr/libexec/corvane/corv-agent"
DESTINATION = "/srv/backup"
# What the references have: Debian's gzip. The agent's units have the folder with igzip before that.
TOOLS = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "HOME": "/root"}
OURS = {**TOOLS, "PATH": "/usr/libexec/corvane/tools:" + TOOLS["PATH"]}


def seconds(work):
    began = time.perf_counter()
    work()
    return time.perf_counter() - began


def processor(work):
    """The processor's seconds of all programs that the work starts and waits for."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    work()
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def sh(script, *words):
    subprocess.run(["sh", "-ec", script, "sh", *words], check=True, env=TOOLS, cwd="/", stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


def request(command, **args):
    """The reply as its bytes: what it costs to read them is not the agent's."""
    with socket.socket(socket.AF_UNIX) as client:
        client.connect("/run/corvane/agent.sock")
        client.sendall(json.dumps({"cmd": command, "args": args}).encode() + b"\n")
        parts = []
        while not parts or not parts[-1].endswith(b"\n"):
            parts.append(client.recv(1 << 20))
    return b"".join(parts)


def backup_by_agent():
    global peak
    process = subprocess.Popen([AGENT, "--backup"], env=OURS, cwd="/", stdout=subprocess.DEVNULL)
    while process.poll() is None:
        try:
            for line in open(f"/proc/{process.pid}/status"):
                if line.startswith("VmHWM:"):
                    peak = max(peak, int(line.split()[1]))
        except (FileNotFoundError, ProcessLookupError):
            pass
        time.sleep(0.02)
    assert process.returncode == 0, process.returncode


SCRIPT = r"""
new=$1/.partial-x
mkdir -p "$new/accounts"
runuser -u postgres -- pg_dump -Fc corvane >"$new/panel.dump"
tar -czf "$new/config.tar.gz" -C / etc/corvane
for user in $(getent passwd | sed -n 's/^\([a-z0-9]*\):.*:Corvane account,.*/\1/p'); do
    tar -czf "$new/accounts/$user-home.tar.gz" --exclude="$user/tmp" -C /home "$user"
    runuser -u postgres -- pg_dump -Fc "$user" >"$new/accounts/$user-db.dump"
done
find "$new" -type f -exec chmod 600 {} +
mv "$new" "$1/x"
"""


SOURCES = ["/usr/lib/python3", "/usr/lib/python3.11", "/usr/lib/python3.13", "/usr/share/perl", "/usr/share/perl5",
           "/usr/lib/x86_64-linux-gnu/perl", "/usr/share/doc"]


def site():
    """What sites are made of, 51 MiB in all: programs' texts as files of their own sizes, and as much that no program makes
    smaller, as photos are. The texts are those that every host has."""
    room = photos = 51 << 19
    for folder in SOURCES:
        for path, folders, names in os.walk(folder):
            folders.sort()
            for name in sorted(names):
                file = os.path.join(path, name)
                if os.path.islink(file) or not name.endswith((".py", ".pm", ".pl", ".h", ".html", ".txt", ".md", ".pod", "copyright")):
                    continue
                text = open(file, "rb").read(room)
                os.makedirs("/srv/site" + path, exist_ok=True)
                open("/srv/site" + file, "wb").write(text)
                room -= len(text)
                if room == 0:
                    break
    os.makedirs("/srv/site/photos")
    for number in range(photos // (300 << 10)):
        open(f"/srv/site/photos/{number}.jpg", "wb").write(os.urandom(300 << 10))
    subprocess.run(["chmod", "-R", "a+rX", "/srv/site"], check=True)
    return room


def clear():
    for path in glob.glob(DESTINATION + "/*"):
        shutil.rmtree(path)


def backup(rounds):
    global peak
    peak = 0
    ours, reference = [], []
    for _ in range(rounds):
        clear()
        ours.append(seconds(backup_by_agent))
        clear()
        reference.append(seconds(lambda: sh(SCRIPT, DESTINATION)))
    return ours, reference, [], peak


def effort(rounds):
    global peak
    peak = 0
    ours, reference = [], []
    for _ in range(rounds):
        clear()
        ours.append(processor(backup_by_agent))
        clear()
        reference.append(processor(lambda: sh(SCRIPT, DESTINATION)))
    size = sum(os.path.getsize(path) for path in glob.glob(DESTINATION + "/x/accounts/*-home.tar.gz"))
    clear()
    backup_by_agent()
    mine = sum(os.path.getsize(path) for path in glob.glob(DESTINATION + "/*/accounts/*-home.tar.gz"))
    return ours, reference, [mine, size]


DELETE = r"""
pkill -u "$1" || true
tar -czf "/srv/$1-home.tar.gz" -C /home "$1"
runuser -u postgres -- pg_dump -Fc "$1" >"/srv/$1-db.dump"
a2dissite -q "corv-$1"
rm -f "/etc/apache2/sites-available/corv-$1.conf" /etc/php/*/fpm/pool.d/corv-"$1".conf
apache2ctl configtest
systemctl reload apache2
systemctl reload "php$2-fpm"
runuser -u postgres -- psql -qtAX -c "DROP DATABASE \"$1\" WITH (FORCE)" -c "DROP ROLE \"$1\""
userdel --remove "$1"
"""


def deletion(rounds, php, *users):
    """The first half of the accounts by the agent, the others by the same commands."""
    ours = [seconds(lambda: check(request("hosting.delete", username=user, confirm=user))) for user in users[:rounds]]
    reference = [seconds(lambda: sh(DELETE, user, php)) for user in users[rounds:]]
    return ours, reference, []


def files(rounds, user, name):
    archive = f"{DESTINATION}/{name}/accounts/{user}-home.tar.gz"
    shutil.copy(archive, "/srv/copy.tar.gz")
    os.chmod("/srv/copy.tar.gz", 0o644)
    target = f"/home/{user}/restored-{name}"
    ours, reference = [], []
    for _ in range(rounds):
        ours.append(seconds(lambda: check(request("backup.restore", username=user, backup=name, what="files"))))
        shutil.rmtree(target)
        reference.append(seconds(lambda: sh(
            'runuser -u "$1" -- mkdir "$2"; '
            'runuser -u "$1" -- tar -xzf /srv/copy.tar.gz -C "$2" --strip-components=1 --no-same-owner', user, target)))
        shutil.rmtree(target)
    return ours, reference, []


def database(rounds, user, name):
    """The second reference drops a database of the same size too, as the swap does: that makes the server write it all out."""
    dump = f"{DESTINATION}/{name}/accounts/{user}-db.dump"
    ours, bare, whole = [], [], []
    load = 'cat "$1" | runuser -u postgres -- pg_restore -d scratch'
    for _ in range(rounds):
        sh("runuser -u postgres -- psql -qc CHECKPOINT")
        ours.append(seconds(lambda: check(request("backup.restore", username=user, backup=name, what="database"))))
        sh("runuser -u postgres -- createdb scratch; runuser -u postgres -- psql -qc CHECKPOINT")
        bare.append(seconds(lambda: sh(load, dump)))
        sh("runuser -u postgres -- dropdb scratch; runuser -u postgres -- createdb -T \"$1\" old;"
           "runuser -u postgres -- psql -qc CHECKPOINT", user)
        whole.append(seconds(lambda: sh("runuser -u postgres -- createdb scratch;" + load +
                                        "; runuser -u postgres -- dropdb old", dump)))
        sh("runuser -u postgres -- dropdb scratch")
    return ours, bare, whole


def status(rounds):
    clear()
    for day in range(60):
        folder = f"{DESTINATION}/2025-{1 + day // 28:02}-{1 + day % 28:02}_031500"
        os.makedirs(folder + "/accounts")
        accounts = [{"username": f"account{i}", "domain": f"account{i}.example.org", "homeBytes": 123456789 + i,
                     "dbBytes": 98765 + i} for i in range(200)]
        for i in range(200):
            for end in ("home.tar.gz", "db.dump"):
                with open(f"{folder}/accounts/account{i}-{end}", "w") as file:
                    file.write("x")
        for name in ("panel.dump", "config.tar.gz"):
            open(f"{folder}/{name}", "w").close()
        with open(folder + "/manifest.json", "w") as file:
            json.dump({"name": os.path.basename(folder), "created": 1741490105, "seconds": 5, "accounts": accounts,
                       "panelBytes": 7, "errors": []}, file, indent=4)
    ours, bare, whole = [], [], []
    replies = []
    for _ in range(rounds):
        ours.append(seconds(lambda: replies.append(request("backup.status"))))
        bare.append(seconds(lambda: tool("du", "-s", DESTINATION)))
        whole.append(seconds(lambda: [tool(*argv) for argv in STATUS_TOOLS]))
    for reply in replies:
        check(reply)
        assert len(json.loads(reply)["backups"]) == 60
    return ours, bare, whole


def tool(*argv):
    subprocess.run(argv, stdout=subprocess.DEVNULL, check=True)


STATUS_TOOLS = [
    ["du", "-s", DESTINATION],
    ["systemctl", "show", "-p", "ActiveState", "--value", "corv-backup.service"],
    ["systemctl", "show", "-p", "NextElapseUSecRealtime", "--value", "corv-backup.timer"],
    ["journalctl", "-u", "corv-backup.service", "-n", "30", "-o", "cat", "--no-pager"],
]


def check(reply):
    assert json.loads(reply)["ok"] is True, reply


function, *words = sys.argv[1:]
words[:1] = [int(word) for word in words[:1]]
print(json.dumps(globals()[function](*words)))
'''


def measure(host, what, references, limit, function, rounds, *words, unit="s"):
    """Prints a row for each reference, and returns what else the function measured."""
    times = host.ok(["python3", "/srv/inside.py", function, str(rounds), *words], timeout=3600)
    ours, *others = json.loads(times.splitlines()[-1])
    factor = 1000 if unit == "ms" else 1
    mine = statistics.median(ours) * factor
    for reference, spent in zip(references, others):
        theirs = statistics.median(spent) * factor
        print(f"| {what}, against {reference} | {mine:.1f} {unit} | {theirs:.1f} {unit} | {mine / theirs:.3f} | {limit} |",
              flush=True)
    return others[-1]


def prepare(host, count):
    """So many accounts with 2 GiB in all, and /home and the destination in memory."""
    host.ok(["sh", "-ec", "mount -t tmpfs -o size=6g tmpfs /srv; mkdir /srv/backup; mount -t tmpfs -o size=8g tmpfs /home"])
    host.put("/srv/inside.py", INSIDE)
    host.ok(["sed", "-i", "s|^;destination=.*|destination=/srv/backup|", "/etc/corvane/corvane.ini"])
    host.ok(["systemctl", "restart", "corv-agent"])
    host.wait_for_unit("corv-agent")
    missing = int(host.ok(["python3", "/srv/inside.py", "site"]))
    assert missing == 0, f"the host's texts are {missing} bytes too few"
    accounts = [host.account() for _ in range(count)]
    for account in accounts:
        fill(host, account, SMALL)
        sql(host, account, "CREATE TABLE t AS SELECT i, md5(i::text) FROM generate_series(1, 20000) AS i")
    return accounts


def fill(host, account, copies):
    """Puts so many copies of what sites are made of into the home: a compressor looks back far less than one."""
    host.ok(["sh", "-ec", 'for i in $(seq "$2"); do cp -r /srv/site "$1/$i"; done', "sh", f"{account.home}/public_html",
             str(copies)], user=account.name, timeout=600)


def sql(host, account, statement):
    done = host.run(["psql", "-qX", "-v", "ON_ERROR_STOP=1", "-h", "127.0.0.1", "-U", account.name, "-w", "-c", statement,
                     account.name], env={"PGPASSWORD": account.password}, timeout=1200)
    assert done.code == 0, done.err


def measure_run(host):
    peak = measure(host, f"backup run, {ACCOUNTS} accounts, 2 GiB", ["a shell script with gzip"], 0.25, "backup", ROUNDS)
    print(f"| its own peak memory | {peak / 1024:.1f} MiB | | | 20 MiB |", flush=True)
    mine, theirs = measure(host, "its processor time", ["the script's"], 0.2, "effort", 1)
    print(f"| its archives | {mine / 1e6:.1f} MB | {theirs / 1e6:.1f} MB | {mine / theirs:.3f} | |", flush=True)


def measure_deletion(host):
    accounts = [host.account() for _ in range(2 * ROUNDS)]
    for account in accounts:
        fill(host, account, LARGE)
    measure(host, "deletion of 1 GiB", ["the same commands with gzip"], 0.25, "deletion", ROUNDS, accounts[0].php,
            *[account.name for account in accounts])


def new_backup(host):
    """The name of a backup that is made now."""
    done = host.run(["/usr/libexec/corvane/corv-agent", "--backup"], timeout=3600)
    assert done.code == 0, done.err
    return host.request("backup.status")["backups"][0]["name"]


def measure_restores(host, account):
    """The files first: a large table is gone over once more by the server after it was filled."""
    fill(host, account, LARGE)
    measure(host, "restore of files, 1 GiB", ["tar -xzf with gzip"], 0.6, "files", ROUNDS, account.name, new_backup(host))
    host.ok(["sh", "-ec", "rm -rf /srv/backup/* /srv/copy.tar.gz"])
    sql(host, account, "CREATE TABLE large AS SELECT i, md5(i::text) || md5((i * 7)::text) AS text"
        " FROM generate_series(1, 5000000) AS i; ALTER TABLE large ADD PRIMARY KEY (i); CREATE INDEX ON large (text)")
    sql(host, account, "VACUUM ANALYZE large")
    measure(host, "restore of a database", ["cat, pg_restore", "createdb, cat, pg_restore, dropdb"], 1.03, "database", ROUNDS,
            account.name, new_backup(host))


def measure_status(host):
    measure(host, "backup.status, 60 backups of 200 accounts", ["du -s", "du -s and its three tools"], 1.5, "status",
            STATUS_ROUNDS, unit="ms")


def main(parts):
    """All parts, or those named: run, deletion, restores, status."""
    package = os.environ.get("CORV_PACKAGE") or subprocess.run(
        [TREE / "scripts" / "package"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[-1]
    host = Host(f"bench-{os.getpid()}")
    try:
        host.install(package)
        accounts = prepare(host, ACCOUNTS if not parts or "run" in parts else 1)
        if not parts or "run" in parts:
            measure_run(host)
        # By the agent: a PHP-FPM that finds a pool of a user who is gone loads no other either.
        for account in accounts[1:]:
            assert host.request("hosting.delete", username=account.name, confirm=account.name)["ok"] is True
        host.ok(["sh", "-c", "rm -f /var/backups/corvane/*.tar.gz /var/backups/corvane/*.dump"])
        if not parts or "deletion" in parts:
            measure_deletion(host)
        if not parts or "restores" in parts:
            measure_restores(host, accounts[0])
        if not parts or "status" in parts:
            measure_status(host)
    finally:
        host.stop()


main(sys.argv[1:])
