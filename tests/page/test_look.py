"""How the page looks: every page in both themes, for readers of all kinds, on screens of all sizes. Its pictures are results."""

import os
import shutil

import pytest
from conftest import RESULTS
from cockpit import FRAME
from hostfloor import ROOT

PAGES = [(), ("accounts",), ("accounts", "shop"), ("backups",), ("firewall",), ("updates",), ("services",), ("files", "shop")]
# Those of docs/page.md.
PICTURES = {((), "light"): "page-overview.png", (("accounts", "shop"), "light"): "page-account.png"}


def name_of(path):
    return "-".join(path) or "overview"


def settle(page, path):
    page.visit(*path)
    page.wait(f"{page.find('#content')}.ariaBusy === 'false' && !{page.page}.querySelector('#content .asked')", 60)


@pytest.fixture(scope="module", params=PAGES, ids=name_of)
def path(browser, request):
    """One page after the other, all tests of each in a row: it is shown once for them all."""
    browser.events.clear()
    settle(browser, request.param)
    assert browser.complaints() == []
    return request.param


def test_is_accessible_in_both_themes(page, axe, path):
    try:
        for theme in ("light", "dark"):
            page.theme(theme)
            picture = RESULTS / f"{name_of(path)}-{theme}.png"
            page.screenshot(picture)
            if (path, theme) in PICTURES and os.environ.get("CORV_PAGE_PICTURES"):
                shutil.copy(picture, ROOT / "docs" / PICTURES[path, theme])
            assert page.inaccessible(axe) == [], theme
    finally:
        page.theme("light")


def test_fits_screens_of_320_to_2560_pixels(page, path):
    try:
        for size in ((320, 800), (2560, 1300)):
            page.resize(*size)
            width = page.js(f"[{page.page}.documentElement.scrollWidth, {page.page}.documentElement.clientWidth, "
                            f"{page.find('#scrolled')}.scrollWidth - {page.find('#scrolled')}.clientWidth]")
            if size[0] == 320:
                page.screenshot(RESULTS / f"{name_of(path)}-narrow.png")
            assert width[0] <= width[1], size
            assert width[2] <= 0, size
    finally:
        page.resize(1280, 900)


def test_can_be_read_from_right_to_left(page, path):
    page.js(f"{page.page}.documentElement.dir = 'rtl'")
    try:
        page.screenshot(RESULTS / f"{name_of(path)}-rtl.png")
        # Titles begin at the right, what follows something lies left of it, and nothing sticks out.
        left, right, width = page.js(f"""(() => {{ const range = document.createRange(); range.selectNodeContents({page.find('#content h1')});
            const box = range.getBoundingClientRect(), main = {page.find('#content')}.getBoundingClientRect();
            return [box.x - main.x, main.right - box.right, {page.find('#scrolled')}.scrollWidth - {page.find('#scrolled')}.clientWidth]; }})()""")
        assert right < 2 < left
        assert width <= 0
        pairs = page.js(f"""[...{page.page}.querySelectorAll('#content thead tr, #content dl > div, .tabs, .toolbar, .row-actions')].map(row =>
            [...row.children].filter(e => e.offsetParent).slice(0, 2).map(e => e.getBoundingClientRect()))
            .filter(boxes => boxes.length === 2 && boxes[0].y === boxes[1].y).map(boxes => [boxes[0].x, boxes[1].x])""")
        assert pairs
        assert [pair for pair in pairs if pair[0] <= pair[1]] == []
    finally:
        page.js(f"{page.page}.documentElement.dir = 'ltr'")


def test_a_dialog_is_accessible_and_closed_by_the_keyboard(page, axe):
    settle(page, ("accounts",))
    page.js(f"{page.find('#create-account')}.focus()")
    page.press("Enter", 13, "\r")
    page.wait_for("#create")
    assert page.js(f"{page.page}.activeElement.id") == "field-username"
    try:
        for theme in ("dark", "light"):
            page.theme(theme)
            assert page.inaccessible(axe) == [], theme
            page.screenshot(RESULTS / f"dialog-{theme}.png")
    finally:
        page.theme("light")
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


def test_speaks_german(page):
    # The language is a cookie of Cockpit's, which a frame that is loaded anew follows.
    language = "document.cookie = 'CockpitLang=%s; path=/; secure'"
    page.js(language % "de-de")
    try:
        page.js(f"{FRAME}.contentWindow.location.hash = '#/'; {FRAME}.contentWindow.location.reload()")
        page.wait_for_text("Dienste und Quotas", "body", 60)
        page.wait(f"{page.find('#verdict')} && !{page.page}.querySelector('#content .asked')", 60)
        page.screenshot(RESULTS / "overview-german.png")
        assert "Firewall ist aus" in page.text("#verdict")
        assert page.js(f"{FRAME}.contentWindow.cockpit.language") == "de"
    finally:
        page.js(language % "en-us")
        page.js(f"{FRAME}.contentWindow.location.reload()")
        page.wait_for_text("Services and quotas", "body", 60)
