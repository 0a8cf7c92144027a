"""What the page shows when something is missing or hostile, and that it mends itself."""

import json
from contextlib import contextmanager

import pytest
from conftest import PASSWORD, RESULTS
from cockpit import FRAME, Cockpit

OLD_AGENT = r"""
import json, os, socket, sys
path = "/run/corvane/agent.sock"
if os.path.exists(path):
    os.unlink(path)
server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen(20)
while True:
    client, _ = server.accept()
    if os.fork():
        client.close()
        continue
    for line in client.makefile("r"):
        request = json.loads(line)
        client.sendall((json.dumps(json.load(open("/run/replies.json")).get(request["cmd"], {"ok": False, "error": "unknown command"})) + "\n").encode())
    sys.exit()
"""


def start_agent(server):
    # The tests stop it more often than systemd lets it be started.
    server.run(["systemctl", "reset-failed", "corv-agent"])
    server.ok(["systemctl", "start", "corv-agent"])


@contextmanager
def agent_in_its_place(server, replies):
    """A program that answers each command with a prepared reply, or as an agent that does not know it."""
    server.put("/run/other-agent.py", OLD_AGENT)
    server.put("/run/replies.json", json.dumps(replies))
    server.ok(["systemctl", "stop", "corv-agent"])
    server.ok(["systemd-run", "--quiet", "--collect", "--unit=other-agent", "python3", "/run/other-agent.py"])
    server.wait_for(lambda: server.exists("/run/corvane/agent.sock"), "the other agent")
    try:
        yield
    finally:
        server.ok(["systemctl", "stop", "other-agent"])
        start_agent(server)
        server.wait_for_unit("corv-agent")


def test_a_stopped_agent_is_said_and_the_page_comes_back_by_itself(server, page):
    server.ok(["systemctl", "stop", "corv-agent"])
    try:
        page.visit("services")
        page.visit()
        page.wait_for("#no-agent")
        page.screenshot(RESULTS / "no-agent.png")
    finally:
        start_agent(server)
    page.wait_for("#verdict", 30)


def test_a_connection_that_is_cut_in_the_middle_is_said(server, page):
    page.visit("accounts")
    with server.stand_in("useradd", "hold\nexec /usr/sbin/useradd \"$@\""):
        page.click(page.find("#create-account"))
        page.fill("username", "dave")
        page.fill("domain", "dave.example.org")
        page.click(page.find("#dialog-do:not(:disabled)"))
        server.wait_for_hold()
        # What waits behind it says behind what.
        page.wait_for_text("hosting.create dave", "#busy")
        server.run(["systemctl", "kill", "--signal=KILL", "corv-agent"])
        page.wait_for_text("connection was lost", "dialog [role=status]")
        assert page.js(f"Boolean({page.button('Set a new password', 'dialog')})") is True
        page.screenshot(RESULTS / "cut-connection.png")
        server.release()
    page.click(page.find("#dialog-close"))
    server.wait_for_unit("corv-agent")
    page.visit()
    page.wait_for("#verdict", 30)


def test_an_old_agent_is_shown_as_one(server, page):
    with agent_in_its_place(server, {"ping": {"ok": True, "version": "0.0"}}):
        page.visit("services")
        page.visit("updates")
        page.wait_for_text("older than this page")


def test_a_reply_that_does_not_fit_is_an_error(server, page):
    with agent_in_its_place(server, {"quota.status": {"ok": True}, "services.status": {"ok": True, "services": [{"name": 5}]}}):
        page.visit("updates")
        page.visit("services")
        page.wait_for_text("services.status: the reply does not fit at .services[0].name")
        page.wait_for_text("quota.status: the reply does not fit at .mount")


def test_a_log_of_four_megabytes_is_shown(server, page):
    whole = server.request("updates.status")
    with agent_in_its_place(server, {"updates.status": {**whole, "log": "x" * (4 << 20)}}):
        page.visit("services")
        page.visit("updates")
        page.wait(f"{page.find('#content .log')}?.textContent.length === {4 << 20}", 60)


def test_names_that_are_an_attack_stay_text(server, page):
    attack = "<img src=x onerror=document.title=1><b>b</b>"
    server.put(f"/home/bob/{attack.replace('/', '_')}", "x", owner="bob")
    whole = server.request("services.status")
    whole["services"].append({"name": attack, "loaded": True, "active": False, "sub": attack})
    page.visit("files", "bob")
    page.wait_for_text("<img src=x onerror")
    with agent_in_its_place(server, {"services.status": whole, "quota.status": {"ok": False, "error": attack}}):
        page.visit("services")
        page.wait_for_text(attack)
    assert page.js(f"{page.page}.images.length") == 0
    refused = page.js(f"(() => {{ try {{ {page.page}.body.appendChild({page.page}.createElement('div')).innerHTML = '<b>x</b>'; return ''; }} "
                      f"catch (error) {{ return error.name; }} }})()")
    assert refused == "TypeError"
    # The refusal that was asked for is logged, and is no complaint.
    page.events.clear()


def test_nothing_may_be_loaded_from_elsewhere(page):
    policy = page.js(f"fetch({FRAME}.contentWindow.location.href).then(r => r.headers.get('content-security-policy'))")
    parts = dict((part.split()[0], part.split()[1:]) for part in policy.split(";") if part.strip())
    assert parts["require-trusted-types-for"] == ["'script'"]
    assert parts["trusted-types"] == ["'none'"]
    assert "'unsafe-inline'" not in policy
    assert "'unsafe-eval'" not in policy


@pytest.mark.parametrize("user", ["boss", "clerk"])
def test_limited_access_explains_itself(server, user):
    browser = Cockpit(prefix=server._visiting())
    try:
        browser.login(user, PASSWORD, administrator=False)
        browser.wait_for("#limited", 60)
        browser.screenshot(RESULTS / f"limited-{user}.png")
        if user == "boss":
            turn_on(browser)
            browser.wait_for("#verdict", 60)
        assert browser.complaints() == []
    finally:
        browser.close()


def turn_on(browser):
    """Administrative access, by the shell's own button; the page is not loaded anew for it."""
    browser.js(f"{FRAME}.contentWindow.stays = true")
    button = "[...document.querySelectorAll('button')].find(e => e.innerText.trim() === '%s' && e.offsetParent)"
    browser.click(button % "Limited access")
    field = "document.querySelector('[class*=modal-box] input[type=password]')"
    browser.click(field)
    browser.type(PASSWORD)
    browser.click(button % "Authenticate")
    browser.wait_for("#content h1", 60)
    assert browser.js(f"{FRAME}.contentWindow.stays") is True
