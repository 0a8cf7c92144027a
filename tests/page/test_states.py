"""What the page shows when something is missing or hostile, and that it mends itself."""

from agents import agent_in_its_place, start_agent
from browser import Browser
from conftest import PASSWORD, RESULTS, client_that_says
from cockpit import FRAME, Cockpit

def test_a_stopped_agent_is_said_and_the_page_comes_back_by_itself(server, page, axe):
    server.ok(["systemctl", "stop", "corv-agent"])
    try:
        page.visit("services")
        page.visit()
        page.wait_for("#no-agent")
        page.screenshot(RESULTS / "no-agent.png")
        assert page.inaccessible(axe) == []
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
    # Nor sent there: what a script here knows stays on this server.
    origin = page.js("location.host")
    assert [one for one in parts["connect-src"] if one not in ("'self'", f"https://{origin}", f"wss://{origin}")] == []


def test_an_account_with_an_attack_for_a_name_stays_text(server, page):
    attack = "<img src=x onerror=document.title=1>\u202e\u001b[2J"
    account = {"username": attack, "domain": attack, "state": attack, "usedBytes": 1}
    with client_that_says(server, {"ok": True, "accounts": [{**account, "sources": []}]}):
        page.visit("services")
        page.visit("accounts")
        page.wait_for_text("<img src=x onerror", "#accounts")
        page.wait_for_text("<img src=x onerror", "#gone")
        assert page.js(f"{page.page}.images.length") == 0
        # What turns the text round, or steers a terminal, is written out.
        assert "\\u{202e}\\u{1b}[2J" in page.text("#accounts")
        # The way to its page and back, which the address holds.
        page.click(page.find("#accounts a"))
        page.wait_for_text("<img src=x onerror", "h1")
    assert page.js(f"{page.page}.images.length") == 0
    page.visit()


def test_an_address_that_somebody_sent_gives_the_client_no_option(server, page):
    page.visit("services")
    page.js(f"{FRAME}.contentWindow.location.hash = '#/accounts/--help'")
    page.wait_for_text("no Corvane account named '--help'")
    page.visit("services")


def test_limited_access_explains_itself_and_becomes_the_full_page(page, axe):
    page.visit("services")
    page.js(f"{FRAME}.contentWindow.stays = true")
    page.click(SHELL_BUTTON % "Administrative access")
    page.click(SHELL_BUTTON % "Limit access")
    page.wait_for("#limited")
    page.screenshot(RESULTS / "limited-boss.png")
    assert page.inaccessible(axe) == []
    turn_on(page)
    page.wait_for("#services", 60)
    assert page.js(f"{FRAME}.contentWindow.stays") is True


def test_who_may_not_use_sudo_is_told_what_it_takes(server):
    browser = Cockpit(prefix=server._visiting())
    try:
        browser.login("clerk", PASSWORD, administrator=False)
        browser.wait_for("#limited", 60)
        browser.screenshot(RESULTS / "limited-clerk.png")
        assert browser.complaints() == []
    finally:
        browser.close()


SHELL_BUTTON = "[...document.querySelectorAll('button')].find(e => e.innerText.trim() === '%s' && e.offsetParent)"


def turn_on(browser):
    """Administrative access, by the shell's own button."""
    Browser.click(browser, SHELL_BUTTON % "Limited access")
    field = "document.querySelector('[class*=modal-box] input[type=password]')"
    Browser.click(browser, field)
    browser.type(PASSWORD)
    Browser.click(browser, SHELL_BUTTON % "Authenticate")
