"""The transmitter side against a library written in Python: whole messages, and the receiver at the other end."""

import ctypes
import gc
import os
import socket
import unittest

import support
import sample

from quorvalen import BridgeError, RemoteError
from quorvalen.core import values
from quorvalen.core.receiver import handles
from quorvalen.core.receiver.Receiver import Receiver
from quorvalen.core.transmitter import bridge, connection

MEMORY = bytes((8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 1))
ANSWER = bytes((5, 0, 0, 0, 0, 0, 0, 0, 0, 8, 2))


class FakeLibrary:
    """Answers with `response` (bytes), or lets the receiver of this process answer."""

    def __init__(self, response=None):
        self.response = response
        self.messages = []
        self.first_bytes = []
        self.send_status = self.read_status = 0
        self.error = b"native text \xff"
        self.before_answer = None

    def SendCommand(self, pointer, length):
        message = ctypes.string_at(ctypes.addressof(pointer._obj), length)
        self.messages.append(message)
        if self.before_answer:
            self.before_answer()
        if self.send_status:
            return self.send_status
        self._waiting = Receiver.send_command(message) if self.response is None else self.response
        return len(self._waiting)

    def ReadResponse(self, pointer, length):
        address = ctypes.addressof(pointer._obj)
        self.first_bytes.append(ctypes.string_at(address, 1)[0])
        ctypes.memmove(address, bytes(self._waiting), length)
        return self.read_status

    def GetNativeError(self):
        return self.error


def connect(library, *target):
    target = target or ("Cpp",)
    return connection.Connection(bridge.Bridge(library), connection._header(*(target + (None, False, 0)[len(target) - 1:])))


class MessageTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.library = FakeLibrary(ANSWER + b'{"value":null}')
        self.cpp = connect(self.library)

    def assert_sent(self, *bodies):
        self.assertEqual([MEMORY + body for body in bodies], self.library.messages)

    def test_call(self):
        self.assertIsNone(self.cpp.call("add", 1, -2.5, "\u00e9", [None, (True,)], {"a": 1}))
        self.assert_sent(
            b'{"operation":"call","name":"add","arguments":[1,-2.5,"\xc3\xa9",[null,[true]],{"a":1}]}'
        )
        self.assertEqual([8], self.library.first_bytes)

    def test_keywords_may_have_any_name(self):
        self.cpp.call("f", self=1, name=2)
        body = b'{"operation":"call","name":"f","arguments":[],"keywords":{"self":1,"name":2}}'
        self.assert_sent(body)

    def test_get_set_and_create(self):
        self.cpp.get("a.b")
        self.cpp.set("a.b", [1])
        self.cpp.create("A", 1, x=2)
        self.assert_sent(
            b'{"operation":"get","name":"a.b"}',
            b'{"operation":"set","name":"a.b","value":[1]}',
            b'{"operation":"create","name":"A","arguments":[1],"keywords":{"x":2}}',
        )

    def test_values_that_cannot_be_sent(self):
        for value, message in (
            ({1}, "an object of type builtins.set has no JSON form"),
            (2 ** 64, "an integer lies outside -2^63 to 2^64 - 1"),
            ("\udc80", "a text holds a lone surrogate, which UTF-8 has no bytes for"),
            ({"$a": 1}, "a key of an object is no string, or begins with $: '$a'"),
            (sample.special("cycle"), "the value contains itself"),
            (sample.special("shared"), "the value is too large for one message"),
            (sample.nested(101), "the value is nested more than 100 levels deep"),
        ):
            with self.assertRaises(values.NotPlain) as caught:
                self.cpp.call("f", value)
            self.assertEqual(message, str(caught.exception))
        self.assertRaises(values.NotPlain, self.cpp.set, "a.b", sample.nested(101))
        self.assertEqual([], self.library.messages)

    def test_100_levels_can_be_sent(self):
        deep = b"[" * 100 + b"]" * 100
        self.cpp.call("f", sample.nested(100))
        self.cpp.call("f", x=sample.nested(100))
        self.cpp.set("a.b", sample.nested(100))
        self.assert_sent(
            b'{"operation":"call","name":"f","arguments":[%s]}' % deep,
            b'{"operation":"call","name":"f","arguments":[],"keywords":{"x":%s}}' % deep,
            b'{"operation":"set","name":"a.b","value":%s}' % deep,
        )


class HeaderTest(unittest.TestCase):
    def test_headers(self):
        for target, header in (
            (("Clr",), (0, 0, 0, 0, 0, 0, 0, 0, 0, 5, 1)),
            (("Python2", None, False, 9), (10, 9, 0, 0, 0, 0, 0, 0, 0, 5, 1)),
            (("Python", "192.168.1.20:36895"), (5, 0, 1, 192, 168, 1, 20, 0x1F, 0x90, 5, 1)),
            (("Python", "localhost:80", True, 255), (5, 255, 2, 127, 0, 0, 1, 80, 0, 5, 1)),
        ):
            library = FakeLibrary(ANSWER + b'{"value":1}')
            connect(library, *target).get("a")
            self.assertEqual(bytes(header), library.messages[0][:11])

    def test_targets_that_are_refused(self):
        expected = "Clr, Go, Jvm, Netcore, Perl, Python, Ruby, Nodejs, Cpp, Php, Python2"
        address = 'the address must be "host:port" with a port from 1 to 65535, not {!r}'
        for target, message in (
            (("cpp",), "there is no runtime 'cpp'; expected one of " + expected),
            (("Cpp", None, True), "tls needs an address; a runtime in this process is reached in memory"),
            (("Cpp", None, False, 256), "the version must be an integer from 0 to 255, not 256"),
            (("Cpp", "host"), address.format("host")),
            (("Cpp", ":80"), address.format(":80")),
            (("Cpp", "host:0"), address.format("host:0")),
            (("Cpp", "host:65536"), address.format("host:65536")),
            (("Cpp", "host:x"), address.format("host:x")),
        ):
            with self.assertRaises(ValueError) as caught:
                connect(FakeLibrary(), *target)
            self.assertEqual(message, str(caught.exception))
        for host in ("::1", "[::1]"):
            with self.assertRaises(ValueError) as caught:
                connect(FakeLibrary(), "Cpp", host + ":80")
            self.assertRegex(str(caught.exception), "^the host {} has no IPv4 address: ".format(repr(host).replace("[", r"\[")))

    def test_address_is_looked_up_once(self):
        self.addCleanup(setattr, socket, "getaddrinfo", socket.getaddrinfo)
        asked = []

        def getaddrinfo(host, port, family, kind):
            asked.append((host, family))
            return [(family, kind, 6, "", ("10.0.0.7", 0))]

        socket.getaddrinfo = getaddrinfo
        library = FakeLibrary(ANSWER + b'{"value":1}')
        target = connect(library, "Ruby", "some.host:258")
        target.get("a"), target.get("b")
        self.assertEqual([("some.host", socket.AF_INET)], asked)
        self.assertEqual(bytes((6, 0, 1, 10, 0, 0, 7, 2, 1, 5, 1)), library.messages[1][:11])


class FailureTest(unittest.TestCase):
    maxDiff = None

    def assert_bridge_error(self, message, status, library):
        with self.assertRaises(BridgeError) as caught:
            connect(library).call("f")
        self.assertEqual((message, status), (str(caught.exception), caught.exception.status))

    def test_negative_status_brings_the_native_text(self):
        library = FakeLibrary(ANSWER)
        library.send_status = -2
        self.assert_bridge_error("native text \ufffd (status -2)", -2, library)
        self.assertEqual([], library.first_bytes)
        library = FakeLibrary(ANSWER)
        library.read_status = -3
        self.assert_bridge_error("native text \ufffd (status -3)", -3, library)

    def test_no_native_text(self):
        library = FakeLibrary(ANSWER)
        library.send_status, library.error = -2, None
        self.assert_bridge_error(" (status -2)", -2, library)

    def test_responses_that_break_the_format(self):
        short = "the response has {} bytes; expected a header of 11 bytes at least"
        wrong = "the response breaks the command format: "
        for response, message in (
            (b"", short.format(0)),
            (ANSWER[:10], short.format(10)),
            (ANSWER, wrong + "the body is not JSON: Expecting value: line 1 column 1 (char 0)"),
            (ANSWER + b"[]", wrong + "the body must be one JSON object, not an array"),
            (ANSWER + b"{}", wrong + 'the member "value" is missing'),
            (ANSWER[:10] + b"\x0a{}", wrong + 'the member "type" must be a string'),
            (ANSWER[:10] + b'\x0a{"type":"a","message":"b","traceback":1}',
             wrong + 'the member "traceback" must be a string'),
            (ANSWER[:10] + b'\x01{"value":1}', wrong + "the kind is 1; expected 2 or 10"),
        ):
            self.assert_bridge_error(message, None, FakeLibrary(response))

    def test_exception_of_the_other_side(self):
        library = FakeLibrary(ANSWER[:10] + b'\x0a{"type":"std::range_error","message":"too far","traceback":"a\\nb\\n"}')
        with self.assertRaises(RemoteError) as caught:
            connect(library).call("f")
        error = caught.exception
        self.assertEqual(
            ("std::range_error", "too far", "a\nb\n"), (error.remote_type, error.remote_message, error.remote_traceback)
        )
        self.assertEqual("std::range_error: too far\n\nTraceback of the other runtime:\na\nb", str(error))
        self.assertEqual("t: m", str(RemoteError("t", "m", "")))

    def test_after_a_failure_the_next_command_works(self):
        library = FakeLibrary(ANSWER + b'{"value":1}')
        cpp = connect(library)
        library.send_status = -2
        self.assertRaises(BridgeError, cpp.call, "f")
        library.send_status = 0
        self.assertEqual(1, cpp.call("f"))

    def test_a_command_between_another_command_and_its_response_is_refused(self):
        library = FakeLibrary(ANSWER + b'{"value":1}')
        cpp = connect(library)
        messages = []

        def intrude():
            with self.assertRaises(BridgeError) as caught:
                cpp.call("g")
            messages.append(str(caught.exception))

        library.before_answer = intrude
        self.assertEqual(1, cpp.call("f"))
        self.assertEqual(
            ["a command cannot be sent between another command of this thread and its response; "
             "do not send commands from a signal handler or a __del__ method"],
            messages,
        )
        self.assertEqual(1, len(library.messages))


class LoopTest(unittest.TestCase):
    """Transmitter and receiver joined: what one writes the other reads."""

    def setUp(self):
        self.library = FakeLibrary()
        self.python = connect(self.library, "Python")

    def test_remote_object(self):
        point = self.python.create("sample.Point", 1, y=2)
        self.assertEqual("sample.Point", point.type_name)
        self.assertEqual(3, point.call("total"))
        point.set("x", 40)
        self.assertEqual(40, point.get("x"))
        moved = point.call("moved", 1, dy=2)
        self.assertEqual((45, "<RemoteObject sample.Point {}>".format(moved._handle)), (moved.call("total"), repr(moved)))
        function = self.python.get("sample.echo")
        self.assertEqual([[1], {"self": 2}], function(1, self=2))
        held = self.python.call("sample.identity", [{"points": [point]}])
        self.assertIs(handles.get(point._handle), handles.get(held._handle)[0]["points"][0])

    def test_release(self):
        for release in (lambda point: point.release(), self.python.release, lambda point: point.__exit__()):
            point = self.python.create("sample.Point", 1)
            handle = point._handle
            release(point)
            self.assertRaises(handles.UnknownHandle, handles.get, handle)
            count = len(self.library.messages)
            point.release()
            self.assertEqual(count, len(self.library.messages))
            with self.assertRaises(ValueError) as caught:
                point.call("total")
            self.assertEqual("<RemoteObject sample.Point None> was released", str(caught.exception))

    def test_context_manager(self):
        with self.python.create("sample.Point", 1) as point:
            handle = point._handle
            self.assertEqual(1, point.call("total"))
        self.assertRaises(handles.UnknownHandle, handles.get, handle)

    def test_dropped_objects_are_released_with_the_next_command(self):
        numbers = [self.python.create("sample.Point", 1)._handle for _ in range(1)]
        gc.collect()
        self.assertIsNotNone(handles.get(numbers[0]))
        self.assertEqual(1, self.python.get("sample.variable"))
        self.assertRaises(handles.UnknownHandle, handles.get, numbers[0])
        self.assertEqual(
            [b'{"operation":"release","handle":%d}' % numbers[0], b'{"operation":"get","name":"sample.variable"}'],
            [message[11:] for message in self.library.messages[1:]],
        )

    def test_a_dropped_object_survives_a_broken_bridge(self):
        handle = self.python.create("sample.Point", 1)._handle
        gc.collect()
        self.library.send_status = -2
        self.assertRaises(BridgeError, self.python.get, "sample.variable")
        self.library.send_status = 0
        self.assertIsNotNone(handles.get(handle))
        self.assertEqual(1, self.python.get("sample.variable"))
        self.assertRaises(handles.UnknownHandle, handles.get, handle)

    def test_a_dropped_object_that_is_gone_already_does_not_matter(self):
        handles.release(self.python.create("sample.Point", 1)._handle)
        gc.collect()
        self.assertEqual(1, self.python.get("sample.variable"))
        self.assertEqual(4, len(self.library.messages) + 1)
        self.python.get("sample.variable")
        self.assertEqual(4, len(self.library.messages))

    def test_a_command_executed_here_may_send_commands(self):
        self.addCleanup(delattr, sample, "nest")
        sample.nest = lambda: [self.python.call("abs", -4), self.python.call("abs", -5)]
        self.assertEqual([4, 5], self.python.call("sample.nest"))

    def test_object_of_another_connection_is_refused(self):
        point = self.python.create("sample.Point", 1)
        other = connect(FakeLibrary(), "Python")
        for use in (lambda: other.call("sample.identity", [point]), lambda: other.release(point)):
            with self.assertRaises(ValueError) as caught:
                use()
            self.assertEqual("{!r} lives behind another connection".format(point), str(caught.exception))

    def test_half_made_object_is_dropped_quietly(self):
        code = (
            "from quorvalen.core.transmitter import RemoteObject\n"
            "RemoteObject.__new__(RemoteObject)\n"
            "keep = RemoteObject(None, 7, 'at the end of the process')\n"
        )
        self.assertEqual((0, "", ""), support.run_python(code))

    def test_remote_failure_shows_the_remote_traceback(self):
        with self.assertRaises(RemoteError) as caught:
            self.python.call("sample.cause")
        self.assertEqual("builtins.ValueError", caught.exception.remote_type)
        self.assertIn(os.path.join(support.TESTS, "sample.py"), str(caught.exception))


if __name__ == "__main__":
    unittest.main()
