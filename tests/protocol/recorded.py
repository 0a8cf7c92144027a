"""What tools of real Debian hosts printed, as scripts/record-outputs kept it."""

from pathlib import Path

FOLDER = Path(__file__).parent / "recordings"
SUITES = ("bookworm", "trixie")


def recorded(suite, name):
    """A recording as the words of Sandbox.answer(): out, err and exit."""
    def read(kind, otherwise):
        path = FOLDER / suite / f"{name}.{kind}"
        return path.read_bytes() if path.exists() else otherwise

    out = (FOLDER / suite / f"{name}.out").read_bytes()
    return {"out": out, "err": read("err", b""), "exit": int(read("code", b"0"))}


def failure(program, answer):
    """The agent's message for a recorded failure: the end of what the tool said, or its exit code."""
    said = answer["err"].decode().strip()
    return f"{program} failed: {said[-400:] or 'exit code ' + str(answer['exit'])}"
