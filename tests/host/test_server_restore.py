"""The drill: a server is lost, and all of its accounts are on a fresh one from its last backup, the same in everything."""

import json
import subprocess

import pytest
from shops import everything, make_shop, page

LIMIT = 600
AUTO = "/var/backups/corvane/auto"
PANEL = "SELECT word FROM says"


def copy(source, target, folder):
    """Brings a folder from one host to the other, as it is."""
    with source.background(["tar", "-C", "/", "-cf", "-", folder.lstrip("/")], stdout=subprocess.PIPE) as sender:
        with target.background(["sh", "-c", "mkdir -p /srv && tar -C /srv -xpf -"], stdin=sender.stdout) as receiver:
            sender.stdout.close()
            assert receiver.wait(timeout=120) == 0
    return f"/srv{folder}"


def of_panel(host, statement):
    done = host.run(["psql", "-qtAX", "-d", "corvane", "-c", statement], user="corv-web")
    assert done.code == 0, done.err
    return done.out


@pytest.fixture(scope="module")
def lost(boot):
    """A server with three sites, one of them suspended, a panel's database and a changed setting; and its backup."""
    host = boot()
    host.shops = [make_shop(host) for _ in range(3)]
    of_panel(host, "CREATE TABLE says AS SELECT 'the panel' AS word")
    host.ok(["sed", "-i", "s/^;keep_days=14/keep_days=21/", "/etc/corvane/corvane.ini"])
    host.before = {shop.name: everything(host, shop.name) for shop in host.shops}
    assert host.request("hosting.suspend", username=host.shops[2].name) == {"ok": True}
    host.ok(["corvctl", "backup", "start", "--wait"])
    host.backup = f"{AUTO}/{host.request('backup.status')['backups'][0]['name']}"
    return host


def test_a_lost_server_is_back_on_a_fresh_one(lost, boot):
    fresh = boot()
    folder = copy(lost, fresh, lost.backup)
    lost.stop()
    words = ["corvctl", "server", "restore", folder, "--panel", "--settings", "--confirm", folder.rsplit("/", 1)[1]]
    first, second, third = lost.shops

    refused = fresh.run(["corvctl", "server", "restore", "/root"])
    assert (refused.code, refused.err) == (
        1, "corvctl: /root is no folder of a backup\n"
        "  a backup is a folder such as /var/backups/corvane/auto/2026-11-22_031500\n")
    # What of an account that is here by now is not as it was is no matter of another run.
    fresh.ok(["sed", "-i", f'/"username":"{first.name}"/s/"linger":/"limitMb":5000,"linger":/', f"{folder}/accounts.state"])
    done = fresh.run(["corvctl", "server", "restore", folder, "--only", first.name, "--confirm", words[-1]])
    assert done.code == 1 and f"{first.name} is not as it was: the limit of 5000 MiB: hard quotas are off\n" in done.err, done
    assert done.err.endswith(f"corvctl: not all is as it was: {first.name}\n  these are here, so another run passes them over\n"), done
    assert fresh.request("hosting.usage")["usage"].keys() == {first.name}

    # Ended in the middle, it is done again and goes on.
    with fresh.background(["sh", "-c", 'echo $$ >&2; exec "$@"', "sh", *words], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True) as process:
        inner = process.stderr.readline().strip()
        for line in process.stderr:
            if f"{second.name}: loading the database" in line:
                break
        fresh.ok(["kill", "-KILL", inner])
    assert process.returncode != 0
    done = fresh.run(words, timeout=300)
    assert done.code == 0, done.err
    assert f"{first.name}: " not in done.err

    assert fresh.fetch(third.domain).status == 503
    assert fresh.request("hosting.resume", username=third.name) == {"ok": True}
    fresh.wait_for(lambda: page(fresh, third)[0] == 200, "the resumed site being served")
    for shop in lost.shops:
        assert page(fresh, shop) == (200, "2000 orders, \n")
        assert page(fresh, shop, "/order/7") == (200, "2000 orders, open\n")
        assert everything(fresh, shop.name) == lost.before[shop.name]
    assert of_panel(fresh, PANEL) == "the panel\n"
    assert fresh.request("backup.status")["keepDays"] == 21
    checks = json.loads(fresh.run(["corvctl", "--json", "doctor"]).out)["checks"]
    assert [finding["problem"] for check in checks for finding in check["findings"] if finding["level"] == "fault"] == [
        "there is no backup yet"]

    # A third time there is nothing to do.
    done = fresh.run([*words[:4], "--confirm", words[-1]])
    assert (done.code, done.out.count("is here already")) == (0, 3)
