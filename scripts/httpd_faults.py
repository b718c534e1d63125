#!/usr/bin/env python3
# Misbehaving clients for scripts/httpd-load.sh: each step prints one
# "PASS: ..." or "FAIL: ..." line; the exit status is the number of failures.
#   httpd_faults.py PORT faults --pid PID --idle-timeout SECONDS
#   httpd_faults.py PORT burst N --pid PID
# Every client is a plain socket driven by one selector, so a thousand of them
# cost one thread; answers are read until the server closes, so each request
# asks for "Connection: close" unless the step needs otherwise.
import argparse
import json
import os
import re
import resource
import selectors
import socket
import sys
import time

GREETING = b"Hello from tolan-httpd\n"
failures = 0


def report(ok, text):
    global failures
    failures += 0 if ok else 1
    print(("PASS: " if ok else "FAIL: ") + text, flush=True)


def get(path, close=True, extra=b""):
    return (b"GET " + path + b" HTTP/1.1\r\nHost: load\r\n" + extra +
            (b"Connection: close\r\n" if close else b"") + b"\r\n")


def open_fds(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


class Client:
    def __init__(self, port, request, rcvbuf=None):
        self.request = request
        self.data = bytearray()
        self.error = None
        self.eof = False
        self.sock = socket.socket()
        if rcvbuf:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.sock.setblocking(False)
        self.sock.connect_ex(("127.0.0.1", port))

    def status(self):
        head = bytes(self.data[:12]).split(b" ")
        return int(head[1]) if len(head) > 1 and head[1].isdigit() else None

    def body(self):
        return bytes(self.data).partition(b"\r\n\r\n")[2]

    def reset(self):
        # Vanish: an RST, not an orderly close.
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.sock.close()


def wait_connected(clients, deadline):
    sel = selectors.DefaultSelector()
    for c in clients:
        sel.register(c.sock, selectors.EVENT_WRITE, c)
    left = len(clients)
    while left and time.monotonic() < deadline:
        for key, _ in sel.select(0.1):
            c = key.data
            err = c.sock.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
            if err:
                c.error = os.strerror(err)
            sel.unregister(c.sock)
            left -= 1
    sel.close()
    return left == 0


def converse(clients, deadline, limit=None):
    """Sends each client's request and reads until the server closes (or
    `limit` bytes arrived); clients still open at the deadline get an error."""
    sel = selectors.DefaultSelector()
    for c in clients:
        if c.error:
            continue
        try:
            c.sock.settimeout(5)
            c.sock.sendall(c.request)
            c.sock.setblocking(False)
        except OSError as e:
            c.error = str(e)
            continue
        sel.register(c.sock, selectors.EVENT_READ, c)
    while sel.get_map() and time.monotonic() < deadline:
        for key, _ in sel.select(0.1):
            c = key.data
            try:
                chunk = c.sock.recv(65536)
            except OSError as e:
                chunk, c.error = b"", str(e)
            c.data += chunk
            if not chunk or (limit and len(c.data) >= limit):
                c.eof = not chunk
                sel.unregister(c.sock)
    for key in list(sel.get_map().values()):
        key.data.error = "no end of answer within the deadline"
    sel.close()
    return clients


def fetch(port, requests, seconds=10.0, rcvbuf=None):
    clients = [Client(port, r, rcvbuf) for r in requests]
    deadline = time.monotonic() + seconds
    wait_connected(clients, deadline)
    converse(clients, deadline)
    for c in clients:
        c.sock.close()
    return clients


def summary(clients, good):
    bad = [c for c in clients if not good(c)]
    if not bad:
        return True, ""
    c = bad[0]
    return False, " (%d bad; first: status %s, %d bytes, error %s)" % (len(bad), c.status(), len(c.data), c.error)


def greeted(c):
    return c.error is None and c.status() == 200 and c.body() == GREETING


def step_concurrent(port, pid, n=1000):
    base = open_fds(pid)
    clients = [Client(port, get(b"/")) for _ in range(n)]
    deadline = time.monotonic() + 30
    wait_connected(clients, deadline)
    # All are connected; wait until the server holds them all at once.
    while open_fds(pid) < base + n and time.monotonic() < deadline:
        time.sleep(0.05)
    held = open_fds(pid) - base
    converse(clients, deadline)
    for c in clients:
        c.sock.close()
    ok, why = summary(clients, greeted)
    report(ok and held >= n, "%d concurrent connections (server held %d at once) each got /%s" % (n, held, why))


def step_vanish(port, idle=300, vanishing=30):
    # Idle connections make the document long enough not to fit in the
    # vanishing clients' small receive buffers.
    idlers = [Client(port, b"") for _ in range(idle)]
    wait_connected(idlers, time.monotonic() + 10)
    time.sleep(0.3)
    clients = [Client(port, get(b"/tasks"), rcvbuf=2048) for _ in range(vanishing)]
    deadline = time.monotonic() + 10
    wait_connected(clients, deadline)
    converse(clients, deadline, limit=1500)
    partial = sum(1 for c in clients if not c.eof and len(c.data) >= 1500)
    for c in clients:
        c.reset()
    for c in idlers:
        c.sock.close()
    after = fetch(port, [get(b"/tasks"), get(b"/")])
    try:
        json.loads(after[0].body())
        valid = True
    except ValueError:
        valid = False
    report(partial == vanishing and valid and greeted(after[1]),
           "%d clients vanished mid-/tasks (%d cut off mid-document); the server still answers / and a whole /tasks"
           % (vanishing, partial))


def step_nonreader(port, others=20, bound=2.0):
    # Thousands of pipelined requests, answers never read: the server stops
    # reading this client once its answers back up.
    stuck = socket.create_connection(("127.0.0.1", port))
    stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    stuck.setblocking(False)
    flood = get(b"/", close=False) * 2000
    sent, total, progress = 0, 64 << 20, time.monotonic()
    while sent < total and time.monotonic() - progress < 0.5:
        try:
            sent += stuck.send(flood)
            progress = time.monotonic()
        except BlockingIOError:
            time.sleep(0.01)
    worst, answered = 0.0, 0
    for _ in range(others):
        began = time.monotonic()
        c = fetch(port, [get(b"/")], seconds=bound)[0]
        worst = max(worst, time.monotonic() - began)
        answered += greeted(c)
    stuck.close()
    report(sent < total and answered == others and worst < bound,
           "a client that never reads (server stopped reading it after %d KiB) while %d others were answered, "
           "slowest in %.3f s (bound %.1f s)" % (sent // 1024, answered, worst, bound))


def step_slowloris(port, idle_timeout, n=10):
    conns = [socket.create_connection(("127.0.0.1", port)) for _ in range(n)]
    began = time.monotonic()
    for s in conns:
        s.sendall(b"GET / HTTP/1.1\r\nHost: load\r\nX-Slow: ")
        s.setblocking(False)
    closed = {}
    served = None
    limit = idle_timeout + 3.0
    while len(closed) < n and time.monotonic() - began < limit:
        for i, s in enumerate(conns):
            if i in closed:
                continue
            try:
                if s.recv(4096) == b"":
                    closed[i] = time.monotonic() - began
                    continue
            except BlockingIOError:
                pass
            except OSError:
                closed[i] = time.monotonic() - began
                continue
            try:
                s.send(b"x")
            except OSError:
                closed[i] = time.monotonic() - began
        if served is None and time.monotonic() - began > idle_timeout / 2:
            served = greeted(fetch(port, [get(b"/")])[0])
        time.sleep(0.2)
    for s in conns:
        s.close()
    # Closed by the timer, not by something else going wrong earlier.
    early = min(closed.values(), default=0) < 0.9 * idle_timeout
    report(len(closed) == n and not early and served is True,
           "%d slowloris clients (a header byte each 0.2 s) closed by the %.1f s idle timeout, after %.1f to %.1f s; "
           "others served meanwhile" % (len(closed), idle_timeout, min(closed.values(), default=-1),
                                         max(closed.values(), default=-1)))


MALFORMED = [
    ("garbage request line", b"HELLO WORLD\r\n\r\n", 400),
    ("binary junk", b"\x00\x01\x02\x03\xff\xfe\r\n\r\n", 400),
    ("header without a colon", b"GET / HTTP/1.1\r\nHost: load\r\nNoColonHere\r\n\r\n", 400),
    ("non-numeric Content-Length", b"GET / HTTP/1.1\r\nHost: load\r\nContent-Length: ten\r\n\r\n", 400),
    ("POST", b"POST / HTTP/1.1\r\nHost: load\r\nContent-Length: 0\r\n\r\n", 405),
    ("unknown path", get(b"/no-such-page"), 404),
    ("9 KiB header value", get(b"/", extra=b"X-Big: " + b"a" * 9216 + b"\r\n"), 431),
    ("9 KiB URL", get(b"/?" + b"q" * 9216), 431),
    ("1000 small headers", get(b"/", extra=b"".join(b"X-Header-%04d: value\r\n" % i for i in range(1000))), 431),
    ("bad request after a good one", get(b"/", close=False) + b"BROKEN\r\n\r\n", 400),
]


def step_malformed(port):
    clients = fetch(port, [r for _, r, _ in MALFORMED])
    for (name, _, want), c in zip(MALFORMED, clients):
        # The last status on the connection is the one under test.
        statuses = re.findall(rb"HTTP/1\.1 (\d{3}) ", bytes(c.data))
        got = int(statuses[-1]) if statuses else None
        report(got == want and c.eof and c.error is None,
               "%s: %s and closed (want %d)" % (name, got, want))


def step_burst(port, pid, n):
    with open("/proc/%d/limits" % pid) as f:
        limit = next(line.split()[3] for line in f if line.startswith("Max open files"))
    clients = fetch(port, [get(b"/")] * n, seconds=60)
    ok, why = summary(clients, greeted)
    later = greeted(fetch(port, [get(b"/")])[0])
    report(ok and later, "%d clients at once against a server limited to %s descriptors: all answered, and a later "
           "one too%s" % (n, limit, why))


def main():
    p = argparse.ArgumentParser()
    p.add_argument("port", type=int)
    p.add_argument("step", choices=["faults", "burst"])
    p.add_argument("count", type=int, nargs="?", default=500)
    p.add_argument("--pid", type=int, required=True)
    p.add_argument("--idle-timeout", type=float, default=2.0)
    a = p.parse_args()
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    if a.step == "burst":
        step_burst(a.port, a.pid, a.count)
    else:
        step_concurrent(a.port, a.pid)
        step_vanish(a.port)
        step_nonreader(a.port)
        step_slowloris(a.port, a.idle_timeout)
        step_malformed(a.port)
    sys.exit(min(failures, 100))


if __name__ == "__main__":
    main()
