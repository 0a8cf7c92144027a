"""The tests that the package itself carries, run by Debian's own runner as for any package of Debian: debian/tests."""

import shutil

import pytest
from hostfloor import ADDRESS, ROOT

pytestmark = pytest.mark.core
LIMIT = 300


@pytest.fixture(scope="module")
def testbed(boot):
    """A host without the package, into which the runner logs in as root. It is thrown away as a machine would be."""
    host = boot(bare=True)
    host.put("/root/.ssh/authorized_keys", host.key.public, mode="0600")
    yield host
    host.stop()


def test_every_test_of_the_package_passes(testbed, package, tmp_path):
    # Of a whole tree the runner would want to unpack and build the source.
    shutil.copytree(ROOT / "debian" / "tests", tmp_path / "source" / "debian" / "tests")
    login = ["--hostname", ADDRESS, "--login", "root", "--identity", str(testbed.key.private)]
    capabilities = ["--capability", "isolation-machine", "--capability", "isolation-container"]
    done = testbed.outside(["autopkgtest", "--output-dir", str(tmp_path / "log"), str(package),
                            str(tmp_path / "source"), "--", "ssh", *login, *capabilities], timeout=LIMIT)

    assert done.code == 0, done.out + done.err
    summary = (tmp_path / "log" / "summary").read_text().splitlines()
    assert [line.split() for line in summary] == [["smoke", "PASS"], ["account-life", "PASS"]]
