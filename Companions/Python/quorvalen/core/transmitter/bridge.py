"""One command and its response through the native bridge's exported functions.

One `Bridge` exists per process, like the native transmitter behind it. Any thread may call it; commands take turns.
"""

import sys
from _thread import RLock  # the class behind threading.RLock, without what importing `threading` brings along
from ctypes import byref, c_ubyte

from quorvalen.core.command import (
    HEADER_LENGTH,
    HEARTBEAT,
    IN_MEMORY,
    MAXIMUM_LENGTH,
    PYTHON,
    BridgeError,
    request_header,
)
from quorvalen.core.receiver.Receiver import Receiver

# Code objects between which a nested command may stand; `library` adds the callback's.
serving_codes = {Receiver.send_command.__code__}


class Bridge:
    """Carries messages through `library`, an object with the exported functions of the native bridge.

    The native transmitter has one current channel: the one of the latest command, and ReadResponse reads from it. So a
    command and the read of its response stay together under one lock. While a command is under way, the runtime that
    executes it may call back into this Python, and the callback may send commands of its own: on the same thread, hence
    the lock is re-entrant. A callback that arrives on another thread waits for the lock until the outer command is
    done; if that command in turn waits for the callback's thread, both wait for ever.
    """

    def __init__(self, library):
        self._library = library
        self._lock = RLock()
        # Under the lock: the commands under way, outermost first, and the channel that the native side is on.
        self._open = []
        self._current = None

    def exchange(self, message):
        """Send `message` (a bytearray with a header) and return the response (bytes). Raises BridgeError."""
        if len(message) > MAXIMUM_LENGTH:
            raise BridgeError("the command has {} bytes; at most {} can be sent".format(len(message), MAXIMUM_LENGTH))
        channel = _channel(message)
        with self._lock:
            self._check_nesting(channel)
            self._open.append(message)
            try:
                length = self._send(message)
                if self._current != channel:
                    self._select_memory_again()
                return self._read(message[0], length)
            finally:
                self._open.pop()

    def configure(self, function, text):
        """Call SetConfigSource or SetWorkingDirectory with `text` (bytes). Raises BridgeError when it is refused."""
        status = getattr(self._library, function)(text)
        if status < 0:
            raise BridgeError("{}({!r}) was refused by the configuration library".format(function, text), status)

    def _check_nesting(self, channel):
        if not self._open:
            return
        if not _inside_a_callback():
            raise BridgeError(
                "a command cannot be sent between another command of this thread and its response; "
                "do not send commands from a signal handler or a __del__ method"
            )
        enclosing = self._open[-1]
        if _channel(enclosing) == channel:
            return
        # After this command the native side would be on its channel. There is no way back to a network channel, and
        # the way back to the in-memory one goes over this Python's receiver, where no other response may wait then.
        if _channel(enclosing) != IN_MEMORY:
            raise BridgeError("a command sent while a network command is under way must go to the same address")
        if enclosing[0] == PYTHON:
            raise BridgeError(
                "a command sent while this Python executes a command of its own must go to a runtime in this process"
            )

    def _send(self, message):
        self._current = _channel(message)
        status = self._library.SendCommand(byref(c_ubyte.from_buffer(message)), len(message))
        if status < 0:
            raise BridgeError(self._error_text(), status)
        return status

    def _read(self, runtime, length):
        if length < HEADER_LENGTH:
            raise BridgeError(
                "the response has {} bytes; expected a header of {} bytes at least".format(length, HEADER_LENGTH)
            )
        response = bytearray(length)
        response[0] = runtime  # the in-memory channel finds the receiver to read from by this byte
        status = self._library.ReadResponse(byref(c_ubyte.from_buffer(response)), length)
        if status < 0:
            raise BridgeError(self._error_text(), status)
        return bytes(response)

    def _select_memory_again(self):
        """Make the in-memory channel current after a nested command went over the network.

        Any in-memory command does that, whether it succeeds or not. A heartbeat to this very runtime leaves the
        response alone that waits in another runtime's receiver. Its own is read so that it does not wait for ever.
        """
        heartbeat = request_header(PYTHON, kind=HEARTBEAT)
        try:
            self._read(PYTHON, self._send(heartbeat))
        except BridgeError:
            pass

    def _error_text(self):
        return (self._library.GetNativeError() or b"").decode("utf-8", "replace")


def _channel(message):
    """Return what tells the native side's channels apart: one in memory, one for each address with its port.

    By design of the native side the kind of connection (TCP or TLS) is no part of it.
    """
    return IN_MEMORY if message[2] == IN_MEMORY else bytes(message[3:9])


def _inside_a_callback():
    """Tell whether the caller was called back by the command under way, by a look at this thread's frames."""
    exchange = Bridge.exchange.__code__
    frame = sys._getframe(3)  # behind this function, _check_nesting and the new exchange
    while frame is not None and frame.f_code is not exchange:
        if frame.f_code in serving_codes:
            return True
        frame = frame.f_back
    return False
