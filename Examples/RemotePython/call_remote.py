"""Calls a Python function in another process, over TCP or TLS.

    call_remote.py [--tls] HOST:PORT FUNCTION [ARGUMENT...]

An argument is JSON where it can be, and a text otherwise. For TLS the environment names the certificates; see
Docs/network.md.
"""

import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "Binaries", "Python"))

import quorvalen  # noqa: E402  (found through the line above)


def argument(text):
    try:
        return json.loads(text)
    except ValueError:
        return text


def main(arguments):
    tls = arguments[:1] == ["--tls"]
    address, function, *texts = arguments[tls:]
    remote = quorvalen.connect("Python", address, tls=tls)
    print(remote.call(function, *map(argument, texts)))


if __name__ == "__main__":
    if len(sys.argv) < 3 + (sys.argv[1:2] == ["--tls"]):
        sys.exit(__doc__.strip())
    try:
        main(sys.argv[1:])
    except (quorvalen.BridgeError, quorvalen.RemoteError) as error:
        sys.exit(str(error))
