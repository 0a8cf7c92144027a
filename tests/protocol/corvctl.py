"""Runs the administrator's client in a sandbox, beside its agent."""

import os
import pty
import subprocess
import termios

from ground import MS_BIND, agent_executable, mount

PATH = "/standins/bin:/usr/sbin:/usr/bin:/sbin:/bin"
INSTALLED = "/usr/bin/corvctl"


def install(sandbox):
    """Puts the client beside the agent under test into the sandbox."""
    target = sandbox.path(INSTALLED)
    if not target.exists():
        target.touch()
        mount(sandbox.ground.agent(agent_executable().with_name("corvctl")), target, None, MS_BIND)


def corvctl(sandbox, *args, env=None, start=True, **how):
    """Runs it to its end: (exit code, standard output, standard error). What it calls by name are the stand-ins. The agent
    is started for it unless start is False."""
    install(sandbox)
    if start and sandbox.agent is None:
        sandbox.start()
    return sandbox.run("corvctl", *args, env={"PATH": PATH, "HOME": "/root", **(env or {})}, **how)


def on_terminal(sandbox, *args, columns=80, term="dumb"):
    """Runs it with all three streams on a terminal of so many columns: (exit code, what the terminal was sent)."""
    install(sandbox)
    controller, terminal = pty.openpty()
    termios.tcsetwinsize(terminal, (24, columns))
    env = {"PATH": PATH, "HOME": "/root", "TERM": term, "LC_ALL": "C.UTF-8"}
    enter = ["nsenter", f"--target={sandbox.agent.pid}", "--pid", "--uts", "--ipc", f"--root={sandbox.root}", "--wd=/"]
    with subprocess.Popen([*enter, "corvctl", *args], stdin=terminal, stdout=terminal, stderr=terminal, env=env) as process:
        os.close(terminal)
        seen = b""
        while True:
            try:
                more = os.read(controller, 65536)
            except OSError:  # nobody has it open any more
                break
            seen += more
    os.close(controller)
    return process.returncode, seen.decode().replace("\r\n", "\n")
