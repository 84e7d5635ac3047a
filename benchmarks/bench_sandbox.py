"""What the template sandbox's audit hook costs threads that are not in the sandbox.

Three audited operations, timed on a thread outside the sandbox: `id()` (audited, never refused), a
`os.open` + `os.close` of /dev/null (audited and refused to a marked thread) and a `socket.socket` bind
to a loopback port (likewise). Each is timed before the hook exists, with the hook installed and no thread
inside, and with another thread parked inside the sandbox. Target: the last two within noise of the first
(well under a microsecond of difference per operation)."""
import os
import socket
import threading
import time

import quillmarsh.search_templates as st

REPEATS = 9


def per_call_ns(fn, calls):
    samples = []
    for _ in range(REPEATS):
        t0 = time.perf_counter_ns()
        for _ in range(calls):
            fn()
        samples.append((time.perf_counter_ns() - t0) / calls)
    return min(samples)  # the least disturbed run: the machine may be shared


def open_devnull():
    os.close(os.open(os.devnull, os.O_RDONLY))


def bind_loopback():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))


OPERATIONS = [("id()", lambda: id(OPERATIONS), 200_000), ("os.open+close", open_devnull, 20_000),
              ("socket bind", bind_loopback, 5_000)]


def measure():
    return {name: per_call_ns(fn, calls) for name, fn, calls in OPERATIONS}


def main():
    before = measure()  # must come first: the hook, once added, stays for the life of the process
    with st._template_sandbox():
        pass
    installed = measure()
    inside, leave = threading.Event(), threading.Event()

    def parked():
        with st._template_sandbox():
            inside.set()
            leave.wait(120.0)
    thread = threading.Thread(target=parked, daemon=True)
    thread.start()
    inside.wait(10.0)
    busy = measure()
    leave.set()
    thread.join(10.0)
    print("ns per operation, outside the sandbox  (no hook / hook, nobody inside / hook, a thread inside)")
    for name, _fn, _calls in OPERATIONS:
        print(f"  {name:16s} {before[name]:9.0f} {installed[name]:9.0f} {busy[name]:9.0f}"
              f"   (+{busy[name] - before[name]:.0f} ns)")


if __name__ == "__main__":
    main()
