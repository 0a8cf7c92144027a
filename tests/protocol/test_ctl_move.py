"""corvctl account move: the plan, over an ssh that is a stand-in and answers as the other server would."""

import json

import pytest
from corvctl import corvctl, on_terminal
from test_ctl_forward import SUSPENDED

SCRAM = "SCRAM-SHA-256$4096:lD89vA2GQkNgqwtP7vv7rA==$8wn3xyobUdhAKBPqlbPO5zWSGlHXWxzjqhM=:8wn3xyobUdhAKBPqlbPO5zWSGlHXWxzjqhM="
STATE = {"username": "shop", "domain": "shop.example", "taken": 1, "uid": 54321, "shell": "/bin/bash", "suspended": False,
         "linger": False, "role": SCRAM, "shadow": "!", "database": {"encoding": "UTF8", "collate": "C.UTF-8", "ctype": "C.UTF-8"},
         "php": "8.2"}
SHOWN = {"ok": True, "username": "shop", "sitesBeside": [], "database": {"name": "shop", "bytes": 8192, "readOnly": False}}
MEASURED = "postgres 150013\nbytes 4096\t/home/shop\nentries 7\t/home/shop\nrsync /usr/bin/rsync\n"
HOST = "root@web1.example"
HTTPS, CHOICES = "/etc/apache2/sites-enabled/zz-corv-https.conf", "/etc/corvane/https.d/shop"
CERTIFICATE = "/etc/corvane/https/md/domains/shop.example/pubcert.p-256.pem"
LEFT = "/var/lib/corvane/moves/shop.left"
WALK = "$(runuser -u shop -- du -s {} --exclude=/home/shop/tmp /home/shop 2>/dev/null)"


class Old:
    """The other server: what its ssh answers."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        sandbox.answer("ssh", exit=255, err="ssh: not expected\n", ignore_input=True)
        self.shows()
        self.writes_down()
        self.measures()
        self.secures()

    def shows(self, exit=0, err="", **more):
        self.sandbox.answer("ssh", "-T", "--", HOST, "corvctl", "account", "show", ..., ignore_input=True, exit=exit, err=err,
                            out="" if exit else json.dumps({**SHOWN, **more}) + "\n")

    def writes_down(self, *lines, **more):
        text = "".join(json.dumps(line) + "\n" for line in (lines or [{**STATE, **more}]))
        self.sandbox.secret(SCRAM)
        self.sandbox.answer("ssh", "-T", "--", HOST, "corvctl", "account", "state", ..., ignore_input=True, out=text)

    def measures(self, text=MEASURED):
        self.sandbox.answer("ssh", "-T", "--", HOST, "echo", ..., ignore_input=True, out=text)

    def secures(self, text="", certificate=""):
        answers_https(self.sandbox, text, certificate)


def answers_https(sandbox, text="", certificate=""):
    """What the other server has of HTTPS: nothing, or "on" with the choices, and the certificate."""
    sandbox.answer("ssh", "-T", "--", HOST, "if", "test", "-e", HTTPS, ..., ignore_input=True, out=text)
    sandbox.answer("ssh", "-T", "--", HOST, "if", "test", "-e", CERTIFICATE, ..., ignore_input=True, out=certificate)


@pytest.fixture
def old(sandbox):
    sandbox.allows_loose_calls("ssh")
    sandbox.php("8.2")
    sandbox.answer("psql", ..., holds=b"", out="")
    sandbox.answer("psql", "-qtAX", "-v", "ON_ERROR_STOP=1", "-c", "SHOW server_version_num", ...,
                   out="150013\nUTF8 C.UTF-8 C.UTF-8\n/home\n")
    sandbox.add_standin("rsync")
    return Old(sandbox)


def plan(old, *words):
    """The exit code, each line that is not well, and standard error."""
    code, out, err = corvctl(old.sandbox, "--plain", "account", "move", "shop", HOST, "--dry-run", *words)
    return code, [line for line in out.splitlines() if line.split("\t")[1] != "well"], err


def test_a_plan_without_anything_in_the_way(old):
    assert plan(old) == (0, [], "")
    assert old.sandbox.argvs("ssh") == [["ssh", "-T", "--", HOST, *words] for words in (
        ["corvctl", "account", "show", "shop", "--json"],
        ["corvctl", "account", "state", "--write", ">/dev/null", "&&", "{", "grep", "-F", "'\"username\":\"shop\"'",
         "/var/lib/corvane/accounts.state", "||", "test", "$?", "=", "1;", "}"],
        ["echo", "postgres", "$(PGOPTIONS=-csearch_path=pg_catalog runuser -u postgres -- psql -qtAX -c 'SHOW server_version_num');",
         "echo", "bytes", WALK.format("-B1") + ";", "echo", "entries", WALK.format("--inodes") + ";",
         "echo", "left", f"$([ ! -e {LEFT} ] || [ {LEFT} -ef /var/lib/corvane/moves/shop.by- ] || echo yes);",
         "echo", "rsync", "$(command -v rsync)"],
        ["if", "test", "-e", HTTPS, ";", "then", "echo", "on;", "fi;",
         "if", "test", "-e", CHOICES, ";", "then", "cat", CHOICES, ";", "fi"])]
    old.sandbox.logs()


def test_a_person_reads_all_of_it_at_80_columns(old):
    old.sandbox.add_user("shop", "Shop of the office", uid=54321)
    old.measures(MEASURED.replace("150013", "170001"))
    old.sandbox.start()
    code, out = on_terminal(old.sandbox, "account", "move", "shop", HOST, "--dry-run")
    assert code == 1
    lines = out.splitlines()
    assert max(len(line) for line in lines) <= 80
    # How much room there is, is the machine's matter.
    room = next(at for at, line in enumerate(lines) if line.startswith("well        Room        files and two copies of the database:"))
    limit = lines.index("well        Limit       none")
    assert lines[:room] + lines[limit:] == [
        "in the way  Account     there is a user shop here",
        "well        Domain      shop.example",
        "well        State       on-line",
        "note        User id     54321 there, which is that of shop here: it gets another",
        "                        one",
        "well        Login       /bin/bash",
        "in the way  PostgreSQL  17 there, 15 here: a dump does not load into an older",
        "                        one",
        "well        PHP         8.2 there, 8.2 here",
        "well        Limit       none",
        "well        HTTPS       none there",
        "well        rsync       on both",
        "corvctl: shop cannot be moved here yet: Account, PostgreSQL"]


def test_nothing_is_made_here(old):
    before = old.sandbox.read("/etc/passwd"), old.sandbox.tree("/home"), old.sandbox.tree("/var/lib")
    assert plan(old)[0] == 0
    assert (old.sandbox.read("/etc/passwd"), old.sandbox.tree("/home"), old.sandbox.tree("/var/lib")) == before


def test_what_it_tells_programs(old):
    old.measures(MEASURED.replace("150013", "170001"))
    code, out, err = corvctl(old.sandbox, "--json", "account", "move", "shop", HOST, "--dry-run")
    told = json.loads(out)
    checks = told.pop("checks")
    assert told == {"ok": False, "account": "shop", "host": HOST, "domain": "shop.example", "homeBytes": 4096, "homeEntries": 7,
                    "databaseBytes": 8192}
    assert [check["about"] for check in checks] == [
        "Account", "Domain", "State", "User id", "Login", "PostgreSQL", "PHP", "Room", "Limit", "HTTPS",
        "rsync"]
    assert [check for check in checks if check["level"] != "well"] == [
        {"about": "PostgreSQL", "level": "in the way", "text": "17 there, 15 here: a dump does not load into an older one"}]
    assert (code, err) == (1, "corvctl: shop cannot be moved here yet: PostgreSQL\n")


def test_a_name_and_a_number_that_are_taken_here(old):
    old.sandbox.add_user("shop", "Shop of the office", uid=54321)
    assert plan(old) == (1, ["Account\tin the way\tthere is a user shop here",
                             "User id\tnote\t54321 there, which is that of shop here: it gets another one"],
                         "corvctl: shop cannot be moved here yet: Account\n")


@pytest.mark.parametrize("name", ["shop.example", "www.shop.example", "*.example"])
def test_a_domain_that_something_here_answers_to(old, name):
    old.sandbox.write("/etc/apache2/sites-enabled/x.conf", f"<VirtualHost *:80>\nServerName {name}\n</VirtualHost>\n")
    assert plan(old)[1] == ["Domain\tin the way\tthe site x here answers to shop.example already"]


def test_a_domain_of_another_account_here(old):
    old.sandbox.add_account("blog", "shop.example")
    assert plan(old)[1] == ["Domain\tin the way\tthe account blog here answers to shop.example already"]


def test_https_that_is_on_there_and_off_here(old):
    old.secures("on\nredirect\n")
    assert plan(old) == (0, ["HTTPS\tnote\ton there and off here: who comes by HTTPS finds nothing before corvctl https on"], "")


def test_the_plan_asks_for_the_certificate_and_never_for_its_key(old):
    old.sandbox.write("/etc/apache2/sites-enabled/zz-corv-https.conf", "")
    old.secures("on\n", "-----BEGIN CERTIFICATE-----\nnone\n-----END CERTIFICATE-----\n")
    assert plan(old) == (0, ["HTTPS\tnote\tno certificate there that is good: one is ordered when its names lead here"], "")
    assert old.sandbox.argvs("ssh")[-1] == ["ssh", "-T", "--", HOST, "if", "test", "-e", CERTIFICATE, ";", "then", "cat",
                                            CERTIFICATE, ";", "fi"]
    # Choices that are none lead to no path.
    old.secures("on\nown ../../../root/x\n")
    assert plan(old)[1] == ["HTTPS\tnote\twhat was chosen for it cannot be read there, and does not come along"]


def test_no_rsync_here(old):
    old.sandbox.remove_standin("rsync")
    old.sandbox.path("/usr/bin/rsync").unlink(missing_ok=True)
    assert plan(old)[1] == ["rsync\tin the way\tis not installed here: apt-get install rsync"]


def test_more_than_the_disk_takes(old):
    old.measures(MEASURED.replace("bytes 4096", f"bytes {1 << 60}"))
    code, found, _ = plan(old)
    assert code == 1 and len(found) == 1
    assert found[0].startswith("Room\tin the way\tfiles and two copies of the database: ")


def test_a_home_that_cannot_be_measured(old):
    old.measures("postgres 150013\nbytes\nentries\nrsync /usr/bin/rsync\n")
    assert plan(old)[1] == ["Room\tin the way\tits home could not be measured there"]


def test_what_a_tenant_has_put_into_his_state_is_not_taken_for_it(old):
    old.writes_down({**STATE, "username": "evil", "crontab": ""}, {**STATE, "uid": "x"})
    assert plan(old) == (1, [], f"corvctl: {HOST}: the state of shop could not be written down there\n")
    old.writes_down(domain="shop.example\x1b[2J")
    code, out, _ = corvctl(old.sandbox, "--plain", "account", "move", "shop", HOST, "--dry-run")
    assert code == 1 and "\x1b" not in out


@pytest.mark.parametrize("answer, code, end", [
    ({"exit": 1, "err": "corvctl: no Corvane account named 'shop'\n"}, 1, "corvctl: no Corvane account named 'shop'"),
    ({"exit": 255, "err": "ssh: connect to host web1.example port 22: No route to host\n"}, 3,
     "ssh: connect to host web1.example port 22: No route to host"),
    ({"exit": 127}, 3, "corvctl is not installed there"),
])
def test_another_server_that_does_not_tell(old, answer, code, end):
    old.shows(**answer)
    assert plan(old) == (code, [], f"corvctl: {HOST}: {end}\n")
    assert len(old.sandbox.calls("ssh")) == 1


def test_an_account_that_has_left_for_another_server(old):
    old.measures(MEASURED + "left yes\n")
    assert plan(old) == (0, [], ""), "on-line it is that server's again, or another one"
    old.writes_down(suspended=True)
    assert plan(old) == (1, ["State\tin the way\tit has left that server for another one, which has it; corvctl account resume shop --left "
                             "there if it is to be that server's again"], "corvctl: shop cannot be moved here yet: State\n")
    old.measures(MEASURED + "left\n")
    assert plan(old) == (0, [], "")


def test_the_server_that_it_left_for_is_known_by_the_moves_word(old):
    record = {"account": "shop", "host": HOST, "domain": "shop.example", "uid": 1, "begun": 1, "rehearsed": 0, "done": ["created"]}
    for word, known in (("a" * 32, "a" * 32), ("a" * 31 + "\n", ""), ("$(reboot)", "")):
        old.sandbox.write("/var/lib/corvane/moves/shop.json", json.dumps({**record, "word": word}))
        assert plan(old)[0] == 0
        asked = [argv for argv in old.sandbox.argvs("ssh") if argv[4:6] == ["echo", "postgres"]][-1]
        assert f"$([ ! -e {LEFT} ] || [ {LEFT} -ef /var/lib/corvane/moves/shop.by-{known} ] || echo yes);" in asked


def test_a_domain_that_was_changed_there_since_it_was_rehearsed(old):
    uid = old.sandbox.add_account("shop", "shop.example")
    record = {"account": "shop", "host": HOST, "domain": "shop.example", "uid": uid, "begun": 1, "rehearsed": 0, "done": ["created", "rehearsed"]}
    old.sandbox.write("/var/lib/corvane/moves/shop.json", json.dumps(record))
    assert plan(old) == (0, [], "")
    old.writes_down(domain="new.example")
    assert plan(old) == (1, ["Domain\tin the way\tit has the domain shop.example here and new.example there; corvctl account domain shop "
                             "new.example gives it that one here"], "corvctl: shop cannot be moved here yet: Domain\n")
    old.writes_down(domain="new.example;reboot")
    assert {line.split("\t")[2] for line in plan(old)[1]} == {
        "it has the domain shop.example here and another there", "its user's comment there tells none that is valid"}


def test_a_domain_that_begins_with_www_is_the_accounts_here_too(old):
    """Creation takes one "www." off whatever it is asked for."""
    old.writes_down(domain="www.shop.example")
    code, _, err = corvctl(old.sandbox, "account", "move", "shop", HOST, "--confirm", "shop")
    assert code == 1 and "making the account here" in err
    assert "shop:x:" in old.sandbox.read("/etc/passwd") and ":Corvane account,www.shop.example:" in old.sandbox.read("/etc/passwd")
    old.sandbox.took("hosting.create", {"ok": True})
    old.sandbox.allows_loose_calls("rsync")


def test_what_another_domain_there_is_to_be_called_here_gives_it_that_one(old):
    uid = old.sandbox.add_account("shop", "shop.example")
    record = {"account": "shop", "host": HOST, "domain": "shop.example", "uid": uid, "begun": 1, "rehearsed": 0, "done": ["created", "rehearsed"]}
    old.sandbox.write("/var/lib/corvane/moves/shop.json", json.dumps(record))
    old.writes_down(domain="www.new.example")
    assert "corvctl account domain shop www.www.new.example gives it that one here" in plan(old)[1][0]


def test_an_answer_of_something_else(old):
    old.shows(username="other")
    assert plan(old) == (3, [], f"corvctl: {HOST}: what answers there does not know that command\n")


@pytest.fixture
def left(old):
    """The account shop has left this server, which leads its names on to the other one."""
    old.sandbox.add_account("shop", "shop.example")
    old.sandbox.write("/etc/apache2/sites-available/corv-shop.conf", SUSPENDED.format("shop", "shop.example"))
    old.sandbox.write("/etc/apache2/sites-enabled/001-moved-shop.conf", "<VirtualHost *:80>\nServerName shop.example\n</VirtualHost>\n")
    old.sandbox.write("/var/lib/corvane/moves/shop.left", "on-line\n")
    return old


def test_the_plan_of_the_way_back_has_nothing_of_its_own_in_the_way(left):
    before = left.sandbox.tree("/var/lib")
    assert plan(left, "--back") == (0, [], "")
    assert plan(left)[1] == ["Account\tin the way\tthere is a user shop here",
                             "Domain\tin the way\tthe site 001-moved-shop here answers to shop.example already"]
    assert left.sandbox.tree("/var/lib") == before


def test_what_keeps_an_account_from_coming_back(left):
    left.sandbox.write("/etc/apache2/sites-enabled/x.conf", "<VirtualHost *:80>\nServerName shop.example\n</VirtualHost>\n")
    left.writes_down(domain="other.example")
    assert plan(left, "--back")[1] == ["Account\tin the way\tit has the domain shop.example here and another there"]
    left.writes_down()
    left.sandbox.write("/etc/apache2/sites-enabled/001-moved-shop.conf", "")
    assert plan(left, "--back")[1] == ["Domain\tin the way\tthe site x here answers to shop.example already"]
    left.sandbox.write("/etc/apache2/sites-available/corv-shop.conf", SUSPENDED.replace("RewriteRule", "# RewriteRule").format("shop", "shop.example"))
    assert plan(left, "--back")[1][0] == "Account\tin the way\tshop is on-line here"


def test_who_has_left_is_not_resumed_by_mistake(left):
    left.sandbox.start()
    assert corvctl(left.sandbox, "account", "resume", "shop", start=False) == (
        1, "", "corvctl: shop has left for another server, which has it now\n"
        "  corvctl account move shop HOST --back, HOST being that one, brings it back with what has changed there; --left resumes what is here\n")
    assert left.sandbox.argvs("usermod") == []
    # Nor does a request that is only printed make it this server's again.
    assert corvctl(left.sandbox, "-n", "account", "resume", "shop", "--left", start=False)[0] == 0
    assert left.sandbox.exists("/var/lib/corvane/moves/shop.left")
    assert corvctl(left.sandbox, "account", "resume", "shop", "--left", start=False)[:2] == (0, "shop is on-line again\n")
    assert not left.sandbox.exists("/var/lib/corvane/moves/shop.left")
    left.sandbox.write("/var/lib/corvane/moves/other.left", "")
    assert corvctl(left.sandbox, "account", "resume", "shop", start=False)[:2] == (0, "shop is on-line again\n")
    left.sandbox.logs("agent: uid 0 ran hosting.resume -> ok", "agent: uid 0 ran hosting.resume -> ok")


def test_who_has_left_is_shown_as_such(left):
    left.sandbox.start()
    shown = json.loads(corvctl(left.sandbox, "account", "show", "shop", "--json", start=False)[1])
    assert shown["left"] is True
    assert "Left\tfor another server, which has it now\n" in corvctl(left.sandbox, "--plain", "account", "show", "shop", start=False)[1]
    left.sandbox.path("/var/lib/corvane/moves/shop.left").unlink()
    assert "left" not in json.loads(corvctl(left.sandbox, "account", "show", "shop", "--json", start=False)[1])
    left.sandbox.logs(*["agent: uid 0 ran hosting.getKeys -> ok", "agent: uid 0 ran backup.status -> ok"] * 3)


def test_that_it_has_left_is_kept_until_it_is_on_line_again(left):
    left.sandbox.answer("apache2ctl", "configtest", exit=1, err="broken\n")
    assert corvctl(left.sandbox, "account", "resume", "shop", "--left")[0] == 1
    left.sandbox.logs("agent: uid 0 ran hosting.resume -> failed")
    assert left.sandbox.exists("/var/lib/corvane/moves/shop.left")
    assert corvctl(left.sandbox, "-n", "account", "resume", "shop", "--left")[0] == 0
    assert left.sandbox.exists("/var/lib/corvane/moves/shop.left")
    left.sandbox.answer("apache2ctl", "configtest")
    code, out, _ = corvctl(left.sandbox, "--json", "account", "resume", "shop", "--left")
    assert (code, json.loads(out)["ok"]) == (0, True)
    left.sandbox.logs("agent: uid 0 ran hosting.resume -> ok")
    assert not left.sandbox.exists("/var/lib/corvane/moves/shop.left")


def test_who_has_left_another_server_is_not_resumed_there_by_mistake(left):
    """The other server is this one, asked as another."""
    left.sandbox.answer("ssh", ..., shell='shift 3; eval "$*"')
    left.sandbox.start()
    assert corvctl(left.sandbox, "-H", "web1", "account", "resume", "shop") == (
        1, "", "corvctl: shop has left for another server, which has it now\n  on web1, corvctl account move shop HOST --back, HOST being that one, "
        "brings it back with what has changed there; account resume shop --left resumes what is there\n")
    assert corvctl(left.sandbox, "-H", "web1", "account", "resume", "shop", "--left") == (
        2, "", "corvctl: --left is given on the server that the account has left, not from here\n  ssh web1 corvctl account resume shop --left\n")
    assert left.sandbox.argvs("usermod") == []
    left.sandbox.path("/var/lib/corvane/moves/shop.left").unlink()
    assert corvctl(left.sandbox, "-H", "web1", "account", "resume", "shop") == (0, "shop is on-line again\n", "")
    left.sandbox.logs("agent: uid 0 ran hosting.resume -> ok")


def test_who_has_not_left_does_not_come_back(old):
    refused = (1, "", "corvctl: shop has not left this server\n")
    assert corvctl(old.sandbox, "account", "move", "shop", HOST, "--back", "--confirm", "shop") == refused
    old.sandbox.write("/var/lib/corvane/moves/shop.left", "")
    assert corvctl(old.sandbox, "account", "move", "shop", HOST, "--back", "--confirm", "shop") == (
        1, "", "corvctl: shop has left this server and was deleted here since\n")
    assert old.sandbox.calls("ssh") == []


def test_a_record_tells_which_way_it_goes(left):
    record = {"account": "shop", "host": HOST, "domain": "shop.example", "uid": 1, "begun": 1, "rehearsed": 0, "done": ["created"]}
    left.sandbox.write("/var/lib/corvane/moves/shop.json", json.dumps({**record, "back": True}))
    assert corvctl(left.sandbox, "account", "move", "shop", HOST, "--confirm", "shop") == (
        1, "", f"corvctl: shop left this server and is coming back from {HOST}\n  corvctl account move shop {HOST} --back goes on with it\n")
    left.sandbox.write("/var/lib/corvane/moves/shop.json", json.dumps(record))
    assert corvctl(left.sandbox, "account", "move", "shop", HOST, "--back", "--confirm", "shop") == (
        1, "", f"corvctl: shop came here from {HOST}, which takes it back\n  give this command there, with this server as HOST\n")
    assert left.sandbox.calls("ssh") == []


@pytest.mark.parametrize("words, end", [
    (["shop;reboot", HOST, "--dry-run"], "shop;reboot is no name of an account"),
    (["shop", "-oProxyCommand=x", "--dry-run"], None),
    (["shop", "web$(reboot)", "--dry-run"], "a host's name holds no blanks, quotes or control characters"),
    (["shop", HOST, "--dry-run", "--rehearse"], "--dry-run, --rehearse and --end are different things: choose one"),
    (["shop", HOST, "--rehearse", "--end"], "--dry-run, --rehearse and --end are different things: choose one"),
    (["shop", HOST, "--back", "--end"], "--back brings it here, and --end is of one that is here"),
    (["--all", HOST, "--back"], "--end and --back are said of one account at a time"),
    (["-H", "web2", "shop", HOST, "--dry-run"], "that is done on the server itself, not from here\n"
     "  ssh web2 corvctl account move ..."),
])
def test_what_is_no_move_is_refused_before_anything_is_asked(old, words, end):
    code, out, err = corvctl(old.sandbox, "account", "move", *words)
    assert (code, out) == (2, "")
    assert end is None or err == f"corvctl: {end}\n"
    assert old.sandbox.calls("ssh") == []
