"""What a user of the transmitter holds: a connection to a runtime, and the objects that live there."""

from collections import deque

from quorvalen.core import values
from quorvalen.core.command import (
    EXCEPTION,
    HEADER_LENGTH,
    IN_MEMORY,
    RUNTIMES,
    TCP,
    TLS,
    VALUE,
    BridgeError,
    MalformedCommand,
    RemoteError,
    request_header,
)
from quorvalen.core.transmitter.library import open_bridge


def connect(runtime, address=None, tls=False, version=0, library=None):
    """Return a Connection to `runtime` (one of quorvalen.core.command.RUNTIMES).

    Without `address` the runtime is one in this process; with "host:port" it is reached over TCP, or over TLS when
    `tls` is true. `version` is the number of a particular version of the runtime, 0 for none. `library` is the file of
    the bridge library, when it is not where it is installed. Nothing is sent before the first command.
    """
    return Connection(open_bridge(library), _header(runtime, address, tls, version))


def _header(runtime, address, tls, version):
    if runtime not in RUNTIMES:
        raise ValueError("there is no runtime {!r}; expected one of {}".format(runtime, ", ".join(RUNTIMES)))
    if type(version) is not int or not 0 <= version <= 255:
        raise ValueError("the version must be an integer from 0 to 255, not {!r}".format(version))
    number = RUNTIMES.index(runtime)
    if address is None:
        if tls:
            raise ValueError("tls needs an address; a runtime in this process is reached in memory")
        return request_header(number, version, IN_MEMORY)
    octets, port = _parse_address(address)
    return request_header(number, version, TLS if tls else TCP, octets, port)


def _parse_address(address):
    import socket  # for network targets only

    host, colon, port = address.rpartition(":")
    if not colon or not host or not (port.isdigit() and 0 < int(port) < 65536):
        raise ValueError('the address must be "host:port" with a port from 1 to 65535, not {!r}'.format(address))
    try:
        found = socket.getaddrinfo(host, None, socket.AF_INET, socket.SOCK_STREAM)
    except (OSError, UnicodeError) as error:
        raise ValueError("the host {!r} has no IPv4 address: {}".format(host, error)) from None
    return socket.inet_aton(found[0][4][0]), int(port)


class Connection:
    """One target runtime. Any thread may use it; see `Bridge` for what holds while a command is under way."""

    def __init__(self, bridge, header):
        self._bridge = bridge
        self._header = header
        # Handles of objects that were dropped without a release. A __del__ method may run in the middle of a command,
        # so they are only noted there (deque operations are indivisible) and released with the next command.
        self._dropped = deque()

    def call(*arguments, **keywords):
        """call(name, *arguments, **keywords): call a function and return its result.

        A result that has no JSON form comes back as a RemoteObject. Raises RemoteError when the function raises,
        BridgeError when command or response did not get through, and NotPlain for an argument that cannot be sent.
        """
        # No named parameters, so that the function called may have parameters named "self" and "name".
        self, name, *arguments = arguments
        return self._command(_call_members(arguments, keywords, operation="call", name=name))

    def create(*arguments, **keywords):
        """create(name, *arguments, **keywords): make an object of the class and return it as a RemoteObject."""
        self, name, *arguments = arguments
        return self._command(_call_members(arguments, keywords, operation="create", name=name))

    def get(self, name):
        """Return the value of the attribute or variable `name`."""
        return self._command({"operation": "get", "name": name})

    def set(self, name, value):
        """Give the attribute or variable `name` a value."""
        self._command({"operation": "set", "name": name, "value": value})

    def release(self, remote):
        """Let the other runtime forget an object of this connection; the same as `remote.release()`."""
        self._check_own(remote)
        remote.release()

    def _command(self, members):
        self._release_dropped()
        return self._exchange(members)

    def _release_dropped(self):
        while self._dropped:
            try:
                handle = self._dropped.popleft()
            except IndexError:
                return  # another thread was faster
            try:
                self._exchange({"operation": "release", "handle": handle})
            except RemoteError:
                pass  # the other runtime has forgotten it already
            except BridgeError:
                self._dropped.append(handle)
                return  # the command itself is about to meet the same trouble, and reports it

    def _exchange(self, members):
        response = self._bridge.exchange(self._header + self._body(members))
        try:
            return self._result(response)
        except MalformedCommand as error:
            raise BridgeError("the response breaks the command format: {}".format(error)) from None

    def _body(self, members):
        parts = []
        for member, value in members.items():
            # The array or object around the arguments is not part of any value.
            levels = values.MAXIMUM_LEVELS + (member in ("arguments", "keywords"))
            parts.append(b'"%s":%s' % (member.encode("ascii"), values.encode(value, self._handle_of, levels)))
        return b"{%s}" % b",".join(parts)

    def _result(self, response):
        kind = response[HEADER_LENGTH - 1]
        if kind not in (VALUE, EXCEPTION):
            raise MalformedCommand("the kind is {}; expected {} or {}".format(kind, VALUE, EXCEPTION))
        members, _ = values.decode(response[HEADER_LENGTH:])
        if kind == EXCEPTION:
            raise RemoteError(*(_text(members, member) for member in ("type", "message", "traceback")))
        if "value" not in members:
            raise MalformedCommand('the member "value" is missing')
        return values.resolve(members["value"], self._adopt)

    def _adopt(self, reference):
        return RemoteObject(self, reference.handle, reference.type_name)

    def _handle_of(self, value):
        if not isinstance(value, RemoteObject):
            return None
        self._check_own(value)
        return value._living_handle()

    def _check_own(self, remote):
        if remote._connection is not self:
            raise ValueError("{!r} lives behind another connection".format(remote))


def _text(members, member):
    text = members.get(member)
    if type(text) is not str:
        raise MalformedCommand('the member "{}" must be a string'.format(member))
    return text


def _call_members(arguments, keywords, **members):
    members["arguments"] = arguments
    if keywords:
        members["keywords"] = keywords
    return members


class RemoteObject:
    """An object that lives in another runtime. It stays alive there until this is released or dropped."""

    def __init__(self, connection, handle, type_name):
        self._connection = connection
        self._handle = handle
        self.type_name = type_name

    def call(*arguments, **keywords):
        """call(name, *arguments, **keywords): call a method."""
        self, name, *arguments = arguments
        return self._connection._command(
            _call_members(arguments, keywords, operation="call", handle=self._living_handle(), name=name)
        )

    def __call__(*arguments, **keywords):
        self, *arguments = arguments
        return self._connection._command(
            _call_members(arguments, keywords, operation="call", handle=self._living_handle())
        )

    def get(self, name):
        """Return the value of an attribute."""
        return self._connection._command({"operation": "get", "handle": self._living_handle(), "name": name})

    def set(self, name, value):
        """Give an attribute a value."""
        self._connection._command(
            {"operation": "set", "handle": self._living_handle(), "name": name, "value": value}
        )

    def release(self):
        """Let the other runtime forget the object now. Releasing again does nothing."""
        handle, self._handle = self._handle, None
        if handle is not None:
            self._connection._command({"operation": "release", "handle": handle})

    def _living_handle(self):
        if self._handle is None:
            raise ValueError("{!r} was released".format(self))
        return self._handle

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.release()

    def __del__(self):
        # Only notes the handle: sending from here could meet a command of the same thread halfway.
        try:
            if self._handle is not None:
                self._connection._dropped.append(self._handle)
        except Exception:
            pass  # __init__ did not get so far, or Python is shutting down

    def __repr__(self):
        return "<RemoteObject {} {}>".format(self.type_name or "of unknown type", self._handle)
