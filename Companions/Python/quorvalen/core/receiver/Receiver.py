"""The class whose functions the native bridge calls. It looks up this module and the class `Receiver` by name.

Any host thread may call, many at once. `send_command` and `heart_beat` answer with a bytearray whatever happens: an
exception that left them would make the bridge restart the interpreter, and every object that other runtimes hold
would be gone.
"""

import sys

from quorvalen.core import values
from quorvalen.core.command import HEADER_LENGTH, HEARTBEAT, VALUE, MalformedCommand, response_header
from quorvalen.core.receiver import hooks, operations
from quorvalen.core.receiver.failures import LAST_RESORT, exception_response


class Receiver:
    """What the native bridge binds: plain functions, no instances."""

    @staticmethod
    def send_command(command):
        """Execute one command (bytes) and return the response (bytearray). Never raises."""
        try:
            if len(command) < HEADER_LENGTH:
                raise _too_short(command)
            response = response_header(command, VALUE)
            response += operations.execute(command[HEADER_LENGTH:])
            return response
        except BaseException as error:  # SystemExit of a command must not end the host
            try:
                return exception_response(command, error)
            except BaseException:
                return LAST_RESORT[:]

    @staticmethod
    def heart_beat(command):
        """Return a heartbeat (bytes) with sender and target exchanged, as a bytearray. Never raises."""
        try:
            if len(command) < HEADER_LENGTH:
                raise _too_short(command)
            return response_header(command, command[HEADER_LENGTH - 1]) + command[HEADER_LENGTH:]
        except BaseException as error:
            try:
                return exception_response(command, error)
            except BaseException:
                return LAST_RESORT[:]

    @staticmethod
    def initialize_exception_handler():
        """Have errors that nobody catches reported on sys.stderr. Called once per start, may be called again."""
        hooks.install()

    @staticmethod
    def get_runtime_info():
        """Return what the bridge appends to its own failures: one fact a line."""
        facts = [
            "Python Version: {}".format(sys.version.replace("\n", " ")),
            "Python Executable: {}".format(sys.executable),
            "Python Prefix: {}".format(sys.prefix),
        ]
        facts.extend("Module Search Path: {}".format(entry) for entry in sys.path)
        return values.readable("\n".join(facts))


def answer(message):
    """Return the response to a message of either kind, for callers that do not choose the function themselves."""
    if message[HEADER_LENGTH - 1:HEADER_LENGTH] == bytes((HEARTBEAT,)):
        return Receiver.heart_beat(message)
    return Receiver.send_command(message)


def _too_short(command):
    return MalformedCommand(
        "the command has {} bytes; expected a header of {} bytes and a body".format(len(command), HEADER_LENGTH)
    )

