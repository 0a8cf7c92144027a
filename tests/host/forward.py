"""Leads connections from one network to another: forward.py ADDRESS PORT PID TARGET. What comes to ADDRESS, in the network that this
process was started in, goes to the same port of TARGET in the network of the process PID."""

import ctypes
import os
import socket
import sys
import threading

CLONE_NEWNET = 0x40000000


def copy(source, sink):
    try:
        while data := source.recv(65536):
            sink.sendall(data)
        sink.shutdown(socket.SHUT_WR)
    except OSError:
        source.close()
        sink.close()


def lead(client, network, target):
    # Of this thread alone.
    if ctypes.CDLL(None, use_errno=True).setns(network, CLONE_NEWNET) != 0:
        client.close()
        return
    try:
        server = socket.create_connection(target)
    except OSError:
        client.close()
        return
    threading.Thread(target=copy, args=(server, client), daemon=True).start()
    copy(client, server)


def main():
    address, port, pid, target = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4]
    network = os.open(f"/proc/{pid}/ns/net", os.O_RDONLY)
    with socket.create_server((address, port)) as listener:
        os.write(1, b".")
        while True:
            client, _ = listener.accept()
            threading.Thread(target=lead, args=(client, network, (target, port)), daemon=True).start()


main()
