"""What the calling processes of these tests do. Arguments are texts; results are printed, a line each."""

import json
import sys
import time

import quorvalen


def call(kind, address, function, *arguments):
    """One call; prints the result as JSON, or the whole text of the error."""
    remote = quorvalen.connect("Python", address, tls=kind == "tls")
    report(lambda: remote.call(function, *map(json.loads, arguments)))


def call_twice(kind, address, function, *arguments):
    """Two calls of the same process, the second when a line has come on standard input."""
    remote = quorvalen.connect("Python", address, tls=kind == "tls")
    for _ in range(2):
        report(lambda: remote.call(function, *map(json.loads, arguments)))
        sys.stdout.flush()
        sys.stdin.readline()


def use_an_object(kind, address):
    remote = quorvalen.connect("Python", address, tls=kind == "tls")
    with remote.create("served.Counter", 40) as counter:
        print(counter.call("add", 1), counter.call("add", 1), counter.type_name)


def call_for(seconds, address, path, name):
    """Calls as fast as it can; prints for each command the process that executed it, or the error's text."""
    remote = quorvalen.connect("Python", address)
    end = time.time() + float(seconds)
    print("begun")
    sys.stdout.flush()
    outcomes = []
    while time.time() < end:
        line = "{} {}".format(name, len(outcomes))
        try:
            outcomes.append([line, remote.call("served.append", path, line)])
        except quorvalen.BridgeError as error:
            outcomes.append([line, error.text])
    # Only now: a full pipe would hold up the calls.
    for outcome in outcomes:
        print(json.dumps(outcome))


def report(command):
    try:
        print(json.dumps(command()))
    except (quorvalen.BridgeError, quorvalen.RemoteError) as error:
        print(error)
