"""Homes laid out so that no archive of them is whole, or none comes to its end."""

import json

import pytest

# What another release's versions decide.
pytestmark = pytest.mark.core

# One run of the backup, and one deletion, of trees that take tools a while.
LIMIT = 400

LEVELS = """
import os, sys
os.chdir(sys.argv[1])
for _ in range(int(sys.argv[2])):
    os.mkdir("d")
    folder = os.open("d", os.O_RDONLY)
    os.fchdir(folder)
    os.close(folder)
"""


def nest(host, account, levels):
    """So many folders in each other, in the account's home."""
    host.put("/usr/local/lib/levels.py", LEVELS)
    host.ok(["python3", "/usr/local/lib/levels.py", account.home, str(levels)], user=account.name)


def back_up(host):
    """Runs the backup as its timer does, and gives the path of what it made."""
    host.run(["systemctl", "start", "corv-backup"], timeout=LIMIT)
    folder = "/var/backups/corvane/auto"
    return f"{folder}/{host.ok(['ls', folder]).split()[-1]}"


@pytest.fixture
def saved(host, account):
    """A backup of an account that has each of these, and the account."""
    script = f"""
    mkdir -p ~/public_html/{account.name}/tmp ~/tmp
    echo kept >~/public_html/{account.name}/tmp/file
    echo passing >~/tmp/file
    truncate -s 2T ~/holes
    """
    host.ok(["sh", "-c", script], user=account.name)
    nest(host, account, 1000)
    return back_up(host), account


def test_everything_but_the_one_folder_is_saved_and_comes_back(host, saved):
    folder, account = saved
    assert json.loads(host.get(f"{folder}/manifest.json"))["errors"] == []
    names = host.ok(["tar", "-tzf", f"{folder}/accounts/{account.name}-home.tar.gz"]).splitlines()
    assert f"{account.name}/public_html/{account.name}/tmp/file" in names
    assert f"{account.name}/tmp/file" not in names
    assert f"{account.name}/{'d/' * 1000}" in names

    backup = folder.rsplit("/", 1)[1]
    reply = host.request("backup.restore", username=account.name, backup=backup, what="files", timeout=LIMIT)
    assert reply == {"ok": True, "restoredTo": f"{account.home}/restored-{backup}"}
    assert host.ok(["stat", "-c", "%s", f"{reply['restoredTo']}/holes"]).strip() == str(2 << 40)
    assert int(host.ok(["stat", "-c", "%b", f"{reply['restoredTo']}/holes"])) < 100


def test_twenty_thousand_levels_do_not_end_the_archive_of_a_deletion(host, account):
    nest(host, account, 20_000)
    reply = host.request("hosting.delete", username=account.name, confirm=account.name, timeout=LIMIT)
    # What userdel cannot remove is another matter.
    assert "could not archive" not in reply.get("error", "")
    assert host.exists(reply["archive"].replace("*", "home.tar.gz"))
