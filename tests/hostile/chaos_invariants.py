"""What has to hold on a server after whatever went wrong."""

import json
import re
from pathlib import Path

from chaos_commands import NAMES, WITNESS

FACTS = Path(__file__).with_name("chaos_facts.py").read_text()
MENDINGS = 5

# What the agent, its units and the tools that it is asked to run own. Lines of accounts in the system's own files are compared apart.
_NAME = f"(?:{'|'.join(NAMES)})"
OWN = re.compile("|".join([
    rf"/home/{_NAME}(?:/.*)?", rf"/home/\.former-{_NAME}-.*",
    r"/var/backups/corvane(?:/.*)?", r"/var/lib/corvane(?:/.*)?", r"/etc/userdb(?:/corv-gone-.*|/[0-9]+\.(?:user|group))?",
    rf"/etc/apache2/sites-(?:available|enabled)/corv-{_NAME}\.conf", rf"/etc/php/[^/]+/fpm/pool\.d/corv-{_NAME}\.conf(?:\.suspended)?",
    r"/etc/(?:passwd|shadow|group|gshadow|subuid|subgid)-?", r"/etc/\.pwd\.lock", r"/var/mail/.*", r"/var/spool/mail/.*",
    r"/etc/ufw(?:/.*)?", r"/etc/default/ufw", r"/etc/apt/apt\.conf\.d/20auto-upgrades", r"/etc/fail2ban/.*/corv.*",
    rf"/root/(?:left-over-)?{_NAME}.*", r"/root/left-over-.*", r"/var/lib/ufw(?:/.*)?", rf"/var/spool/cron/crontabs/{_NAME}",
    r"/var/lib/logrotate(?:/.*)?", r"/var/lib/ucf(?:/.*)?", rf"/home/{WITNESS}/public_html/by\.php", r"/var/lib/update-notifier.*", r"/srv/filler-stays", r"/etc/corvane/https(?:/.*)?", r"/etc/apache2/md(?:/.*)?",
    r"/var/lib/letsencrypt.*", r"/etc/alternatives/php-fpm\.sock",
]), re.DOTALL)
# What the doctor says of accounts, and of backups that hide later ones.
MENDED = rf"\b{_NAME}(?:__\w+)?\b|is of a time that has not come"
# Where lines are the accounts' own.
LISTS = ("/etc/passwd", "/etc/shadow", "/etc/group", "/etc/gshadow")


class Broken(Exception):
    """Something did not hold; the text names it."""


def facts(host, php, secure=()):
    """What there is of each account, by its name; of those named in secure also what port 443 says."""
    given = {"names": [*NAMES, WITNESS], "php": php, "secure": list(secure)}
    return json.loads(host.ok(["python3", "-c", FACTS], input=json.dumps(given), timeout=300))


def files(host):
    """What every file of the server is."""
    return json.loads(host.ok(["python3", "-c", FACTS], input='"files"', timeout=300))


def others(host):
    """The lines of users and groups that are none of the accounts'."""
    lines = host.ok(["cat", *LISTS]).splitlines()
    return [re.sub(rf"(?<=[:,]){_NAME}(?=,|$)", "", line) for line in lines if not re.match(rf"{_NAME}:", line)]


def examine(host):
    """The findings of the doctor, the first and worst of them first: (level, problem, mend)."""
    done = host.run(["corvctl", "doctor", "--json"], timeout=300)
    if not done.out:
        raise Broken(f"the doctor says nothing: {done.err}")
    found = [finding for check in json.loads(done.out)["checks"] for finding in check["findings"]]
    return [(finding["level"], finding["problem"], finding["mend"]) for finding in found]


def half_there(there):
    """The accounts that are neither whole nor gone."""
    return {name for name, one in there.items() if one["state"] == "half"}


def mend(host, php, log):
    """Has the doctor's commands run until every account is whole or gone. Fails where one is not named or its mend does not work."""
    for turn in range(MENDINGS):
        there = facts(host, php)
        half = half_there(there)
        findings = examine(host)
        faults = [finding for finding in findings if finding[0] == "fault" and re.search(MENDED, finding[1])]
        for name in sorted(half):
            named = [problem for _, problem, _ in findings if re.search(rf"\b{name}(?:__\w+)?\b", problem)]
            if not named:
                raise Broken(f"{name} is neither whole nor gone, and the doctor does not name it: {there[name]}")
        if not faults:
            if half:
                raise Broken(f"{sorted(half)} are neither whole nor gone, and the doctor sees no fault: {there[min(half)]}")
            return there
        for _, problem, command in faults:
            log(f"doctor: {problem}  # {command}")
            # Who mends by hand types the name that is asked for.
            typed = re.sub(r"^(corvctl account delete (\S+).*)$", r"\1 --confirm \2", command)
            done = host.run(["sh", "-c", typed], timeout=300)
            if done.code != 0:
                log(f"mend {turn + 1} ended with {done.code}: {(done.err or done.out).strip()[-300:]}")
    raise Broken(f"the doctor's commands do not mend: {faults}")


def served(host):
    """The accounts that are on port 443, as the client tells it; none where HTTPS is off."""
    lines = [line.split("\t") for line in host.run(["corvctl", "--plain", "https", "list"]).out.splitlines()]
    return [cells[0] for cells in lines if len(cells) > 2 and cells[2] in ("served", "ending")]


def visits(host, php, log):
    """Every site that is whole answers: its page, and PHP as the account; a suspended one with 503. The same on port 443."""
    wrong = {}

    def are_well():
        wrong.clear()
        for name, one in facts(host, php, served(host)).items():
            if "secure" in one and one["secure"] != (200 if one["state"] == "on" else 503):
                wrong[name] = one
            if one["state"] == "on" and (one["visit"] != 200 or one["php"] != [200, f"by {name}"]):
                wrong[name] = one
            elif one["state"] == "off" and one["visit"] != 503:
                wrong[name] = one
        return not wrong

    try:
        # A reload that was asked for comes a moment later.
        host.wait_for(are_well, "well sites answering", timeout=40)
    except AssertionError:
        log(host.run(["sh", "-c", "tail -n 5 /var/log/apache2/error.log; systemctl --no-pager --failed"]).out)
        raise Broken(f"sites of whole accounts do not answer as they should: {wrong}") from None


def unchanged(host, before, before_others):
    """No file that is not the agent's own has changed, appeared or gone; no user or group either."""
    now = files(host)
    wrong = [f"{path}: {before.get(path)} -> {now.get(path)}" for path in sorted({*before, *now})
             if before.get(path) != now.get(path) and not OWN.fullmatch(path)]
    if wrong:
        raise Broken(f"{len(wrong)} files that are not the agent's changed: " + "; ".join(wrong[:5]))
    if (lines := others(host)) != before_others:
        raise Broken(f"users or groups changed that are no accounts: {sorted(set(lines) ^ set(before_others))[:5]}")


def nothing_told(host, secrets):
    """No secret stands in the journal, in a log or in an argument."""
    hashes = host.sql("SELECT rolpassword FROM pg_authid WHERE rolpassword IS NOT NULL").out.split()
    hashes += re.findall(r"\$y\$[^:\s]+", host.get("/etc/shadow"))
    host.put("/run/chaos-secrets", "".join(f"{secret}\n" for secret in [*secrets, *hashes] if secret), mode="0600")
    host.run(["journalctl", "--sync"])
    found = host.run(["sh", "-c", "{ journalctl --no-pager --all -o cat; cat /proc/[0-9]*/cmdline; } 2>/dev/null | "
                      "grep -aFf /run/chaos-secrets | head -n 3; "
                      "grep -raFf /run/chaos-secrets /var/log | grep -v '/journal/' | head -n 3; rm /run/chaos-secrets"], timeout=300)
    if found.out.strip():
        raise Broken(f"a secret is in a log or an argument: {found.out.strip()[:600]}")


def nothing_left(host):
    """The agent has no child, and none of its programs ended by a signal that is a fault of its own."""
    agent = host.main_process("corv-agent")
    host.wait_for(lambda: host.run(["pgrep", "-P", agent]).code == 1, "the end of the agent's programs")
    crashes = re.findall(r"^.*(?:code=dumped|status=(?:4|6|7|8|11)/).*$", host.journal(), re.MULTILINE)
    if crashes:
        raise Broken(f"a program crashed: {crashes[:3]}")


def is_harmless(host):
    """Whether all that went wrong with the newest backup is that something was being written as it was read."""
    errors = json.loads(host.ok(["sh", "-c", "cat $(ls -d /var/backups/corvane/auto/2*/manifest.json | tail -n 1)"]))["errors"]
    return bool(errors) and all(line.endswith("file changed as we read it") for error in errors for line in error.splitlines())


def backup_restorable(host, log):
    """A backup can be made, and all of it be restored."""
    for argv in (["corvctl", "backup", "start", "--wait"], ["corvctl", "backup", "verify", "newest", "--deep"]):
        done = host.run(argv, timeout=600)
        if done.code == 1 and is_harmless(host):
            # Apache has just put a certificate there, or a tenant's site has written.
            log("backup: a file changed as it was read; once more")
            done = host.run(argv, timeout=600)
        if done.code != 0:
            log(host.journal("corv-backup")[-1500:])
            raise Broken(f"{' '.join(argv)} ended with {done.code}: {(done.err + done.out).strip()[-500:]}")
