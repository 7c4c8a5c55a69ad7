"""The module that the tests' commands name: functions and classes of every mood."""

import threading

variable = 1


class Point:
    def __init__(self, x, y=0):
        self.x = x
        self.y = y

    def moved(self, dx, dy=0):
        return Point(self.x + dx, self.y + dy)

    def total(self):
        return self.x + self.y

    class Inner:
        pass


class Text(str):
    pass


class Hostile(Exception):
    def __str__(self):
        raise SystemExit("no text")


class HostileText(Exception):
    def __str__(self):
        class Stubborn(str):
            def encode(self, *arguments):
                raise KeyboardInterrupt

        return Stubborn("stubborn")


class Unreadable(Exception):
    """Even its traceback cannot be formatted: the attribute that links causes is a trap."""

    @property
    def __cause__(self):
        raise GeneratorExit


class HostileMeta(type):
    def __getattribute__(cls, name):
        raise SystemExit(name)


HostileClass = HostileMeta("HostileClass", (), {"__module__": "sample"})


def echo(*arguments, **keywords):
    return [list(arguments), keywords]


def identity(value):
    return value


def fail(kind):
    raise {
        "system-exit": SystemExit(3),
        "keyboard": KeyboardInterrupt(),
        "generator-exit": GeneratorExit("gone"),
        "memory": MemoryError(),
        "hostile": Hostile(),
        "hostile-text": HostileText(),
        "unreadable": Unreadable("text"),
        "surrogate": ValueError("lone \ud800 here"),
    }[kind]


def recurse():
    return recurse()


def cause():
    try:
        {}["missing"]
    except KeyError as error:
        raise ValueError("outer") from error


def special(kind):
    cyclic = []
    cyclic.append(cyclic)
    shared = []
    for _ in range(60):
        shared = [shared, shared]
    return {
        "subclass": Text("a"),
        "nested subclass": [Text("a")],
        "nan": [float("nan")],
        "infinity": float("inf"),
        "too large": 2 ** 64,
        "too small": [-(2 ** 63) - 1],
        "surrogate": {"a": "\udc80"},
        "number key": {1: 2},
        "dollar key": {"$a": 1},
        "text subclass key": {Text("a"): 1},
        "bytes": b"a",
        "set": {1},
        "cycle": cyclic,
        "shared": shared,
        "object": [Point(1)],
    }[kind]


def nested(levels):
    value = []
    for _ in range(levels - 1):
        value = [value]
    return value


def thread_name():
    return threading.current_thread().name
