"""What several test files need: commands written by hand, and the package's folder on the module path."""

import json
import os
import subprocess
import sys

PACKAGE_ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TESTS = os.path.dirname(os.path.abspath(__file__))

if PACKAGE_ROOT not in sys.path:
    sys.path.insert(0, PACKAGE_ROOT)
sys.dont_write_bytecode = True

# Target 5 (Python), version 3, TLS, 192.168.1.20:36895, sender 8 (C++), command; and what answers it.
HEADER = bytes((5, 3, 2, 192, 168, 1, 20, 0x1F, 0x90, 8, 1))
VALUE_HEADER = bytes((8, 0, 2, 192, 168, 1, 20, 0x1F, 0x90, 5, 2))
EXCEPTION_HEADER = VALUE_HEADER[:10] + b"\x0a"


def send(body):
    """Send a body (bytes, or members) to the receiver; return (header, decoded body)."""
    from quorvalen.core.receiver.Receiver import Receiver

    if not isinstance(body, bytes):
        body = json.dumps(body).encode()
    response = Receiver.send_command(HEADER + body)
    assert type(response) is bytearray, type(response)
    return bytes(response[:11]), json.loads(bytes(response[11:]).decode("utf-8"))


def run_python(code, **environment):
    """Run a program in a fresh interpreter of the same version; return (exit status, standard output, error output)."""
    # Without what this process has told the bridge about itself.
    inherited = {name: value for name, value in os.environ.items() if not name.startswith("QUORVALEN_PYTHON_")}
    variables = dict(inherited, PYTHONPATH=os.pathsep.join((PACKAGE_ROOT, TESTS)), PYTHONDONTWRITEBYTECODE="1")
    variables.update(environment)
    process = subprocess.Popen(
        [sys.executable, "-c", code],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        env=variables,
        universal_newlines=True,
    )
    output, errors = process.communicate(timeout=120)
    return process.returncode, output, errors


def skip(test, reason):
    """Skip a test and say why in the output of the run, also when only dots are shown."""
    print("\nnot run: {}: {}".format(test.id(), reason))
    test.skipTest(reason)
