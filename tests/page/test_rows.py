"""Everything that the page does, done there by mouse and keyboard, and seen on the server."""

import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import time

import pytest

from agents import agent_in_its_place
from conftest import client_that_says
from cockpit import FRAME
from hostfloor import ROOT, Host

LIMIT = 180


def test_the_overview_tells_how_the_server_is(server, page):
    page.visit()
    page.wait(f"{page.find('#content')} && !{page.page}.querySelector('#content .asked')", 60)
    said = page.text("#content")
    assert "The firewall is off" in page.text("#verdict")
    for text in ("web1", "apache2", "3 accounts, 1 suspended", "Examination"):
        assert text in said
    doctor = json.loads(server.run(["corvctl", "--json", "doctor"]).out)
    for check in doctor["checks"]:
        for finding in check["findings"]:
            assert finding["mend"] in said


def test_the_server_restarts_only_by_its_name(server, page):
    # The agent has systemd restart the host a few seconds later: here only what it asks for is written down.
    with server.stand_in("systemd-run", 'echo "$*" >/run/asked'):
        page.visit("services")
        page.visit()
        page.click(page.find("#restart-server"))
        page.wait_for("#restart")
        page.fill("confirm", "web")
        assert page.js(f"{page.find('#dialog-do')}.disabled") is True
        page.fill("confirm", "web1")
        assert page.js(f"{page.find('#dialog-do')}.disabled") is False
        assert "corvctl host restart" in page.text("#restart")
        page.do()
        assert server.get("/run/asked").endswith("systemctl reboot\n")
    page.visit("services")
    page.wait_for("#services")


def test_the_lines_that_do_the_same_are_lines_of_the_client(server):
    # The page's actions have these lines and no others: the tests without a browser see to that.
    lines = (pathlib.Path(__file__).parent / "same.txt").read_text().splitlines()
    lines += ["corvctl file put shop a.txt b/a.txt", "corvctl file get shop b/a.txt a.txt"]
    helps = {}
    for line in lines:
        client, topic, command, *words = shlex.split(line)
        if (topic, command) not in helps:
            helps[topic, command] = server.ok([client, topic, command, "--help"])
        usage, _, options = helps[topic, command].partition("Positionals:" if "Positionals:" in helps[topic, command] else "Options:")
        taking = dict(re.findall(r"^ +(?:-\w,)?(--[\w-]+)( VALUE)?", options, re.M))
        given = []
        words = iter(words)
        for word in words:
            if not word.startswith("--"):
                given.append(word)
                continue
            assert word in taking, line
            if taking[word]:
                assert next(words, None), line
        named = re.search(rf"{topic} {command} \[OPTIONS\](.*)", usage)[1].split()
        needed = [one for one in named if not one.startswith("[")]
        assert len(needed) <= len(given) <= len(named), line


def test_an_account_is_made_suspended_resumed_and_deleted(server, page):
    key = server.make_key("page").public
    page.visit("accounts")
    page.wait_for("#create-account")
    page.click(page.find("#create-account"))
    page.fill("username", "carol")
    page.fill("domain", "carol.example.org")
    page.fill("sshKey", key)
    assert "corvctl account create carol carol.example.org --key-file key.pub" in page.text("#create")
    said = page.do()
    password = page_password(said)
    assert server.sql("SELECT 1", database="carol", role="carol", password=password).out.strip() == "1"
    server.wait_until_served("carol", "carol.example.org")

    page.wait_for('[data-row="carol"]')
    page.press_button("Suspend carol")
    page.do()
    page.wait_for_text("Suspended", '[data-row="carol"]')
    assert server.fetch("carol.example.org").status == 503
    page.press_button("Resume carol")
    page.do()
    page.wait_for_text("On-line", '[data-row="carol"]')

    page.press_button("Delete carol")
    page.wait_for("#delete")
    assert page.js(f"{page.find('#dialog-do')}.disabled") is True
    page.fill("confirm", "carol")
    said = page.do()
    assert "/var/backups/corvane/carol-" in said
    page.wait(f"!{page.find('#accounts [data-row=carol]')} && {page.find('#gone [data-row=carol]')}")
    assert server.run(["id", "carol"]).code == 1


def page_password(said):
    """The password in what a dialog says: the one word of 24 characters."""
    return next(word for word in said.split() if len(word) == 24)


def test_a_refusal_stays_in_the_dialog(server, page):
    page.visit("accounts")
    page.click(page.find("#create-account"))
    page.fill("username", "shop")
    page.fill("domain", "other.example.org")
    assert server.request("hosting.create", username="shop", domain="other.example.org")["error"] in page.do()
    assert page.js(f"{page.find('#field-username')}.value") == "shop"
    page.click(page.find("#dialog-close"))


def test_accounts_are_searched_filtered_and_sorted(server, page):
    page.visit("accounts")
    rows = f"[...{page.page}.querySelectorAll('#accounts tbody tr')].map(row => row.dataset.row)"
    page.wait_for('[data-row="shop"]')
    page.click(page.find("#search"))
    page.type("ali")
    page.wait(f"{rows}.join() === 'alice'")
    for _ in "ali":
        page.press("Backspace", 8)
    page.choose("#state", "suspended")
    page.wait(f"{rows}.join() === 'bob'")
    page.choose("#state", "")
    page.choose("#by", "state")
    page.wait(f"{rows}.join() === 'alice,shop,bob'")
    page.choose("#by", "username")


# One that the server trusts, for sixty days.
CERTIFICATE = """
cd /root
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout shop.key -out shop.crt -days 60 -subj /CN=shop \
    -addext subjectAltName=DNS:shop.example.org,DNS:www.shop.example.org 2>/dev/null
install -m 0644 shop.crt /usr/local/share/ca-certificates/
update-ca-certificates >/dev/null 2>&1
"""


def test_certificates_of_sites_are_shown(server, page):
    page.visit("services")
    page.visit()
    page.wait_for_text("corvctl https on", "#certificates")
    server.ok(["sh", "-ec", CERTIFICATE])
    server.ok(["corvctl", "https", "on"])
    try:
        server.ok(["corvctl", "account", "https", "shop", "on", "--cert", "/root/shop.crt", "--key", "/root/shop.key"])
        page.visit("services")
        page.visit()
        page.wait_for_text("alice.example.org", "#certificates")
        told = page.text("#certificates")
        assert "1 site" in told and "Waits for its certificate" in told and "shop.example.org" not in told
        page.visit("accounts", "shop")
        page.wait_for_text("Served", "#content")
        month, day, _, year, _ = server.ok(["openssl", "x509", "-noout", "-enddate", "-in", "/root/shop.crt"]).partition("=")[2].split()
        assert f"until {month} {day}, {year}" in page.text("#content")
    finally:
        server.ok(["corvctl", "https", "off"])


def test_certificates_that_somebody_has_to_look_after_are_shown(server, page):
    # None ends while the test runs: what is known of them is a prepared reply.
    site = {"username": "shop", "domain": "shop.example.org", "names": ["shop.example.org"], "state": "served", "remark": "", "brought": False}
    now = int(time.time())
    others = [{**site, "username": "alice", "domain": "alice.example.org", "state": "expired", "validUntil": now - 86400},
              {**site, "username": "bob", "domain": "bob.example.org", "state": "waiting", "remark": "its name leads elsewhere"}]
    page.visit("services")
    with client_that_says(server, {"ok": True, "sites": [{**site, "validUntil": now + 60 * 86400}, *others]}, to="--json https list"):
        page.visit()
        page.wait_for_text("its name leads elsewhere", "#certificates")
        assert "1 site" in page.text("#certificates")
        page.wait_for_text("HTTPS of alice.example.org: Expired", "#verdict")
        page.visit("accounts", "shop")
        page.wait_for_text("Served", "#content")
    page.visit("services")
    with client_that_says(server, {"ok": False, "error": "HTTPS is off"}, to="--json https list"):
        page.visit()
        page.wait_for_text("corvctl https on", "#certificates")


def test_what_the_accounts_use_is_measured(server, page):
    page.visit("accounts")
    page.click(page.find("#measure"))
    assert "corvctl account usage" in page.text("#measure-homes")
    said = page.do()
    assert [name in said for name in ("alice", "bob", "shop")] == [True] * 3
    assert said.count("kB") == 3


def test_an_accounts_keys_database_and_limit(server, page):
    key = server.make_key("second").public
    page.visit("accounts", "shop")
    page.click(page.find("#edit-keys"))
    page.fill("keys", key)
    page.do()
    fingerprint = server.ok(["ssh-keygen", "-lf", "/home/shop/.ssh/authorized_keys"]).split()[1]
    page.wait_for_text(fingerprint, "#keys-table")

    page.click(page.find("#new-password"))
    password = page_password(page.do())
    assert server.sql("SELECT 1", database="shop", role="shop", password=password).out.strip() == "1"
    page.click(page.find("#read-only-switch"))
    page.do()
    assert "read-only transaction" in server.sql("CREATE TABLE t ()", database="shop", role="shop", password=password).err
    page.wait_for_text("Read-only")
    page.click(page.button("Make writable"))
    page.do()
    assert server.sql("CREATE TABLE t ()", database="shop", role="shop", password=password).code == 0

    page.click(page.find("#set-limit"))
    page.fill("mb", "100")
    assert "corvctl account limit shop 100M" in page.text("#limit")
    assert server.request("quota.set", username="shop", mb=100)["error"] in page.do()
    page.click(page.find("#dialog-close"))


def test_a_backup_is_made_and_brought_back(server, page):
    server.put("/home/shop/public_html/index.html", "the good page", owner="shop")
    page.visit("backups")
    page.click(page.find("#start-backup"))
    page.do()
    page.wait_for("#backups tbody tr", 60)
    name = server.request("backup.status")["backups"][0]["name"]
    page.wait(f"{page.row(name)} && !{page.find('#start-backup')}.disabled", 60)

    page.visit("accounts", "shop")
    server.put("/home/shop/public_html/index.html", "a broken page", owner="shop")
    restore = page.row(name, "button")
    page.click(restore)
    page.choose("#field-way", "folder")
    page.fill("folder", "public_html")
    page.fill("confirm", "shop")
    assert f"corvctl backup restore shop {name} files public_html --in-place" in page.text("#restore")
    page.do()
    assert server.get("/home/shop/public_html/index.html") == "the good page"

    page.click(restore)
    page.fill("confirm", "shop")
    said = page.do()
    folder = next(word for word in said.split() if word.startswith("/home/shop/"))
    assert server.get(f"{folder}/public_html/index.html") == "the good page"

    page.click(restore)
    page.choose("#field-way", "database")
    page.fill("confirm", "shop")
    assert "Restore shop" in page.do()


def test_a_run_is_seen_as_it_goes_on_beside_those_that_failed_or_are_missing(server, page):
    day = 86400
    whole = server.request("backup.status")
    made = {"bytes": 5000, "seconds": 60, "panelBytes": 0, "accounts": [], "errors": []}
    newest = int(time.time()) - 3600
    backups = [{**made, "name": "2026-11-22_031500", "created": newest},
               {**made, "name": "2026-11-19_031500", "created": newest - 3 * day, "seconds": 90, "errors": ["shop: tar failed: exit code 2"]}]
    replies = {**whole, "backups": backups, "running": True, "log": "account shop"}
    with agent_in_its_place(server, {"backup.status": replies}) as asked:
        page.visit("services")
        page.visit("backups")
        page.wait_for_text("account shop", "#content .log")
        page.wait_for_text("shop: tar failed: exit code 2", "#backups")
        marks = page.js(f"Array.from({page.page}.querySelectorAll('.plot .mark title'), one => one.textContent.split(', ').at(-1))")
        assert marks == ["with problems", "no backup", "no backup"]
        assert page.js(f"{page.find('#start-backup')}.disabled") is True
        # It asks again by itself.
        replies["log"] += "\naccount zoo"
        server.put("/run/replies.json", json.dumps({"backup.status": replies}))
        page.wait_for_text("account zoo", "#content .log")
        assert {"cmd": "backup.status", "args": {}} in asked()


def test_a_backup_is_verified(server, page):
    # It is verified by itself, as soon as it is made; here it has not been yet.
    server.ok(["systemctl", "stop", "corv-verify.service"])
    server.ok(["sh", "-c", "rm -f /var/backups/corvane/auto/*.verified.json"])
    page.visit("services")
    page.visit("backups")
    name = server.request("backup.status")["backups"][0]["name"]
    page.wait_for_text("Not verified", "#backups")
    page.click(page.row(name, "button[aria-label^='Verify']"))
    assert f"the backup {name} is whole" in page.do(120)
    page.wait(f"!{page.find('#backups')}.innerText.includes('Not verified')")
    page.wait(f"{page.row(name)}.innerText.includes('Whole')")


def test_a_backup_is_restored_from_the_list_of_backups(server, page):
    page.visit("backups")
    name = server.request("backup.status")["backups"][0]["name"]
    server.put("/home/alice/public_html/index.html", "made later", owner="alice")
    page.click(page.row(name, "button[aria-label^='Restore']"))
    page.choose("#field-account", "alice")
    page.choose("#field-way", "home")
    page.fill("confirm", "shop")
    assert page.js(f"{page.find('#dialog-do')}.disabled") is True
    page.fill("confirm", "alice")
    assert f"corvctl backup restore alice {name} files --in-place" in page.text("#restore")
    page.do()
    assert server.run(["cat", "/home/alice/public_html/index.html"]).out != "made later"


def test_an_account_that_is_gone_is_brought_back(server, page):
    made = server.request("hosting.create", username="erin", domain="erin.example.org")
    server.put("/home/erin/public_html/index.html", "erin's page", owner="erin")
    server.ok(["corvctl", "backup", "start", "--wait"])
    server.ok(["corvctl", "account", "delete", "erin", "--confirm", "erin"])
    page.visit("backups")
    page.visit("accounts")
    page.press_button("Bring erin back")
    sources = page.js(f"Array.from({page.find('#field-from')}.options, one => one.value)")
    assert sources == [one["from"] for one in json.loads(server.ok(["corvctl", "--json", "account", "restore", "erin"]))["sources"]]
    assert [source.startswith("erin-") for source in sources] == [True, False]
    assert f"corvctl account restore erin --from {sources[0]}" in page.text("#undelete")
    page.fill("confirm", "erin")
    page.do(120)
    assert server.get("/home/erin/public_html/index.html") == "erin's page"
    assert server.sql("SELECT 1", database="erin", role="erin", password=made["dbPassword"]).out == "1\n"
    page.wait(f"{page.find('#accounts')} && {page.row('erin')} && !{page.find('#gone [data-row=erin]')}")


@pytest.fixture(scope="module")
def copies(server):
    """Copies off-site being set up, which takes restic several seconds: the tests of files go on beside it."""
    with server.background(["corvctl", "offsite", "setup", "/srv/copies"], stdout=subprocess.DEVNULL) as setup:
        yield setup


def test_backups_that_are_copied_nowhere_are_said(page, request):
    page.visit("accounts")
    page.visit("backups")
    page.wait_for_text("No copies are made elsewhere")
    request.getfixturevalue("copies")


def test_files_are_made_edited_renamed_and_deleted(server, page):
    page.visit("files", "alice", "public_html")
    page.click(page.find("#make-folder"))
    page.fill("name", "img")
    page.do()
    page.wait_for('[data-row="img"]')
    assert server.run(["stat", "-c", "%U %F", "/home/alice/public_html/img"]).out == "alice directory\n"

    page.click(page.find("#make-file"))
    page.fill("name", "a b.txt")
    page.fill("content", "one")
    page.do()
    assert server.get("/home/alice/public_html/a b.txt") == "one"

    page.press_button("a b.txt")
    page.fill("content", "two")
    page.do()
    assert server.get("/home/alice/public_html/a b.txt") == "two"

    page.press_button("Rename a b.txt")
    page.fill("to", "public_html/c.txt")
    page.do()
    page.wait_for('[data-row="c.txt"]')
    assert not server.exists("/home/alice/public_html/a b.txt")

    page.press_button("Delete c.txt")
    page.do()
    page.wait(f"!{page.row('c.txt')}")
    assert not server.exists("/home/alice/public_html/c.txt")


def test_the_editor_sees_that_somebody_changed_the_file(server, page):
    server.put("/home/alice/public_html/page.html", "first\r\nsecond\r\n", owner="alice")
    page.visit("files", "alice")
    page.visit("files", "alice", "public_html")
    page.press_button("page.html")
    page.wait_for("#editor")
    server.put("/home/alice/public_html/page.html", "somebody else's", owner="alice")
    page.fill("content", "mine\nsecond\n")
    assert "changed this file meanwhile" in page.do()
    assert server.get("/home/alice/public_html/page.html") == "somebody else's"
    # One key does not throw away what was written.
    page.press("Escape", 27)
    page.wait_for_text("not saved", "dialog [role=status]")
    page.click(page.find("#dialog-do:not(:disabled)"))
    page.wait(f"!{page.find('dialog')}")
    assert server.ok(["od", "-An", "-c", "/home/alice/public_html/page.html"]).split() == [*"mine", "\\r", "\\n", *"second", "\\r", "\\n"]


def test_files_travel_both_ways(server, page, tmp_path):
    small, big = tmp_path / "small.txt", tmp_path / "größer.bin"
    small.write_text("small")
    big.write_bytes(os.urandom(5 << 20))
    page.visit("files", "alice")
    page.wait_for("#pick-files")
    page.give_files("#pick-files", small, big)
    page.wait_for('[data-row="größer.bin"]', 60)
    page.wait(f"!{page.find('#transfers [data-file]')}", 60)
    digest = hashlib.sha256(big.read_bytes()).hexdigest()
    assert server.ok(["sha256sum", "/home/alice/größer.bin"]).split()[0].lstrip("\\") == digest
    assert server.get("/home/alice/small.txt") == "small"
    assert server.run(["ls", "-A", "/var/lib/corvane/transfer"]).out == ""

    folder = tmp_path / "fetched"
    folder.mkdir()
    page.send("Browser.setDownloadBehavior", session=None, behavior="allow", downloadPath=str(folder))
    page.press_button("Download größer.bin")
    Host.wait_for(server, lambda: (folder / "größer.bin").exists(), "the download", 60)
    assert hashlib.sha256((folder / "größer.bin").read_bytes()).hexdigest() == digest
    server.wait_for(lambda: server.run(["ls", "-A", "/var/lib/corvane/transfer"]).out == "", "an empty transfer folder")


def test_several_files_and_folders_are_dropped(server, page, tmp_path):
    for path in ("site/index.html", "site/img/a b.png", "site/img/deep/c.txt", "one.txt", "two.txt"):
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(path)
    (tmp_path / "site/empty").mkdir()
    page.visit("files", "alice")
    page.wait_for("#drop")
    page.drop("#drop", tmp_path / "site", tmp_path / "one.txt", tmp_path / "two.txt")
    page.wait(f"{page.row('site')} && {page.row('two.txt')}", 60)
    page.wait(f"!{page.find('#transfers .notice')}", 60)
    assert server.run(["stat", "-c", "%U %F", "/home/alice/site/empty"]).out == "alice directory\n"
    for path in ("site/index.html", "site/img/a b.png", "site/img/deep/c.txt", "one.txt", "two.txt"):
        assert server.get(f"/home/alice/{path}") == path
    assert server.run(["stat", "-c", "%U", "/home/alice/site/img/deep"]).out == "alice\n"

    # What is there already is replaced only when that was said.
    (tmp_path / "one.txt").write_text("one again")
    page.drop("#drop", tmp_path / "one.txt")
    page.wait_for("#replace")
    assert server.get("/home/alice/one.txt") == "one.txt"
    page.do()
    server.wait_for(lambda: server.get("/home/alice/one.txt") == "one again", "the replaced file")


def test_files_are_found_and_reached_by_the_keyboard(server, page):
    page.visit("files", "alice")
    page.wait_for('[data-row="two.txt"]')
    page.click(page.find("#search"))
    page.type("ONE.t")
    page.wait(f"{page.page}.querySelectorAll('#files [data-row]').length === 1")
    page.js(f"{page.find('#search')}.select()")
    page.type(".txt")
    page.wait(f"{page.row('two.txt')}")
    page.js(f"{page.row('one.txt', 'button')}.focus()")
    page.press("ArrowDown", 40)
    focused = f"{page.page}.activeElement.closest('[data-row]').dataset.row"
    below = page.js(focused)
    assert below != "one.txt"
    page.press("ArrowUp", 38)
    assert page.js(focused) == "one.txt"
    page.press("F2", 113)
    page.wait_for("#rename")
    page.press("Escape", 27)
    page.wait(f"!{page.find('dialog')}")
    assert page.js(focused) == "one.txt"
    page.press("Delete", 46)
    page.wait_for("#delete-file")
    assert "corvctl file rm alice one.txt" in page.text("#delete-file")
    page.press("Escape", 27)
    page.wait(f"!{page.find('dialog')}")


def test_an_upload_is_cancelled(server, page, tmp_path):
    large = tmp_path / "large.bin"
    large.write_bytes(b"")
    os.truncate(large, 200 << 20)
    page.visit("files", "alice", "logs")
    page.visit("files", "alice")
    page.wait_for("#pick-files")
    page.give_files("#pick-files", large)
    page.press_button("Cancel large.bin")
    page.wait_for_text("Cancelled", "#transfers", 60)
    page.press_button("Dismiss", "#transfers")
    server.wait_for(lambda: server.run(["ls", "-A", "/var/lib/corvane/transfer"]).out == "", "an empty transfer folder")
    assert not server.exists("/home/alice/large.bin")


def test_backups_are_copied_and_fetched_off_site(server, page, copies):
    assert copies.wait(LIMIT) == 0
    page.visit("accounts")
    page.visit("backups")
    page.wait_for_text("/srv/copies")
    page.press_button("Copy now")
    page.do(170)
    newest = server.request("backup.status")["backups"][0]["name"]
    assert json.loads(server.ok(["corvctl", "--json", "offsite", "status"]))["state"]["copied"] == newest
    page.click(page.find("#fetch-offsite"))
    page.fill("username", "shop")
    page.do(170)
    assert server.exists(f"/var/backups/corvane/fetched/shop-{newest}")


def test_services_restart_and_quotas_say_why_not(server, page):
    page.visit("services")
    server.wait_for_unit("apache2")
    before = server.main_process("apache2")
    page.press_button("Restart apache2")
    page.do()
    server.wait_for(lambda: server.main_process("apache2") not in ("0", before), "Apache's restart")
    page.wait_for_text(server.request("quota.status")["reason"])


def test_quotas_are_switched_on(server, page):
    # No file system of such a host has quotas: the agent's replies are those of one that has.
    state = {"ok": True, "mount": "/", "device": "/dev/vda1", "fsType": "ext4", "supported": True, "enabled": False, "reason": ""}
    whole = server.request("quota.status")
    with agent_in_its_place(server, {"quota.status": {**whole, **{name: value for name, value in state.items() if name in whole}},
                                     "quota.enable": {"ok": True}, "services.status": server.request("services.status")}) as asked:
        page.visit("updates")
        page.visit("services")
        page.click(page.find("#quotas-on"))
        assert "corvctl quota enable" in page.text("#quotas")
        page.do()
        assert {"cmd": "quota.enable", "args": {}} in asked()


def test_the_firewall_keeps_the_door_open_through_which_one_came(server, page):
    page.visit("firewall")
    page.click(page.find("#firewall-on"))
    assert "corvctl firewall allow 9090 --proto tcp && corvctl firewall enable" in page.text("#enable")
    page.do(170)
    page.wait_for_text("keeps this page", "#rules")
    assert server.fetch("shop.example.org").status in (200, 403, 404)
    # A visitor who comes anew gets in, too.
    assert server.outside(["curl", "-ksS", "-o", "/dev/null", "-w", "%{http_code}", "https://10.213.0.2:9090/"]).out == "200"
    assert page.js(f"Boolean({page.button('Delete the rule for 9090/tcp')})") is False

    page.click(page.find("#open-port"))
    page.fill("port", "8080")
    page.do()
    page.wait_for_text("8080/tcp", "#rules")
    page.press_button("Delete the rule for 8080/tcp")
    page.do()
    page.wait(f"[...{page.find('#rules')}.querySelectorAll('th')].every(e => e.textContent !== '8080/tcp')")
    page.click(page.find("#firewall-off"))
    page.do()
    assert server.request("firewall.status")["active"] is False


def test_a_ban_is_seen_and_lifted(server, page):
    page.visit("firewall")
    page.click(page.find("#bans-on"))
    page.do(170)
    server.wait_for(lambda: server.run(["fail2ban-client", "status", "sshd"]).code == 0, "the jail")
    server.ok(["fail2ban-client", "set", "sshd", "banip", "192.0.2.7"])
    page.visit()
    page.visit("firewall")
    page.wait_for_text("192.0.2.7", "#banned")
    page.press_button("Lift the ban of 192.0.2.7")
    page.do()
    page.wait_for_text("Nobody is banned")
    assert "192.0.2.7" not in server.ok(["fail2ban-client", "status", "sshd"])
    page.click(page.find("#ban-one"))
    page.fill("address", "192.0.2.8")
    page.choose("#field-jail", "sshd")
    page.do()
    page.wait_for_text("192.0.2.8", "#banned")
    server.ok(["corvctl", "ban", "lift", "sshd", "192.0.2.8"])


def test_the_documented_jail_counts_failed_logins_at_this_page(server, page):
    block = (ROOT / "docs/page.md").read_text().split("```ini\n[pam-generic]")[1].split("```")[0]
    server.put("/etc/fail2ban/jail.d/cockpit.local", "[pam-generic]" + block)
    server.ok(["systemctl", "restart", "fail2ban"])
    server.wait_for(lambda: server.run(["fail2ban-client", "status", "pam-generic"]).code == 0, "the jail")
    server.outside(["curl", "-ksS", "-o", "/dev/null", "-u", "boss:wrong", "https://10.213.0.2:9090/cockpit/login"])
    # Once, and not as often as it takes to be banned: the browser has the same address.
    server.wait_for(lambda: "Total failed:\t1" in server.ok(["fail2ban-client", "status", "pam-generic"]), "the count of the failed login")


def test_updates_are_looked_for_and_installed(server, page):
    server.publish("page-one", "1.0", install=True)
    server.publish("page-one", "2.0", security=True)
    page.visit("updates")
    page.click(page.find("#refresh-updates"))
    page.do(170)
    page.wait_for_text("page-one", "#packages")
    page.click(page.find("#install-security"))
    page.do()
    page.wait_for_text("Nothing waits", patience=120)
    assert server.ok(["dpkg-query", "-W", "-f=${Version}", "page-one"]) == "2.0"
    page.wait_for("#content .log")

    # The log of an installation that still runs is there after a reload, too.
    whole = server.request("updates.status")
    with agent_in_its_place(server, {"updates.status": {**whole, "running": True, "log": "Unpacking page-one\n", "rebootRequired": True,
                                                        "rebootPackages": ["libc6"]}, "system.reboot": {"ok": True}}) as asked:
        page.js(f"{FRAME}.contentWindow.location.reload()")
        page.forget_frames()
        page.wait_for_text("Unpacking page-one", "#content .log")
        page.wait_for_text("Being installed")
        # What waits for a restart says for what, and restarts the server by its name alone.
        page.wait_for_text("due for libc6")
        page.click(page.find("#restart-server"))
        page.fill("confirm", whole["hostname"])
        page.do()
        assert {"cmd": "system.reboot", "args": {"confirm": whole["hostname"]}} in asked()
    page.js(f"{FRAME}.contentWindow.location.reload()")
    page.wait_for("#packages, #automatic-updates")

    # The package that installs security updates switches them on when it comes.
    assert server.request("updates.status")["automatic"] is True
    for named, on in (("Automatic off", False), ("Automatic on", True)):
        page.press_button(named)
        page.do()
        assert server.request("updates.status")["automatic"] is on
