"""corvctl offsite drill: whose copy it proves, and that it takes away what is its own and nothing else."""

import json

import pytest
import test_ctl_offsite
from corvctl import corvctl
from test_ctl_offsite import ALL, AUTO, BACKUP, OWN, SNAPSHOTS, gives, holds, restics, snapshot

ARCHIVES = "/var/backups/corvane"
LATER = "2026-01-06_031500"
server = test_ctl_offsite.server


def drill(server, *args, made=True):
    """Runs a drill, whose account is made and taken away again here."""
    done = corvctl(server, "--json", "offsite", "drill", *args)
    if made:
        server.took("hosting.create", {"ok": True})
        server.took("hosting.delete", {"ok": True})
    return done


def created(server):
    return [call.argv[-1] for call in server.calls() if call.name == "useradd"]


def archives(server):
    return sorted(path.name for path in server.path(ARCHIVES).iterdir() if path.is_file())


def keeps(server, name, stamp, domain):
    """What a deletion leaves of an account with that domain."""
    names = [f"{name}-{stamp}-{what}" for what in ("accounts.state", "db.dump", "home.tar.gz")]
    for file in names:
        server.write(f"{ARCHIVES}/{file}", "kept", 0o600)
    server.write(f"{ARCHIVES}/{names[0]}", json.dumps({"username": name, "domain": domain}) + "\n", 0o600)
    return names


def test_a_name_whose_account_is_in_archives_alone_is_passed_over_and_they_stay(server):
    gives(server, ALL[1], states=OWN)
    kept = keeps(server, "drill1", "20250101-101010", "drill.example.net")
    drill(server, "alice")
    assert created(server) == ["drill2"]
    assert archives(server) == kept


def test_an_account_that_comes_by_that_name_meanwhile_stays_with_its_archives(server):
    gives(server, ALL[1], states=OWN)
    kept = keeps(server, "drill2", "20250101-101010", "drill.example.net")
    server.answer("restic", "dump", ..., shell=f"""
        grep -q ^drill1: /etc/passwd || {{
            echo 'drill1:x:1777:1777:Corvane account,drill.example.net:/home/drill1:/bin/bash' >>/etc/passwd
            echo kept >{ARCHIVES}/drill1-20260101-101010-db.dump
        }}
        case "$5" in
        /alice-home.tar) gzip -dc {AUTO}/{BACKUP}/accounts/alice-home.tar.gz ;;
        */alice-db.dump) echo dump ;;
        */accounts.state) cat /tmp/states ;;
        esac""")
    code, out, _ = drill(server, "alice", made=False)
    assert (code, json.loads(out)["ok"]) == (1, False)
    assert "drill1" in json.loads(out)["error"]
    assert [call.argv for call in server.calls() if call.name in ("useradd", "userdel", "groupdel")] == []
    assert "\ndrill1:" in server.read("/etc/passwd")
    assert archives(server) == ["drill1-20260101-101010-db.dump", *kept]


def test_what_the_deletion_of_a_killed_drill_left_is_taken_away_and_nothing_else(server):
    gives(server, ALL[1], states=OWN)
    keeps(server, "drill1", "20250101-101010", "drill1.drill.example")
    kept = keeps(server, "drill1", "20250202-101010", "drill2.drill.example") + keeps(
        server, "drill3", "20250101-101010", "drill.example.net")
    drill(server, "alice")
    assert archives(server) == kept


def test_it_is_this_servers_copy_that_is_proved(server):
    gives(server, ALL[1], states=OWN)
    server.answer("restic", *SNAPSHOTS, out=json.dumps([
        snapshot("/alice-home.tar", "home"), snapshot(f"{AUTO}/{BACKUP}", "rest", id="6" * 64),
        snapshot("/alice-home.tar", "home", server="web9", backup=LATER, id="7" * 64),
        snapshot(f"{AUTO}/{LATER}", "rest", server="web9", backup=LATER, id="8" * 64)]))
    drill(server, "alice")
    assert {argv[-2] for argv in restics(server) if argv[0] == "dump"} == {"5" * 64, "6" * 64}


@pytest.mark.parametrize("account, whose", [(["alice"], "alice"), ([], "this server's accounts")])
def test_another_servers_copy_is_not_taken_for_this_ones(server, account, whose):
    server.add_user("alice", "Corvane account,alice.example")
    holds(server, snapshot("/alice-home.tar", "home", server="web9"), snapshot(f"{AUTO}/{BACKUP}", "rest", server="web9"))
    told = f"nothing of {whose} is there from the server sandbox"
    code, out, err = drill(server, *account, made=False)
    assert (code, json.loads(out)) == (1, {"ok": False, "error": told})
    assert err == f"corvctl: {told}\n  corvctl offsite list shows what is; --server SERVER takes another server's\n"
    assert [argv[0] for argv in restics(server)] == ["snapshots"]


def test_another_servers_copy_is_proved_where_it_is_named(server):
    gives(server, ALL[1], states=OWN)
    server.answer("restic", *SNAPSHOTS, out=json.dumps([
        snapshot("/alice-home.tar", "home", server="web9"), snapshot(f"{AUTO}/{BACKUP}", "rest", server="web9", id="6" * 64)]))
    drill(server, "alice", "--server", "web9")
    assert created(server) == ["drill1"]
    told = "nothing of alice is there from the server web8"
    code, out, err = drill(server, "alice", "--server", "web8", made=False)
    assert (code, err) == (1, f"corvctl: {told}\n  corvctl offsite list shows what is\n")
