"""How the page looks: every page in both themes, for readers of all kinds, on screens of all sizes. Its pictures are results."""

import json

import pytest
from conftest import PASSWORD, RESULTS
from cockpit import Cockpit

PAGES = [(), ("accounts",), ("accounts", "shop"), ("backups",), ("firewall",), ("updates",), ("services",), ("files", "shop")]


def name_of(path):
    return "-".join(path) or "overview"


def settle(page, path):
    page.visit(*path)
    page.wait(f"{page.find('#content')} && !{page.page}.querySelector('#content .asked')", 60)


@pytest.mark.parametrize("path", PAGES, ids=name_of)
def test_is_accessible_in_both_themes(page, axe, path):
    settle(page, path)
    page.apart(axe + ";1")
    try:
        for theme in ("light", "dark"):
            page.theme(theme)
            page.screenshot(RESULTS / f"{name_of(path)}-{theme}.png")
            found = page.apart("axe.run(document).then(r => JSON.stringify([r.passes.length, "
                               "r.violations.map(v => [v.id, v.nodes.map(n => n.html.slice(0, 120) + n.failureSummary.slice(0, 300))])]))")
            passed, violations = json.loads(found)
            assert violations == [], theme
            assert passed > 10
    finally:
        page.theme("light")


@pytest.mark.parametrize("path", PAGES, ids=name_of)
def test_fits_a_screen_of_320_pixels(page, path):
    settle(page, path)
    page.resize(320, 800)
    try:
        width = page.js(f"[{page.page}.documentElement.scrollWidth, {page.page}.documentElement.clientWidth, "
                        f"...[...{page.page}.querySelectorAll('.pf-v6-c-page__main-container')].map(e => e.scrollWidth - e.clientWidth)]")
        page.screenshot(RESULTS / f"{name_of(path)}-narrow.png")
        assert width[0] <= width[1]
        assert width[2] <= 0
    finally:
        page.resize(1280, 900)


def test_can_be_read_from_right_to_left(page):
    settle(page, ("accounts",))
    page.js(f"{page.page}.documentElement.dir = 'rtl'")
    try:
        first, second = page.js(f"[...{page.find('#accounts thead tr')}.children].slice(0, 2).map(e => e.getBoundingClientRect().x)")
        page.screenshot(RESULTS / "accounts-rtl.png")
        assert first > second
    finally:
        page.js(f"{page.page}.documentElement.dir = 'ltr'")


def test_a_dialog_is_accessible_and_closed_by_the_keyboard(page, axe):
    settle(page, ("accounts",))
    page.js(f"{page.find('#create-account')}.focus()")
    page.press("Enter", 13, "\r")
    page.wait_for("#create")
    assert page.js(f"{page.page}.activeElement.id") == "field-username"
    page.apart(axe + ";1")
    found = json.loads(page.apart("axe.run(document).then(r => JSON.stringify(r.violations.map(v => [v.id, v.nodes.map(n => n.html)])))"))
    assert found == []
    page.screenshot(RESULTS / "dialog.png")
    page.press("Escape", 27)
    page.wait(f"!{page.find('dialog')}")
    assert page.js(f"{page.page}.activeElement.id") == "create-account"


def test_the_tab_key_reaches_what_can_be_done(page):
    settle(page, ("accounts",))
    page.js(f"{page.find('#search')}.focus()")
    reached = []
    for _ in range(6):
        page.press("Tab", 9)
        reached.append(page.js(f"{page.page}.activeElement.id || {page.page}.activeElement.textContent"))
    assert reached == ["state", "by", "create-account", "alice", "Suspend", "Delete"]


def test_speaks_german(server):
    browser = Cockpit(prefix=server._visiting(), language="de-DE")
    try:
        browser.send("Page.navigate", url="https://10.213.0.2:9090/corvane")
        browser.wait("document.querySelector('#login-user-input')?.offsetParent")
        browser.js("document.cookie = 'CockpitLang=de-de; path=/; secure'; localStorage.setItem('cockpit.lang', 'de-de')")
        browser.login("boss", PASSWORD)
        browser.wait_for_text("Dienste und Quotas", "body", 60)
        browser.wait(f"!{browser.page}.querySelector('#content .asked')", 60)
        browser.screenshot(RESULTS / "overview-german.png")
        assert "Firewall ist aus" in browser.text("#verdict")
        assert browser.js(f"{browser.page}.documentElement.lang") == "de-de"
        assert browser.complaints() == []
    finally:
        browser.close()
