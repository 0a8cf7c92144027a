"""The Ansible collection and servers as a whole, over ssh: one that is installed from a repository, HTTPS on it, and two at a time."""

import re

import pytest
from booted import SUITE
from certified import secure
from hostfloor import ADDRESS, OUTSIDE
from moves import make_certificates
from playbooks import Controller
from test_repository import field, make_key, publish

# What a role installs, and each task on busy servers, takes its time.
LIMIT = 400
AUTHORITIES = "/etc/ssl/certs/ca-certificates.crt"
SOURCES = "/etc/apt/sources.list.d/corv-agent.sources"


# HTTPS


@pytest.fixture(scope="module")
def server(boot):
    """A server with all packages, and who runs playbooks on it."""
    host = boot(https=True)
    controller = Controller(host)
    yield host, controller
    controller.close()


@pytest.fixture(scope="module")
def with_https(server):
    """The same with HTTPS, which the module has switched on, off and on again."""
    host, controller = server
    on, off, again = controller.states(("https", {}), ("https", {"state": "absent"}), ("https", {"state": "present"}))
    states = [(one["changed"], one["diff"]["before"]["state"], one["diff"]["after"]["state"]) for one in (on, off, again)]
    assert states == [(True, "absent", "present"), (True, "present", "absent"), (True, "absent", "present")]
    return host, controller


def test_without_a_name_https_takes_no_words_that_are_an_accounts(with_https):
    _host, controller = with_https
    results = controller.tasks(("https", {"redirect": True}), ("https", {"www": False}),
                               ("https", {"certificate": "/root/a.pem", "certificate_key": "/root/a.key"}))
    assert [one["msg"] for one in results] == ["redirect, hsts, www and certificate are an account's; name says which"] * 3


@pytest.mark.long
def test_a_certificate_that_is_brought_is_served(with_https, tmp_path):
    host, controller = with_https
    account = host.account()
    for name in ("first", "second"):
        (tmp_path / name).mkdir()
        make_certificates(tmp_path / name, account.domain)
        host.put(AUTHORITIES, host.get(AUTHORITIES) + (tmp_path / name / "authority.pem").read_text())
        for file, mode in (("site.pem", "0644"), ("site.key", "0600")):
            host.put(f"/root/{name}.{file}", (tmp_path / name / file).read_text(), mode=mode)

    def pair(name):
        return {"name": account.name, "certificate": f"/root/{name}.site.pem", "certificate_key": f"/root/{name}.site.key"}

    def is_served(name):
        return secure(host, account.domain, "/", "--cacert", str(tmp_path / name / "authority.pem"), "--no-insecure") is not None

    brought, = controller.states(("https", pair("first")))
    assert brought["diff"]["before"]["certificate"] is None
    assert re.fullmatch(f"{account.name}-[0-9a-f]{{64}}", brought["diff"]["after"]["certificate"])
    host.wait_for(lambda: is_served("first"), "the certificate that was brought")
    assert not is_served("second")
    # Another one takes its place; a key that is not its own does not.
    replaced, = controller.states(("https", {**pair("second"), "redirect": True}))
    assert replaced["diff"]["before"] == brought["diff"]["after"]
    host.wait_for(lambda: is_served("second"), "the certificate that was brought then")
    wrong, gone = controller.tasks(("https", {**pair("first"), "certificate_key": "/root/second.site.key"}),
                                   ("https", {**pair("first"), "certificate": "/root/nosuch.pem"}))
    assert wrong["msg"] == "the certificate is not used: /root/second.site.key is not the key of this certificate"
    assert gone["msg"] == "cannot read /root/nosuch.pem: No such file or directory"
    assert is_served("second")
    private = (tmp_path / "second/site.key").read_text().splitlines()[1]
    assert private not in controller.said


# Two servers at a time


@pytest.fixture(scope="module")
def two(boot, server):
    """Two servers in one inventory, by their addresses, and who runs playbooks on both."""
    other = boot()
    controller = Controller(other, server[0])
    with other.reaching(server[0], 22):
        yield {ADDRESS: other, OUTSIDE: server[0]}, controller
    controller.close()


SHOP = [{"corvane.server.account": {"name": "twoshop", "domain": "shop.{{ 'a' if inventory_hostname == '%s' else 'b' }}.example" % ADDRESS}},
        {"corvane.server.account_keys": {"name": "twoshop", "keys": ["ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIJx0m0nV1bqvfXzYv4hS2Yw3sLkqF5oYzZ8dQ2mWm1aB"]}},
        {"corvane.server.protection": {"firewall": True}},
        {"corvane.server.firewall_rule": {"port": 5001}}]


@pytest.mark.each
def test_one_list_of_tasks_changes_two_servers_and_then_nothing(two):
    hosts, controller = two
    book = controller.book({"tasks": SHOP})
    before = [host.run(["id", "twoshop"]).code for host in hosts.values()]
    first, second = controller.counts(book), controller.counts(book)
    assert before == [1, 1] and sorted(first) == sorted(second) == sorted(hosts)
    assert [(one["failed"], one["unreachable"], one["changed"]) for one in first.values()] == [(0, 0, 4)] * 2, controller.said
    assert [(one["ok"], one["failed"], one["changed"]) for one in second.values()] == [(4, 0, 0)] * 2, controller.said
    for name, host in hosts.items():
        domain = f"shop.{'a' if name == ADDRESS else 'b'}.example"
        assert host.fetch(domain).status == 200
        assert '"to":"5001/tcp"' in host.ok(["corvctl", "--json", "firewall", "status"])


def test_what_one_server_refuses_ends_it_there_alone(two):
    hosts, controller = two
    hosts[OUTSIDE].ok(["useradd", "-M", "twoblog"])
    done = controller.counts(controller.book({"tasks": [
        {"corvane.server.account": {"name": "twoblog", "domain": "blog.example"}}, {"corvane.server.account": {"name": "twoblog", "state": "suspended"}}]}))
    assert {name: (one["ok"], one["changed"], one["failed"]) for name, one in done.items()} == {ADDRESS: (2, 2, 0), OUTSIDE: (0, 0, 1)}
    assert hosts[ADDRESS].fetch("blog.example").status == 503


# From a repository


@pytest.fixture
def repository(package, tmp_path):
    """The folder of a repository that is signed, with the packages under test."""
    folder = tmp_path / "packages"
    pool = folder / "pool" / SUITE
    pool.mkdir(parents=True)
    for file in package.parent.glob("*.deb"):
        (pool / file.name).write_bytes(file.read_bytes())
    code, errors = publish(folder, make_key(folder.parent), "--no-build")
    assert code == 0, errors
    return folder


@pytest.mark.long
def test_the_role_installs_what_a_repository_has(boot, package, repository):
    host = boot(bare=True)
    controller = Controller(host)
    with host.serving(repository) as address:
        role = controller.book({"roles": ["corvane.server.agent"], "vars": {
            "corvane_repository": address, "corvane_repository_key": str(repository / "corv-agent.asc"), "corvane_protection": {}}})
        first, second = controller.counts(role)[ADDRESS], controller.counts(role)[ADDRESS]
    controller.close()
    assert (first["failed"], second["failed"], second["changed"]) == (0, 0, 0) and first["changed"] > 0, controller.said
    for name in ("corv-agent", "libapache2-mod-corvane"):
        said = host.ok(["apt-cache", "policy", name])
        assert f"  Installed: {field(package, 'Version')}\n" in said and f" {address} {SUITE}/main" in said
    assert f"URIs: {address}\n" in host.get(SOURCES) and "Signed-By: " in host.get(SOURCES)
    host.wait_for_unit("corv-agent")
    assert host.fetch(host.account().domain).status == 200
