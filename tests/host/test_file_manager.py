"""A site is filled, edited and fetched back through the file manager, on a real host and over the panel's own folder."""

import pytest

TRANSFER = "/var/lib/corvane/transfer"
UPLOAD = "panel-upload_0001"


def files(host, account, op, path, **more):
    return host.request("files", username=account.name, op=op, path=path, **more)


def hand_in(host, shell):
    """Puts what a shell command prints into the transfer directory, as the panel does: with its own rights."""
    host.ok(["sh", "-c", f"umask 077; {shell} >{TRANSFER}/{UPLOAD}"], user="corv-web")


@pytest.fixture
def neighbour(host):
    return host.account()


def test_a_site_is_uploaded_fetched_edited_and_downloaded(host, account):
    page = "<!doctype html><title>Grüße</title>\n"
    hand_in(host, f"printf '{page}'")
    assert files(host, account, "upload", "public_html/index.html", transfer=UPLOAD) == {"ok": True, "size": len(page.encode())}
    assert host.fetch(account.domain).body == page
    assert not host.exists(f"{TRANSFER}/{UPLOAD}")

    assert files(host, account, "read", "public_html/index.html") == {"ok": True, "content": page}
    edited = page.replace("Grüße", "Hello")
    assert files(host, account, "write", "public_html/index.html", content=edited) == {"ok": True, "size": len(edited)}
    assert host.fetch(account.domain).body == edited
    assert host.mode(f"{account.home}/public_html/index.html") == f"644 {account.name} www-data"

    reply = files(host, account, "download", "public_html/index.html")
    assert reply == {"ok": True, "transfer": reply["transfer"], "size": len(edited)}
    path = f"{TRANSFER}/{reply['transfer']}"
    assert host.mode(path) == "600 corv-web corv-web"
    assert host.ok(["cat", path], user="corv-web") == edited
    host.ok(["rm", path], user="corv-web")


def test_a_big_file_is_the_same_there_and_back(host, account):
    hand_in(host, "head -c 30000000 /dev/urandom")
    sum_before = host.ok(["sha256sum", f"{TRANSFER}/{UPLOAD}"]).split()[0]
    assert files(host, account, "upload", "public_html/big.bin", transfer=UPLOAD) == {"ok": True, "size": 30_000_000}
    reply = files(host, account, "download", "public_html/big.bin")
    assert reply["size"] == 30_000_000
    path = f"{TRANSFER}/{reply['transfer']}"
    assert host.ok(["sha256sum", path], user="corv-web").split()[0] == sum_before
    host.ok(["rm", path], user="corv-web")
    assert host.fetch(account.domain, "/big.bin", "--head").headers["content-length"] == "30000000"


def test_a_page_that_only_the_web_server_may_read_stays_so(host, account):
    files(host, account, "write", "public_html/a.html", content="old")
    host.ok(["chmod", "0640", f"{account.home}/public_html/a.html"], user=account.name)
    assert files(host, account, "write", "public_html/a.html", content="new") == {"ok": True, "size": 3}
    assert host.mode(f"{account.home}/public_html/a.html") == f"640 {account.name} www-data"
    assert host.fetch(account.domain, "/a.html").body == "new"


def test_folders_come_and_go_on_the_site(host, account):
    assert files(host, account, "mkdir", "public_html/shop") == {"ok": True}
    assert files(host, account, "write", "public_html/shop/index.html", content="open") == {"ok": True, "size": 4}
    assert host.fetch(account.domain, "/shop/").body == "open"
    assert files(host, account, "rename", "public_html/shop", to="public_html/store") == {"ok": True}
    assert host.fetch(account.domain, "/store/").body == "open"
    assert host.fetch(account.domain, "/shop/").status == 404
    assert files(host, account, "delete", "public_html/store") == {"ok": True}
    assert host.fetch(account.domain, "/store/").status == 404
    names = [entry["name"] for entry in files(host, account, "list", "public_html")["entries"]]
    assert names == ["index.html"]


def test_what_php_wrote_can_be_managed(host, account):
    files(host, account, "write", "public_html/w.php", content="<?php file_put_contents('../logs/made', 'by php'); echo 'done';")
    assert host.fetch(account.domain, "/w.php").body == "done"
    assert files(host, account, "read", "logs/made") == {"ok": True, "content": "by php"}
    assert files(host, account, "delete", "logs/made") == {"ok": True}


def test_a_neighbour_is_out_of_reach(host, account, neighbour):
    host.put(f"{neighbour.home}/public_html/config.php", "treasure", mode="0640", owner=f"{neighbour.name}:www-data")
    host.ok(["ln", "-s", neighbour.home, f"{account.home}/link"], user=account.name)
    outside = {"ok": False, "error": "that path is outside the account's home"}
    assert files(host, account, "read", f"../{neighbour.name}/public_html/config.php") == outside
    assert files(host, account, "read", "link/public_html/config.php") == {"ok": False, "error": "not a file"}
    assert files(host, account, "list", "link/public_html") == {"ok": False, "error": "not a folder"}
    assert files(host, account, "write", "link/public_html/config.php", content="x") == {"ok": False, "error": "Permission denied"}
    assert files(host, account, "download", "link/public_html/config.php") == {"ok": False, "error": "not a file"}
    assert files(host, account, "delete", "link/public_html") == {"ok": False, "error": "could not delete (all of) it"}
    assert host.get(f"{neighbour.home}/public_html/config.php") == "treasure"
