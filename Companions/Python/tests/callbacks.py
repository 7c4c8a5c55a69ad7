"""Functions that the fake bridge calls back into; the connections are set by the tests."""

import threading

import quorvalen

cpp = None
remote = None
other_remote = None


def deepest():
    return cpp.call("echo", "three deep")


def middle():
    return cpp.call("callback", "callbacks.deepest")


def over_network():
    return remote.call("echo", "network"), cpp.call("echo", "memory"), remote.call("echo", "network again")


def nested_over_network():
    return cpp.call("callback", "callbacks.over_network"), remote.call("echo", "last")


def to_another_address():
    try:
        return other_remote.call("echo", 1)
    except quorvalen.BridgeError as error:
        return str(error)


def leave():
    raise SystemExit("not today")


def thread_is_foreign():
    return isinstance(threading.current_thread(), threading._DummyThread)
