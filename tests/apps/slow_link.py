#!/usr/bin/env python3
"""A TCP link with latency at connect: accepts on 127.0.0.1:LISTEN and,
DELAY_MS later, connects to 127.0.0.1:TARGET and forwards both ways. It
stands for a broker that is reachable but not next door (a remote host,
a TLS handshake), so a test sees what happens before the session is up.

    slow_link.py LISTEN TARGET DELAY_MS
"""
import socket
import sys
import threading
import time


def pump(src, dst):
    try:
        while True:
            data = src.recv(65536)
            if not data:
                break
            dst.sendall(data)
    except OSError:
        pass
    for s in (src, dst):
        try:
            s.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def serve(client, target, delay_s):
    time.sleep(delay_s)
    try:
        upstream = socket.create_connection(("127.0.0.1", target))
    except OSError:
        client.close()
        return
    threading.Thread(target=pump, args=(client, upstream), daemon=True).start()
    threading.Thread(target=pump, args=(upstream, client), daemon=True).start()


def main():
    listen, target, delay_ms = (int(a) for a in sys.argv[1:4])
    server = socket.socket()
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(("127.0.0.1", listen))
    server.listen(16)
    while True:
        client, _ = server.accept()
        threading.Thread(target=serve, args=(client, target, delay_ms / 1000.0), daemon=True).start()


if __name__ == "__main__":
    main()
