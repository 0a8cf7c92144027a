"""The agent is killed or stopped before and after every program that it runs."""

import collections

import pytest

from figures import count
from killed import MOMENTS, cut_off
from matrix import record
from scenarios import SCENARIOS

PROMISES = {
    "killed": "it starts again, and what was being done can be done again, after {0}",
    "stopped": "the request is finished, its reply delivered, the exit code is 0",
}
FOUND = "`corvctl doctor` finds it, and an account that is whole has no fault"

# Without --long each program is met at one of the moments.
SHARE = 4


@pytest.mark.parametrize("moment", MOMENTS)
@pytest.mark.parametrize(
    "scenario", [scenario for scenario in SCENARIOS if scenario.changes], ids=lambda scenario: scenario.name
)
def test_agent_that_is_cut_off(ground, some, scenario, moment):
    targets = some(record(ground, scenario).outer, SHARE, list(MOMENTS).index(moment))
    found = [cut_off(ground, scenario, target, moment) for target in targets]
    ways = collections.Counter(how for how, _, wrong in found if how and not wrong)
    if moment.startswith("killed"):
        for how, number in ways.items():
            count(f"the agent is {moment} a program: {how}", "it starts again, and the request can be repeated", number, number)
        half = [not wrong for _, is_half, wrong in found if is_half]
        if half:
            count(f"the agent is {moment} a program, and the account is half there", FOUND, len(half), sum(half))
        lost = sum(bool(wrong) for _, _, wrong in found)
        if lost:
            count(f"the agent is {moment} a program: in vain", "it starts again, and the request can be repeated", lost, 0)
    else:
        good = sum(not wrong for _, _, wrong in found)
        count(f"the agent is {moment} a program ends", PROMISES["stopped"], len(found), good)
    assert not any(wrong for _, _, wrong in found), "\n".join(
        f"{target}: {wrong}" for target, (_, _, wrong) in zip(targets, found) if wrong
    )
