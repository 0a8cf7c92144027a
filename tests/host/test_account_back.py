"""An account comes back to the server that it left, with all that has changed since, and each time one of the two has it."""

import json
import re
import subprocess

import pytest
from hostfloor import HostError
from moves import (  # noqa: F401 (pytest finds two of them here)
    HOST,
    MOVES,
    SWITCHES,
    Watch,
    is_settled,
    is_suspended,
    killed_when,
    move,
    new_both_ways,
    old,
    record,
    words,
)
from shops import but_for_logs, everything, make_shop, page

LIMIT = 400
BACK = "--back"
CRONTAB = "5 5 * * * /bin/false\n"


@pytest.fixture
def shop(old, new):
    """A shop that has moved, and has changed since."""
    account = make_shop(old)
    new._accounts.append((account.name, account.domain))
    done = move(new, account.name)
    assert done.code == 0, done
    change(new, account)
    yield account
    for host in (old, new):
        host.run(["systemctl", "stop", f"corv-moving-{account.name}.timer", f"corv-move-{account.name}.timer", f"corv-moving-{account.name}.service"])
        host.run(["sh", "-c", f"corvctl account forward {account.name} off; corvctl account forwarded {account.name} off; "
                              f"rm -f {MOVES}/{account.name}.*"])
    new.remove_accounts()
    old.remove_accounts()


def change(host, shop):
    """What a week leaves behind: new and changed files, others gone, orders, settings, another crontab."""
    home = f"/home/{shop.name}"
    host.put(f"{home}/public_html/later.txt", "later\n", owner=f"{shop.name}:www-data")
    host.ok(["sh", "-c", f"rm {home}/public_html/up/f9.bin; chmod 640 {home}/public_html/up/f8.bin; "
                         f"echo more >>{home}/public_html/up/f7.bin"])
    host.ok(["crontab", "-u", shop.name, "-"], input=CRONTAB)
    assert host.sql("DELETE FROM orders WHERE id > 1990", database=shop.name).code == 0
    assert host.sql(f"ALTER ROLE {shop.name} RESET work_mem; ALTER ROLE {shop.name} SET lock_timeout = '7s'").code == 0


WELL = (200, "1990 orders, \n")


def comes_back(old, new, shop, before):
    done = move(old, shop.name, BACK)
    assert (done.code, re.findall("not as it was.*", done.err)) == (0, []), done
    assert but_for_logs(everything(old, shop.name)) == but_for_logs(before)
    assert not is_suspended(old, shop.name) and is_suspended(new, shop.name)
    # By the address that it had first, and by the one that it has been at since.
    assert page(old, shop) == WELL and page(new, shop) == WELL
    forwards = [json.loads(host.ok(["corvctl", "--json", "account", "forward"]))["forwards"] for host in (old, new)]
    assert [[one["account"] for one in some] for some in forwards] == [[], [shop.name]]
    return done


def test_a_shop_comes_back_with_what_has_changed(old, new, shop):
    before = everything(new, shop.name)
    plan = json.loads(old.ok(["corvctl", "--json", "account", "move", shop.name, HOST, BACK, "--dry-run"]))
    assert plan["ok"] and plan["checks"][0] == {"about": "Account", "level": "well",
                                                "text": f"{shop.name}, which left this server and is suspended here"}
    assert not old.exists(f"{MOVES}/{shop.name}.json") and is_suspended(old, shop.name)
    with Watch([new, old], shop.domain) as watch:
        done = comes_back(old, new, shop, before)
    print(f"nobody served it at the new address for {watch.gap_at_the_old_address():.2f} s")
    assert f"{shop.name} is still on {HOST}, suspended; corvctl account delete {shop.name} there takes it away" in " ".join(done.err.split())
    assert record(old, shop.name)[-1] == "finished" and not old.exists(f"{MOVES}/{shop.name}.left")
    doctor = [line for host in (old, new) for line in host.run(["corvctl", "--plain", "doctor"]).out.splitlines() if shop.name in line]
    assert doctor == []

    # And there once more, by the same words on the other server.
    old.put(f"{shop.home}/public_html/third.txt", "third\n", owner=f"{shop.name}:www-data")
    before = everything(old, shop.name)
    done = move(new, shop.name, BACK)
    assert done.code == 0, done
    assert everything(new, shop.name) == before and page(new, shop) == WELL and page(old, shop) == WELL
    assert is_suspended(old, shop.name)


@pytest.mark.long
def test_the_rehearsal_of_the_way_back_changes_nothing_for_visitors(old, new, shop):
    before = everything(new, shop.name)
    with Watch([new, old], shop.domain) as watch:
        done = move(old, shop.name, BACK, "--rehearse")
    assert done.code == 0 and f"corvctl account move {shop.name} {HOST} --back moves it" in done.err, done
    assert watch.statuses(0) == watch.statuses(1) == {"200"}
    assert is_suspended(old, shop.name) and record(old, shop.name) == ["created", "rehearsed"]
    assert old.sql(f"SELECT rolcanlogin FROM pg_roles WHERE rolname = '{shop.name}'").out.strip() == "f"
    comes_back(old, new, shop, before)


@pytest.mark.long
def test_jobs_that_were_given_up_meanwhile_do_not_come_back(old, new, shop):
    new.ok(["crontab", "-r", "-u", shop.name])
    done = move(old, shop.name, BACK)
    assert done.code == 0, done
    assert old.run(["crontab", "-l", "-u", shop.name]).code != 0
    assert page(old, shop) == WELL


@pytest.mark.long
def test_who_has_not_left_does_not_come_back(old, new, shop):
    done = new.run(["corvctl", "account", "move", shop.name, HOST, BACK, "--confirm", shop.name])
    assert (done.code, done.err) == (1, f"corvctl: {shop.name} came here from {HOST}, which takes it back\n"
                                        "  give this command there, with this server as HOST\n")
    done = old.run(["corvctl", "account", "move", "other", HOST, BACK, "--confirm", "other"])
    assert (done.code, done.err) == (1, "corvctl: other has not left this server\n")
    done = old.run(["corvctl", "account", "move", shop.name, HOST, "--dry-run"])
    assert done.code == 1 and f"{shop.name} cannot be moved here yet: Account, Domain" in done.err, done


# When it is killed, by what is seen from outside.
MOMENTS = {
    "suspended there": lambda old, new, name: is_suspended(new, name),
    "the files are placed": lambda old, new, name: "placing" in record(old, name),
    "on-line here": lambda old, new, name: not is_suspended(old, name),
    "decided": lambda old, new, name: new.exists(f"{MOVES}/{name}.left"),
}


@pytest.mark.long
@pytest.mark.parametrize("moment", MOMENTS)
def test_killed_within_the_switch_it_is_served_again_without_anybody(old, new, shop, moment):
    before = everything(new, shop.name)
    assert move(old, shop.name, BACK, "--rehearse").code == 0
    killed_when(old, shop, lambda: MOMENTS[moment](old, new, shop.name), moment, BACK)
    # What was left to do is done by the server itself.
    old.wait_for(lambda: is_settled(new, shop.name) and page(new, shop) == page(old, shop) == WELL
                 and is_suspended(old, shop.name) != is_suspended(new, shop.name), "the shop being served", timeout=60)
    comes_back(old, new, shop, before)


@pytest.mark.long
def test_a_connection_that_breaks_in_the_switch(old, new, shop):
    before = everything(new, shop.name)
    assert move(old, shop.name, BACK, "--rehearse").code == 0
    with old.background(words(shop.name, BACK), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as process:
        for line in process.stderr:
            if SWITCHES in line:
                break
        new.wait_for(lambda: is_suspended(new, shop.name), "the suspension")
        # The sessions, not what listens for further ones.
        new.ok(["sh", "-c", "pkill -KILL -f '^sshd(-session)?: root@notty'"])
        rest = process.stderr.read()
    if process.returncode == 0:
        raise HostError(f"it was over before the connection broke: {rest}")
    assert process.returncode == 1 and f"corvctl account move {shop.name} {HOST} --back goes on" in " ".join(rest.split()), rest
    assert page(new, shop) == WELL and page(old, shop) == WELL and is_suspended(old, shop.name)
    comes_back(old, new, shop, before)
