"""Python's end of the cross-language bridge.

Two sides share this package. `quorvalen.core.receiver` executes the commands that another runtime sends into this
interpreter; the native bridge imports it. `quorvalen.core.transmitter` sends commands to other runtimes; `connect` is
its door:

    import quorvalen
    cpp = quorvalen.connect("Cpp")
    print(cpp.call("add", 1, 2))
"""

from quorvalen.core.command import BridgeError, RemoteError

__all__ = ["BridgeError", "RemoteError", "connect"]


def connect(runtime, address=None, tls=False, version=0, library=None):
    """Return a connection to `runtime`; see `quorvalen.core.transmitter.connect`.

    The transmitter is imported here and not above: the native bridge imports this package only to receive, and must
    not need ctypes for that.
    """
    from quorvalen.core import transmitter

    return transmitter.connect(runtime, address, tls, version, library)
