#!/usr/bin/env python3
"""tcp_recorder.py LISTEN_PORT UPSTREAM_PORT RECORDING: a TCP relay on
127.0.0.1 that forwards every connection to 127.0.0.1:UPSTREAM_PORT and
appends every byte of both directions to RECORDING. Prints "ready" once it
listens; runs until killed."""
import selectors
import socket
import sys

listen_port, upstream_port, recording = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]
server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("127.0.0.1", listen_port))
server.listen(16)
sel = selectors.DefaultSelector()
sel.register(server, selectors.EVENT_READ)
peers = {}
out = open(recording, "ab", buffering=0)
print("ready", flush=True)


def drop(sock):
    other = peers.pop(sock, None)
    for s in (sock, other):
        if s is not None:
            try:
                sel.unregister(s)
            except (KeyError, ValueError):
                pass
            s.close()
    if other is not None:
        peers.pop(other, None)


while True:
    for key, _ in sel.select():
        sock = key.fileobj
        if sock is server:
            client, _ = server.accept()
            upstream = socket.create_connection(("127.0.0.1", upstream_port))
            peers[client], peers[upstream] = upstream, client
            sel.register(client, selectors.EVENT_READ)
            sel.register(upstream, selectors.EVENT_READ)
            continue
        if sock not in peers:
            continue
        try:
            data = sock.recv(65536)
        except OSError:
            data = b""
        if not data:
            drop(sock)
            continue
        out.write(data)
        peers[sock].sendall(data)
