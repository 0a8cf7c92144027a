"""How the times grow with the accounts in the user database and the files in a folder: a row for each size beside a tenth of it,
then all of it as the tables that docs/performance.md holds and as docs/growth.svg."""

import json
import math
import os
import shutil
import statistics
import sys
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "protocol"))
os.environ.setdefault("CORV_AGENT", str(TREE / "build-bench/bin/corv-agent"))

from ground import MS_BIND, Ground, mount  # noqa: E402
from sandbox import Sandbox  # noqa: E402

ACCOUNTS = (10, 100, 1_000, 10_000)
FILES = (100, 1_000, 10_000, 100_000, 1_000_000)
ROUNDS = 9
LIMIT = 12  # times for ten times as much: linear growth, and some room for a busy machine
BACKUPS = 14  # as many as are kept


def answer(box, command, **args):
    """Milliseconds from the request to its reply, and the reply."""
    with box.connect() as client:
        request = json.dumps({"cmd": command, "args": args}).encode() + b"\n"
        began = time.perf_counter()
        client.send(request)
        line = client.line()
        spent = (time.perf_counter() - began) * 1000
    reply = json.loads(line)
    assert reply["ok"], reply
    return spent, reply


def median(work, rounds=ROUNDS):
    work()  # the first one warms up
    return statistics.median(work() for _ in range(rounds))


def server(ground, accounts):
    """A server with so many accounts, each of them in as many finished backups as are kept."""
    box = Sandbox(ground)
    names = [f"site{number}" for number in range(accounts)]
    files = {name: [] for name in ("passwd", "shadow", "group", "gshadow")}
    for uid, name in enumerate(names, 100_000):
        files["passwd"].append(f"{name}:x:{uid}:{uid}:Corvane account,{name}.example:/home/{name}:/bin/bash\n")
        files["shadow"].append(f"{name}:!:19000:0:99999:7:::\n")
        files["group"].append(f"{name}:x:{uid}:\n")
        files["gshadow"].append(f"{name}:!::\n")
        box.path(f"/home/{name}").mkdir()
    for file, lines in files.items():
        with box.path(f"/etc/{file}").open("a") as database:
            database.write("".join(lines))

    saved = [{"username": name, "domain": f"{name}.example", "homeBytes": 1, "dbBytes": 1} for name in names]
    for day in range(1, BACKUPS + 1):
        stamp = f"2025-03-{day:02}_031500"
        box.write(f"/var/backups/corvane/auto/{stamp}/manifest.json", json.dumps({"name": stamp, "accounts": saved}))
    box.settings(backup_keep_days=100_000)
    return box


def creation(box, user):
    """Milliseconds of a creation, and of useradd alone. What is made is taken away again."""

    def created():
        spent, _ = answer(box, "hosting.create", username="fresh", domain="fresh.example")
        undo()
        return spent

    def added():
        began = time.perf_counter()
        box.run("useradd", "--create-home", "--user-group", user)
        return (time.perf_counter() - began) * 1000

    def undo():
        box.run("userdel", "--remove", "fresh")
        box.path("/etc/apache2/sites-available/corv-fresh.conf").unlink()
        box.path("/etc/php/8.2/fpm/pool.d/corv-fresh.conf").unlink()
        box.forget_calls()

    def alone():
        spent = added()
        box.run("userdel", "--remove", user)
        return spent

    return median(created), median(alone)


# Asks for one user as often as it takes for a steady figure, and prints the milliseconds of one time.
LOOK_UP = """
import pwd, sys, time
began = time.perf_counter()
for _ in range(51):
    pwd.getpwnam(sys.argv[1])
print((time.perf_counter() - began) * 1000 / 51)
"""


def library_lookup(box, name):
    """Milliseconds of a look-up by the C library alone, which reads the database from its beginning."""
    code, out, err = box.run("/usr/bin/python3", "-c", LOOK_UP, name)
    assert code == 0, err
    return float(out)


def discovery(box, accounts):
    """Milliseconds of a backup run in which no tool can be started: what is left is finding the accounts."""
    began = time.perf_counter()
    code, out = box.run_agent("--backup", env={"PATH": "/nowhere"})
    spent = (time.perf_counter() - began) * 1000
    assert code == 1 and out.count(" files: tar: cannot start") == accounts, out[-500:]
    return spent


def measure_accounts(ground, results):
    for count in ACCOUNTS:
        box = server(ground, count)
        try:
            # Nothing of the tools but the time that the stand-ins take, except for the ones that grow by themselves.
            created, added = creation(box, "plain")
            results["create"][count], results["useradd alone"][count] = created, added
            last = f"site{count - 1}"
            results["lookup"][count] = median(lambda: answer(box, "hosting.getKeys", username=last)[0], 51)
            results["getpwnam alone"][count] = library_lookup(box, last)
            results["usage"][count] = median(lambda: answer(box, "hosting.usage")[0])
            results["backup status"][count] = median(lambda: answer(box, "backup.status")[0])
            box.stop()
            results["backup discovery"][count] = median(lambda: discovery(box, count), 5)
        finally:
            box.close()


def measure_files(ground, results):
    box = Sandbox(ground)
    scratch = Path(tempfile.mkdtemp(prefix="corv-bench.", dir="/var/tmp"))
    try:
        uid = box.add_account("alice")
        # On a disk: in memory, a million files take a gigabyte of it.
        many = box.path("/home/alice/many")
        many.mkdir()
        mount(scratch, many, None, MS_BIND)
        os.chown(many, uid, uid)
        made = 0
        for count in FILES:
            for number in range(made, count):
                os.close(os.open(many / f"{number * 7919 % 1_000_003:07}.html", os.O_CREAT, 0o644))
            made = count
            results["list"][count] = median(lambda: answer(box, "files", username="alice", op="list", path="many")[0], 5)
    finally:
        box.close()
        shutil.rmtree(scratch)


def decade(number):
    """The power of ten below it, or that it is."""
    return math.floor(math.log10(number) + 1e-9)


COLOURS = ("#0b6e99", "#c2571a", "#3d7a3d", "#8a3ffc", "#b3261e", "#555555", "#b8860b")
WIDTH, HEIGHT, LEFT, TOP, BOTTOM = 470, 400, 60, 50, 140


def chart(title, left, series):
    """One panel with both axes logarithmic: linear growth is a line up by one decade for each."""
    counts = sorted({count for values in series.values() for count in values})
    times = [spent for values in series.values() for spent in values.values()]
    low, high = decade(min(times)), decade(max(times)) + 1
    first, last = decade(counts[0]), decade(counts[-1])

    def x(count):
        return left + LEFT + (math.log10(count) - first) / (last - first) * (WIDTH - LEFT - 30)

    def y(spent):
        return TOP + (high - math.log10(spent)) / (high - low) * (HEIGHT - TOP - BOTTOM)

    lines = [f'<text x="{left + LEFT}" y="28" font-weight="bold">{title}</text>']
    for power in range(first, last + 1):
        lines.append(f'<line x1="{x(10**power):.1f}" y1="{y(10**low):.1f}" x2="{x(10**power):.1f}" y2="{y(10**high):.1f}" '
                     f'stroke="#ddd"/><text x="{x(10**power):.1f}" y="{y(10**low) + 18:.1f}" text-anchor="middle">'
                     f"{10**power:,}</text>")
    for power in range(low, high + 1):
        lines.append(f'<line x1="{x(10**first):.1f}" y1="{y(10**power):.1f}" x2="{x(10**last):.1f}" y2="{y(10**power):.1f}" '
                     f'stroke="#ddd"/><text x="{x(10**first) - 8:.1f}" y="{y(10**power) + 4:.1f}" text-anchor="end">'
                     f"{10**power:g} ms</text>")
    for number, (name, values) in enumerate(series.items()):
        points = " ".join(f"{x(count):.1f},{y(spent):.1f}" for count, spent in sorted(values.items()))
        colour, row, column = COLOURS[number], number // 2, number % 2
        lines.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>')
        lines += [f'<circle cx="{x(count):.1f}" cy="{y(spent):.1f}" r="3" fill="{colour}"/>' for count, spent in values.items()]
        at = (left + LEFT + column * 190, HEIGHT - BOTTOM + 52 + row * 22)
        lines.append(f'<rect x="{at[0]}" y="{at[1] - 9}" width="12" height="4" fill="{colour}"/>'
                     f'<text x="{at[0] + 18}" y="{at[1]}">{name}</text>')
    return lines


def draw(accounts, files):
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{2 * WIDTH}" height="{HEIGHT}" font-family="sans-serif" '
             f'font-size="12"><rect width="100%" height="100%" fill="white"/>']
    lines += chart("Time by accounts in the user database", 0, accounts)
    lines += chart("Time by files in a folder", WIDTH, files)
    (TREE / "docs" / "growth.svg").write_text("\n".join([*lines, "</svg>"]) + "\n")


def rows(what, values):
    for name, times in values.items():
        before = None
        for count, spent in sorted(times.items()):
            rest = f"{before:.2f} ms | {spent / before:.2f} | {LIMIT}" if before else " | | "
            print(f"| {name}, {count:,} {what} | {spent:.2f} ms | {rest} |", flush=True)
            before = spent


def milliseconds(spent):
    """As many digits as count."""
    return f"{spent:.{2 if spent < 10 else 1 if spent < 100 else 0}f} ms"


def table(what, values):
    """A row for each thing measured, a column for each size."""
    counts = sorted({count for times in values.values() for count in times})
    print()
    print("| what | " + " | ".join(f"{count:,} {what}" for count in counts) + " |")
    print("| --- |" + " --- |" * len(counts))
    for name, times in values.items():
        print(f"| {name} | " + " | ".join(milliseconds(times[count]) for count in counts) + " |")


def main():
    ground = Ground()
    accounts = {name: {} for name in ("create", "useradd alone", "lookup", "getpwnam alone", "usage", "backup status",
                                     "backup discovery")}
    files = {"list": {}}
    try:
        measure_accounts(ground, accounts)
        measure_files(ground, files)
    finally:
        ground.close()
    rows("accounts", accounts)
    rows("files", files)
    table("accounts", accounts)
    table("files", files)
    draw(accounts, files)


main()
