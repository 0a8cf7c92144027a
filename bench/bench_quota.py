"""The usage report with quotas on, as the number of accounts grows: whole requests, a file in repquota's place."""

import os
import statistics
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tests" / "protocol"))
os.environ.setdefault("CORV_AGENT", str(TREE / "build-bench/bin/corv-agent"))

from ground import Ground  # noqa: E402
from sandbox import Sandbox  # noqa: E402

ROUNDS = 21
FEW, MANY = 1000, 10000
LIMIT = 12


def server(ground, accounts):
    """A server with quotas on and so many accounts."""
    box = Sandbox(ground)
    uids = range(100000, 100000 + accounts)
    with box.path("/etc/passwd").open("a") as users:
        for uid in uids:
            users.write(f"site{uid}:x:{uid}:100:Corvane account,site{uid}.example:/home/site{uid}:/bin/bash\n")
    # As repquota sorts it: not at all.
    lines = [f"#{uid:<9}--   {uid % 9999} 9216 10240   11 0 0\n" for uid in reversed(uids)]
    box.write("/srv/report", "*** Report for user quotas on device /dev/vda1\n" + "".join(lines))
    box.answer("findmnt", out="/ ext4\n")
    box.answer("quotaon", out="user quota on / (/dev/vda1) is on\n")
    box.answer("repquota", shell="exec /usr/bin/cat /srv/report")
    return box


def milliseconds(box, accounts):
    began = time.perf_counter()
    reply = box.request("hosting.usage")
    spent = (time.perf_counter() - began) * 1000
    assert len(reply["usage"]) == accounts, reply
    return spent


ground = Ground()
try:
    few, many = server(ground, FEW), server(ground, MANY)
    times = {FEW: [], MANY: []}
    for _ in range(ROUNDS):
        times[FEW].append(milliseconds(few, FEW))
        times[MANY].append(milliseconds(many, MANY))
    ours, reference = statistics.median(times[MANY]), statistics.median(times[FEW])
    print(f"| usage report with quotas on, {MANY} accounts against {FEW} | {ours:.1f} ms | {reference:.1f} ms "
          f"| {ours / reference:.2f} | {LIMIT} |")
    few.close()
    many.close()
finally:
    ground.close()
