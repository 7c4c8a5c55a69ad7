"""The rows of the table: what is compared with what, and the goal.

Figures are looked up by name; those of one row took turns, and their values of the same repetition
belong together.
"""

import collections

# how: "ratio" (the figure over the sum of those it stands against), "difference" (less that sum),
# "value" (the figure itself) or "smallest" (its smallest value). Each repetition has a result of its
# own, but for the smallest; the median of these counts.
# sense: "<=" or ">=" the goal. No goal: shown for information.
# beside: a figure shown for comparison. minors, lifetimes: where the row applies, None everywhere.
Row = collections.namedtuple(
    "Row", "section label figure against how sense goal unit beside minors lifetimes"
)


def row(section, label, figure, *against, how="ratio", sense="<=", goal=None, unit="ns",
        beside=None, minors=None, lifetimes=None):
    return Row(section, label, figure, against, how, sense, goal, unit, beside, minors, lifetimes)


SIZES = {
    16: "16 B", 64: "64 B", 4096: "4 KiB", 65536: "64 KiB", 1 << 20: "1 MiB", 16 << 20: "16 MiB",
}
STARTING_GOALS = {64: 1.20, 4096: 1.10, 65536: 1.10, 1 << 20: 1.05, 16 << 20: 1.05}
COPY_COUNTS_FROM = 4096  # below, a copy of the body costs nothing beside the rest
KEPT = ("process",)  # QUORVALEN_PYTHON_LIFETIME
PYBIND_GOAL_MINORS = (11, 12, 13)


def _starting():
    for size, name in SIZES.items():
        floor = ["floor/starting/%d" % size]
        label = name + " against the same calls by hand"
        if size >= COPY_COUNTS_FROM:
            floor.append("copy/starting/%d" % size)
            label += " and one copy"
        yield row("Receiver, starting thread", label, "bridge/starting/%d" % size, *floor,
                  goal=STARTING_GOALS.get(size), beside="pybind11/starting/%d" % size)


def _others():
    section = "Receiver, other threads"
    for size, name in SIZES.items():
        yield row(section, name + " against the same calls by hand", "bridge/other/%d" % size,
                  "floor/other/%d" % size, beside="pybind11/other/%d" % size)
    yield row(section, "64 B against the starting thread", "bridge/other/64",
              "bridge/starting/64", goal=1.15, lifetimes=KEPT)
    yield row(section, "64 B, how many times faster than pybind11", "pybind11/other/64",
              "bridge/other/64", sense=">=", goal=15, minors=PYBIND_GOAL_MINORS, lifetimes=KEPT)
    for threads in (2, 4, 8):
        goal = 0.9 if threads == 8 else None
        yield row(section, "64 B, commands per second of %d threads against 1" % threads,
                  "bridge/others:1/64", "bridge/others:%d/64" % threads, sense=">=", goal=goal,
                  lifetimes=KEPT)
    yield row(section, "64 B beside a slow command of another thread, against none",
              "bridge/others:1+slow/64", "bridge/others:1/64", lifetimes=KEPT)
    yield row(section, "64 B, 8 threads, against the same calls by hand", "bridge/others:8/64",
              "floor/others:8/64", beside="pybind11/others:8/64")


def _routing():
    section = "Routing in memory"
    yield row(section, "64 B, time over the direct call", "routed/64", "direct/64",
              how="difference", goal=80)
    yield row(section, "64 B, allocations per command", "routed/64/allocations", how="value",
              goal=0, unit="")


REMOTE_GOALS = (
    ("TCP", "client-tcp", "tcp", "a bare socket", 1.3),
    ("TCP", "client-tcp", "zeromq", "ZeroMQ REQ/REP", 0.8),
    ("TCP", "client-tcp", "grpc", "gRPC unary", 0.4),
    ("TLS", "client-tls", "tls", "bare OpenSSL", None),
    ("TLS", "client-tls", "grpc-tls", "gRPC unary with TLS", 0.5),
)


def _remote():
    for size in (64, 65536):
        for protocol, client, other, name, goal in REMOTE_GOALS:
            label = "%s, %s against %s" % (protocol, SIZES[size], name)
            yield row("Remote, loopback", label, "%s/%d" % (client, size), "%s/%d" % (other, size),
                      goal=goal if size == 64 else None)


def _process():
    yield row("Start", "first library to first response, against bare Python", "start/bridge",
              "start/bare", goal=1.05)
    section = "Memory"
    for name, label in (("one-thread", "a million commands on one thread"),
                        ("ending-threads", "1,000 threads of ten commands")):
        yield row(section, label + ", growth of every second half", "memory/" + name,
                  how="smallest", goal=0, unit="B")
    yield row(section, "64 B, allocations per command beside those of the calls by hand",
              "allocations/bridge", "allocations/floor", how="difference", unit="")
    section = "Instructions inside the bridge"
    yield row(section, "64 B to Python", "instructions/received", how="value", goal=600, unit="")
    yield row(section, "64 B routed in memory", "instructions/routed", how="value", unit="")


ROWS = (*_starting(), *_others(), *_routing(), *_remote(), *_process())
