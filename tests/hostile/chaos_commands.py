"""Requests drawn at random, of every command that the description names."""

import json
import string
from dataclasses import dataclass, field
from pathlib import Path

DESCRIPTION = json.loads((Path(__file__).resolve().parents[2] / "data/protocol.json").read_text())
COMMANDS = [command["name"] for command in DESCRIPTION["commands"]]

# The accounts that are made, spoilt and deleted, and the one that nobody asks for anything.
NAMES = [f"chaos{i}" for i in range(1, 7)]
WITNESS = "witness"
TRANSFER = "/var/lib/corvane/transfer"

# What changes accounts comes more often than what reports.
WEIGHTS = {
    "hosting.create": 14, "hosting.delete": 6, "hosting.suspend": 6, "hosting.resume": 7, "hosting.setKeys": 4,
    "hosting.resetDbPassword": 4, "hosting.dbReadOnly": 3, "backup.restore": 5, "files": 12, "backup.start": 2,
    "updates.refresh": 0.5, "updates.install": 0.5, "quota.enable": 0.3, "firewall.enable": 0.5, "fail2ban.enable": 0.5,
}
SERVICES = ["apache2", "postgresql", "fail2ban", "cron", "nonsense"]
# What no request may hold: every one of them is refused, and nothing happens.
ODD = ["", "\n", "root", "www-data", "../etc", "-h", "CHAOS1", "chaos1\n", "chaos1\0", "a" * 40, None, 1e10, -1, 2.5, True, [], {}]
PATHS = ["", "public_html", "public_html/page", "public_html/new", "folder", "folder/a b", "../witness", "/etc/passwd", "logs", ".ssh",
         "tmp/x", "nothing/here", ".", "folder/..", "-rf", "a\nb"]


@dataclass
class Request:
    """A command with its arguments. `newest` counts back from the newest backup, whose name goes into them when it is sent;
    `upload` is a file for the transfer folder."""

    command: str
    args: dict = field(default_factory=dict)
    newest: int | None = None
    upload: str | None = None

    def told(self):
        """The request for the log, in a line."""
        args = {key: value if len(str(value)) <= 40 else f"({len(str(value))} characters)" for key, value in self.args.items()}
        return f"{self.command} {json.dumps(args)}" + (f" backup -{self.newest}" if self.newest is not None else "")


def token(rng, length=24):
    """A text that is nowhere else, so that it can be searched for."""
    return "".join(rng.choices(string.ascii_lowercase + string.digits, k=length))


def draw(rng, key, token_of):
    """The next request, by the generator alone. `key` is an SSH public key, `token_of(rng)` gives contents that are to stay secret."""
    command = rng.choices(COMMANDS, [WEIGHTS.get(name, 1) for name in COMMANDS])[0]
    name = rng.choice(NAMES)
    request = Request(command, _args(command, name, rng, key, token_of))
    if command == "backup.restore":
        request.newest = rng.randrange(4)
    if request.args.get("op") == "upload":
        request.upload = token_of(rng)
    if request.args and rng.random() < 0.08:
        request.args[rng.choice(sorted(request.args))] = rng.choice(ODD)
    return request


def _args(command, name, rng, key, token_of):
    one = {"username": name}
    if command == "hosting.create":
        return {**one, "domain": f"{name}.example", "sshKey": key}
    if command == "hosting.delete":
        return {**one, "confirm": name if rng.random() < 0.9 else "yes"}
    if command == "hosting.setKeys":
        return {**one, "keys": rng.choice([key, "", f"{key}\n# none\n{key}\n", "nonsense"])}
    if command == "hosting.dbReadOnly":
        return {**one, "readOnly": rng.random() < 0.3}
    if command == "quota.set":
        return {**one, "mb": rng.choice([0, 10, 1000])}
    if command == "files":
        return {**one, **_file(rng, token_of)}
    if command == "backup.restore":
        return {**one, "backup": "", "what": rng.choice(["files", "database"])}
    if command.startswith("hosting.") and command != "hosting.usage":
        return one
    return {
        "services.restart": lambda: {"name": rng.choice(SERVICES)},
        "firewall.allow": lambda: {"port": rng.choice([80, 443, 8080, rng.randrange(1, 65536)]), "proto": rng.choice(["tcp", "udp"])},
        "firewall.delete": lambda: {"number": rng.randrange(1, 12)},
        "fail2ban.unban": lambda: {"jail": "sshd", "ip": f"203.0.113.{rng.randrange(256)}"},
        "updates.install": lambda: {"mode": rng.choice(["security", "all"])},
        "updates.automatic": lambda: {"on": rng.random() < 0.5},
        # The server itself stays up: no name of it is right.
        "system.reboot": lambda: {"confirm": rng.choice(["web2", "", "WEB1"])},
    }.get(command, dict)()


def _file(rng, token_of):
    op = rng.choice(["list", "read", "write", "write", "mkdir", "rename", "delete", "upload", "download"])
    args = {"op": op, "path": rng.choice(PATHS)}
    # What an account is made of stays, so that its site is there to be looked at.
    if op in ("rename", "delete") and args["path"] in ("", ".", "public_html", "logs", ".ssh", "folder/.."):
        args["path"] = "folder"
    if op == "rename":
        args["to"] = rng.choice(["folder2", "public_html/moved", "../out", "folder"])
    if op == "write":
        args["content"] = token_of(rng) * rng.choice([1, 1, 1000])
    if op == "upload":
        args["transfer"] = token(rng)
    return args
