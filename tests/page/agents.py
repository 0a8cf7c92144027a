"""Another program in the agent's place, for what the real one does not say."""

import json
from contextlib import contextmanager

OLD_AGENT = r"""
import json, os, socket, sys
path = "/run/corvane/agent.sock"
if os.path.exists(path):
    os.unlink(path)
server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen(20)
while True:
    client, _ = server.accept()
    if os.fork():
        client.close()
        continue
    for line in client.makefile("r"):
        request = json.loads(line)
        with open("/run/asked.jsonl", "a") as asked:
            asked.write(line)
        client.sendall((json.dumps(json.load(open("/run/replies.json")).get(request["cmd"], {"ok": False, "error": "unknown command"})) + "\n").encode())
    sys.exit()
"""


def start_agent(server):
    # The tests stop it more often than systemd lets it be started.
    server.run(["systemctl", "reset-failed", "corv-agent"])
    server.ok(["systemctl", "start", "corv-agent"])


@contextmanager
def agent_in_its_place(server, replies):
    """A program that answers each command with a prepared reply, or as an agent that does not know it. Gives a function that tells
    what it was asked so far."""
    server.put("/run/asked.jsonl", "")
    server.put("/run/other-agent.py", OLD_AGENT)
    server.put("/run/replies.json", json.dumps(replies))
    server.ok(["systemctl", "stop", "corv-agent"])
    server.ok(["systemd-run", "--quiet", "--collect", "--unit=other-agent", "python3", "/run/other-agent.py"])
    server.wait_for(lambda: server.exists("/run/corvane/agent.sock"), "the other agent")
    try:
        yield lambda: [json.loads(line) for line in server.get("/run/asked.jsonl").splitlines()]
    finally:
        server.ok(["systemctl", "stop", "other-agent"])
        start_agent(server)
        server.wait_for_unit("corv-agent")
