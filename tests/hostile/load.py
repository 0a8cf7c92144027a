"""Clients of one kind that press on the agent until standard input ends: load.py SOCKET KIND NUMBER [UID].

Then prints, as JSON, how often all was as it should be and what was not.
"""

import json
import os
import resource
import socket
import sys
import threading
import time

PING = b'{"cmd":"ping"}\n'
PONG = b'{"ok":true,"version":"0.1"}\n'
LONGEST = 4_194_304
PATIENCE = 120

wrong = []
done = 0
lock = threading.Lock()
ended = threading.Event()


def good():
    global done
    with lock:
        done += 1


def bad(text):
    with lock:
        if len(wrong) < 20:
            wrong.append(text)


def connect(path):
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    client.settimeout(PATIENCE)
    client.connect(path)
    return client


def line(client):
    data = b""
    while not data.endswith(b"\n"):
        more = client.recv(65536)
        if not more:
            return data
        data += more
    return data


def check(client, what):
    reply = line(client)
    if reply == PONG:
        good()
    else:
        bad(f"{what} got {reply[:100]!r}")


def idle(path, number):
    """Connections that are open and say nothing until the end; then each is answered once."""
    clients = [connect(path) for _ in range(number)]
    print("ready", flush=True)
    ended.wait()
    for client in clients:
        client.sendall(PING)
        check(client, "an idle client")


def dribble(path, number):
    """Requests that come byte by byte."""
    clients = [connect(path) for _ in range(number)]
    print("ready", flush=True)
    while not ended.is_set():
        for i in range(len(PING)):
            for client in clients:
                client.sendall(PING[i : i + 1])
            time.sleep(0.02)
        for client in clients:
            check(client, "a dribbling client")


def each(number, action):
    """Runs the action over and over in so many threads."""
    def work():
        while not ended.is_set():
            try:
                action()
            except OSError as error:
                bad(f"{type(error).__name__}: {error}")
                ended.wait(0.1)

    threads = [threading.Thread(target=work) for _ in range(number)]
    for thread in threads:
        thread.start()
    print("ready", flush=True)
    for thread in threads:
        thread.join()


def long(path, number):
    """Lines of the greatest length, which are answered, and longer ones, which end the connection."""
    start = b'{"cmd":"ping","args":{"x":"'
    longest = start + b"x" * (LONGEST - len(start) - 4) + b'"}}\n'

    def send():
        with connect(path) as client:
            client.sendall(longest)
            check(client, "a long line")
        with connect(path) as client:
            try:
                client.sendall(b"x" * (LONGEST + 65536))
            except (BrokenPipeError, ConnectionResetError):
                pass
            try:
                reply = client.recv(1)
            except ConnectionResetError:
                reply = b""
            good() if not reply else bad(f"a line that is too long got {reply!r}")

    each(number, send)


def cut(path, number):
    """Clients that hang up in the middle of the replies to many requests."""
    def send():
        with connect(path) as client:
            client.sendall(PING * 500)
            reply = client.recv(10)
        good() if PONG.startswith(reply) and reply else bad(f"a client in a hurry got {reply!r}")

    each(number, send)


def knock(path, number):
    """Connections of a user who may not connect."""
    def send():
        with connect(path) as client:
            try:
                reply = client.recv(100)
            except ConnectionResetError:
                reply = b""
        good() if not reply else bad(f"a foreign client got {reply!r}")
        ended.wait(0.02)

    each(number, send)


def main():
    path, kind, number, *uid = sys.argv[1:]
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    if uid:
        os.setgroups([])
        os.setresuid(int(uid[0]), int(uid[0]), int(uid[0]))
    threading.Thread(target=lambda: (sys.stdin.read(), ended.set()), daemon=True).start()
    {"idle": idle, "dribble": dribble, "long": long, "cut": cut, "knock": knock}[kind](path, int(number))
    print(json.dumps({"done": done, "wrong": wrong}))


if __name__ == "__main__":
    main()
