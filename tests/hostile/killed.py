"""The agent itself killed or stopped in the middle of a request, and how what it leaves is mended."""

import json
import signal

from corvctl import corvctl
from matrix import leftovers, record
from programs import wait_until
from sandbox import Sandbox
from server import ACTIVE, DATABASES, GONE, NAME, account, remove_by_hand

# What the call does about the agent. A program that the agent is killed before has not been started.
MOMENTS = {
    "killed before": {"tell": signal.SIGKILL, "exit": 0},
    "killed after": {"rest": True, "tell_after": signal.SIGKILL},
    "stopped before": {"tell": signal.SIGTERM, "rest": True},
    "stopped after": {"rest": True, "tell_after": signal.SIGTERM},
}


def _ask(box, scenario):
    """Sends the request and returns what came back before the agent's end, as bytes."""
    box.keep_secrets(scenario.args)
    with box.connect() as client:
        client.send(json.dumps({"cmd": scenario.command, "args": scenario.args}).encode() + b"\n")
        return client.rest()


def _wrong_after_stop(box, scenario, recording, target, answer):
    """A stopped agent finishes the request, whatever it was doing."""
    if not answer.endswith(b"\n"):
        return [f"the agent ended with {answer!r} and no reply"]
    reply = box.took(scenario.command, json.loads(answer))
    wrong = [] if reply["ok"] is scenario.ok else [f"the reply is {reply}"]
    if account(box) != scenario.after:
        wrong.append(f"the account is {account(box)}")
    if (code := box.agent.wait()) != 0:
        wrong.append(f"the agent ended with {code}")
    return wrong + leftovers(box, scenario, recording, target)


def _doctors_faults(box):
    """What the administrator is told of the account."""
    code, out, err = corvctl(box, "doctor", "--json")
    box.logs("agent: uid 0 ran ping -> ok")
    assert code in (0, 1), err
    findings = [finding for check in json.loads(out)["checks"] for finding in check["findings"]]
    return [finding["problem"] for finding in findings if finding["level"] == "fault" and NAME in finding["problem"]]


def _wrong_examination(box, scenario, found):
    """Whether the doctor finds an account that is half there, and nothing where it is whole: (it is half there, what is wrong)."""
    parts = {part: found[part] for part in found if part != "home"}  # what a home holds is the user's own affair
    whole = [{part: state[part] for part in parts} for state in (scenario.before, scenario.after)]
    if scenario.command == "hosting.create":
        whole.append({part: ACTIVE[part] for part in parts})  # also one that is undone is complete before that
    faults = _doctors_faults(box)
    aside = any(box.exists(f"{DATABASES}/db.{NAME}__{kind}") for kind in ("restore", "old"))
    if parts in whole and not aside:
        return False, [f"the account is {found}, and the doctor says {faults}"] if faults else []
    return True, [] if faults else [f"the account is {found}, and the doctor finds nothing"]


def _mend_account(box, scenario):
    """Brings the account back to where the request can be made: (how, what went wrong)."""
    found = account(box)
    if found == scenario.before:
        return "nothing had to be done", []
    if scenario.command not in ("hosting.create", "hosting.delete"):
        return "the same request finished it", []
    if found["user"] is not None and box.request("hosting.delete", username=NAME, confirm=NAME)["ok"]:
        how = "hosting.delete took it away"
    else:
        remove_by_hand(box)
        how = "the operator took it away"
    return how, [] if account(box) == GONE else [f"taken away, the account is {account(box)}"]


def _wrong_after_kill(box, scenario, recording, answer):
    """(how the account was mended, whether the doctor found it half there, what is wrong): a killed agent starts again, and the
    request can be repeated."""
    if answer:
        return "", False, [f"a killed agent replied {answer!r}"]
    wait_until(lambda: not box.agent.others(), "the end of what the agent had started")
    box.agent.wait()
    found = account(box)
    seen = [scenario.before, scenario.after]
    if scenario.command == "hosting.create":
        seen.append(ACTIVE)  # also one that is undone is complete before that
    wrong = [
        f"the account's {part} is {found[part]!r}"
        for part in found
        if part != "home" and found[part] not in [state[part] for state in seen]
    ]
    box.start()
    if box.request("ping")["ok"] is not True:
        wrong.append("the agent that was started again does not answer")

    half, problems = _wrong_examination(box, scenario, found)
    wrong += problems
    how, problems = _mend_account(box, scenario)
    wrong += problems
    if scenario.command == "hosting.delete" and account(box) == GONE:
        return how, half, wrong
    if scenario.again:
        scenario.again(box)
    reply = box.request(scenario.command, scenario.args)
    if reply["ok"] is not scenario.ok:
        wrong.append(f"repeated, the request is answered {reply}")
    if account(box) != scenario.after:
        wrong.append(f"after the repetition the account is {account(box)}")
    return how, half, wrong


def cut_off(ground, scenario, target, moment):
    """Runs a scenario in which the agent is killed or stopped at a call: (how the account was mended, whether the doctor found
    it half there, what is wrong)."""
    recording = record(ground, scenario)
    box = Sandbox(ground)
    try:
        scenario.lay(box)
        box.answer(target.name, call=target.number, **MOMENTS[moment])
        answer = _ask(box, scenario)
        if moment.startswith("stopped"):
            return "", False, _wrong_after_stop(box, scenario, recording, target, answer) + box.finish()
        how, half, wrong = _wrong_after_kill(box, scenario, recording, answer)
        return how, half, wrong + box.finish()
    finally:
        box.close()
