"""The eleven header bytes of commands and responses, and the errors that the command format knows.

Used by both sides. The native bridge reads the header and nothing behind it; Docs/command-format.md tells what each
byte means. Everything here is constant or pure, so any thread may use it.
"""

HEADER_LENGTH = 11
MAXIMUM_LENGTH = 2 ** 31 - 1  # lengths cross the native boundary as signed 32-bit numbers

# A runtime's id is its place in this row.
RUNTIMES = ("Clr", "Go", "Jvm", "Netcore", "Perl", "Python", "Ruby", "Nodejs", "Cpp", "Php", "Python2")
PYTHON = RUNTIMES.index("Python")

IN_MEMORY, TCP, TLS = 0, 1, 2  # byte 2
COMMAND, VALUE, EXCEPTION, HEARTBEAT = 1, 2, 10, 11  # byte 10


class MalformedCommand(ValueError):
    """The bytes break the command format. The message says what is wrong and what was expected."""


class BridgeError(Exception):
    """The native bridge did not carry a command or its response.

    `status` is the negative number that the bridge returned (-2 SendCommand failed, -3 ReadResponse failed), or None
    when the failure was found on this side. `text` is the bridge's own text.
    """

    def __init__(self, text, status=None):
        Exception.__init__(self, text, status)
        self.text = text
        self.status = status

    def __str__(self):
        if self.status is None:
            return self.text
        return "{} (status {})".format(self.text, self.status)


class RemoteError(Exception):
    """The code in the other runtime raised: its `remote_type`, `remote_message` and `remote_traceback` are texts."""

    def __init__(self, remote_type, remote_message, remote_traceback):
        Exception.__init__(self, remote_type, remote_message, remote_traceback)
        self.remote_type = remote_type
        self.remote_message = remote_message
        self.remote_traceback = remote_traceback

    def __str__(self):
        text = "{}: {}".format(self.remote_type, self.remote_message)
        if not self.remote_traceback:
            return text
        return "{}\n\nTraceback of the other runtime:\n{}".format(text, self.remote_traceback.rstrip("\n"))


def request_header(runtime, version=0, connection=IN_MEMORY, address=(0, 0, 0, 0), port=0, kind=COMMAND):
    """Return the header of a message that this Python sends. `runtime` is an id, `address` four octets."""
    return bytearray(
        (runtime, version, connection) + tuple(address) + (port & 0xFF, port >> 8, PYTHON, kind)
    )


def response_header(command, kind):
    """Return the header that answers `command`; header bytes that the command lacks are read as 0."""
    header = bytearray(command[:HEADER_LENGTH])
    if len(header) < HEADER_LENGTH:
        header.extend(bytes(HEADER_LENGTH - len(header)))
    header[0], header[1], header[9], header[10] = header[9], 0, header[0], kind
    return header
