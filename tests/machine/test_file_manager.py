"""The file manager under a disk quota that the kernel holds."""

import pytest

TRANSFER = "/var/lib/corvane/transfer"
UPLOAD = "panel-upload_0001"
OVER = {"ok": False, "error": "Disk quota exceeded"}


@pytest.fixture(scope="module")
def limited(quotas):
    """An account that may have one MiB."""
    account = quotas.account()
    assert quotas.request("quota.set", username=account.name, mb=1) == {"ok": True}
    return account


@pytest.mark.parametrize("op", ["write", "upload"])
def test_what_does_not_fit_leaves_the_old_file_whole(quotas, limited, op):
    def files(operation, path, **more):
        return quotas.request("files", username=limited.name, op=operation, path=path, **more)

    assert files("write", "public_html/page.html", content="old") == {"ok": True, "size": 3}
    before = files("list", "public_html")
    quotas.ok(["sh", "-c", f"head -c 3000000 /dev/zero >{TRANSFER}/{UPLOAD}"], user="corv-web")

    assert files(op, "public_html/page.html", content="x" * 3_000_000, transfer=UPLOAD) == OVER
    assert files(op, "public_html/new.html", content="x" * 3_000_000, transfer=UPLOAD) == (
        OVER if op == "write" else {"ok": False, "error": "the upload is missing or too big"})

    assert files("read", "public_html/page.html") == {"ok": True, "content": "old"}
    assert files("list", "public_html") == before
