"""A server for the agent to restore into, in the test's own hands: it speaks as much of PostgreSQL's protocol as that takes."""

import os
import queue
import re
import socket
import struct
import threading

from programs import PATIENCE

FOLDER = "/run/postgresql"
USUAL = f"{FOLDER}/.s.PGSQL.5432"
RELAY = "/run/corvane/restore/.s.PGSQL.5432"

LET_IN = struct.pack("!ciI", b"R", 8, 0)
READY = struct.pack("!cic", b"Z", 5, b"I")
GOODBYE = struct.pack("!ci", b"X", 4)

# What the server says to the agent's questions when all is well: a text that tells a question from the others, and the word.
WELL = {
    "THEN 'aside'": "ready",
    "GRANT corv_restore": "done",
    "REVOKE corv_restore": "done",
    "THEN 'touched'": "fresh",
    "THEN 'prepared'": "empty",
    "string_agg": "16385,16390",
    "SELECT 'shut'": "shut",
    "SELECT 'back'": "back",
    "ELSE 'free'": "free",
    "SELECT 'locked'": "locked",
}


def message(kind, body):
    return kind + struct.pack("!i", len(body) + 4) + body


def start(user, database, **settings):
    """A client's first message."""
    words = {"user": user, "database": database, **settings}
    body = struct.pack("!i", 3 << 16) + b"".join(f"{key}\0{value}\0".encode() for key, value in words.items()) + b"\0"
    return struct.pack("!i", len(body) + 4) + body


def failure(severity, text):
    return message(b"E", f"S{severity.title()}\0V{severity}\0C28000\0M{text}\0\0".encode())


def row(word):
    return message(b"D", struct.pack("!hi", 1, len(word)) + word.encode()) if word is not None else b""


class Peer:
    """One end of a connection, read in messages."""

    def __init__(self, connection):
        connection.settimeout(PATIENCE)
        self.socket = connection
        self.pid, self.uid, _ = struct.unpack("3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))

    def send(self, *parts):
        self.socket.sendall(b"".join(parts))

    def take(self, size):
        """So many bytes; fewer when the other side has ended."""
        data = b""
        while len(data) < size:
            more = self.socket.recv(min(size - len(data), 1 << 16))
            if not more:
                break
            data += more
        return data

    def first(self):
        """A client's first message, as its words."""
        head = self.take(4)
        if len(head) < 4:
            return None
        words = self.take(struct.unpack("!i", head)[0] - 4)[4:-2].decode().split("\0")
        return dict(zip(words[::2], words[1::2]))

    def message(self):
        """The next message: its type and what it holds; nothing at the end."""
        head = self.take(5)
        return (head[:1], self.take(struct.unpack("!i", head[1:])[0] - 4)) if len(head) == 5 else None

    def close(self):
        self.socket.close()


class Server:
    """Answers the superuser's questions by itself, and hands every other connection to the test."""

    def __init__(self, sandbox, path=USUAL):
        self._superuser = sandbox.uid("postgres")
        self.asked = []  # (user, database, options, application, question)
        self.words = dict(WELL)
        self.let_in = LET_IN + READY
        self._others = queue.Queue()
        sandbox.mkdir(FOLDER)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        at(sandbox, path, self._listener.bind)
        sandbox.path(path).chmod(0o777)
        self._listener.listen(16)
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            peer = Peer(connection)
            if peer.uid == self._superuser:
                threading.Thread(target=self._answer, args=(peer,), daemon=True).start()
            else:
                self._others.put(peer)

    def _answer(self, peer):
        words = peer.first()
        if words is None:
            return
        peer.send(self.let_in)
        while (asked := peer.message()) and asked[0] == b"Q":
            question = asked[1].rstrip(b"\0").decode()
            self.asked.append((words["user"], words["database"], words["options"], words["application_name"], question))
            word = next(word for text, word in self.words.items() if text in question)
            word = word.pop(0) if isinstance(word, list) and len(word) > 1 else word[0] if isinstance(word, list) else word
            peer.send(word if isinstance(word, bytes) else row(word), message(b"C", b"SELECT 1\0"), READY)
        peer.close()

    def other(self):
        """The next connection that is not the superuser's."""
        return self._others.get(timeout=PATIENCE)

    def kinds(self):
        """Which questions were asked, each by the text that tells it from the others."""
        return [next(text for text in WELL if text in asked[-1]) for asked in self.asked]

    def close(self):
        """Nobody is there any more, nor does anybody wait at the number of a descriptor that others get."""
        if self._thread.is_alive():
            self._listener.shutdown(socket.SHUT_RDWR)
            self._thread.join()
        self._listener.close()


def at(sandbox, path, use):
    """Uses the address of a socket inside, however long the sandbox's own path is."""
    folder, name = os.path.split(path)
    descriptor = os.open(sandbox.path(folder), os.O_PATH)
    try:
        return use(f"/proc/self/fd/{descriptor}/{name}")
    finally:
        os.close(descriptor)


def come(sandbox, user="postgres"):
    """A connection to the relay, made by that user, as pg_restore makes one."""
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    uid, gid = sandbox.ids(f"{user}:{user}")
    groups = os.getgroups()
    folder = os.open(sandbox.path("/run/corvane"), os.O_PATH)
    os.setgroups([])
    os.setresgid(-1, gid, -1)
    os.setresuid(-1, uid, -1)
    try:
        connection.connect(f"/proc/self/fd/{folder}/restore/.s.PGSQL.5432")
    finally:
        os.setresuid(-1, 0, -1)
        os.setresgid(-1, 0, -1)
        os.setgroups(groups)
        os.close(folder)
    return Peer(connection)


def status(pid):
    """The fields of a process's status, each as a list of words."""
    with open(f"/proc/{pid}/status") as file:
        return {key: value.split() for key, value in re.findall(r"^(\w+):\t(.*)$", file.read(), re.MULTILINE)}
