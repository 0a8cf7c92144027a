"""Every program that a command runs goes wrong in every way, one at a time."""

from concurrent.futures import ThreadPoolExecutor

import pytest

from described import COMMANDS
from figures import count
from ground import short_agent_executable
from matrix import FATES, faulty_run, record
from scenarios import SCENARIOS
from server import ACTIVE, account, furnish

PROMISE = "one reply; the account is there, gone, or as documented; nothing is left; the next request works"


def test_every_command_has_a_scenario():
    assert {scenario.command for scenario in SCENARIOS} == set(COMMANDS)


def test_the_account_of_the_scenarios_is_what_creation_makes(sandbox):
    furnish(sandbox)
    assert sandbox.request("hosting.create", username="alice", domain="example.org")["ok"]
    assert account(sandbox) == ACTIVE


# Without --long every call meets some fates, and every fate some calls.
SHARE = 16


@pytest.mark.parametrize("fate", FATES)
@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda scenario: scenario.name)
def test_program_that_goes_wrong(ground, some, scenario, fate):
    targets = some(record(ground, scenario).targets, SHARE, SCENARIOS.index(scenario) + list(FATES).index(fate))
    ground.agent(short_agent_executable())  # copied before there are threads: what is being written cannot be run
    # What never ends takes its time, but no processor: several at once.
    with ThreadPoolExecutor(8 if fate == "never ends" else 1) as pool:
        found = list(pool.map(lambda target: faulty_run(ground, scenario, target, fate), targets))
    count(f"a program {fate}", PROMISE, len(found), sum(not wrong for wrong in found))
    assert not any(found), "\n".join(f"{target}: {wrong}" for target, wrong in zip(targets, found) if wrong)
