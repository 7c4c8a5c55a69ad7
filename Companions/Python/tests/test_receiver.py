"""The receiver side: whole responses to whole commands."""

import gc
import json
import os
import sys
import tempfile
import threading
import unittest
import weakref

import support
import sample
from support import EXCEPTION_HEADER, HEADER, VALUE_HEADER, send

from quorvalen.core import values
from quorvalen.core.receiver import failures, handles, operations
from quorvalen.core.receiver.Receiver import Receiver


def call(name, *arguments, **keywords):
    return send({"operation": "call", "name": name, "arguments": arguments, "keywords": keywords})


class ReceiverTest(unittest.TestCase):
    maxDiff = None

    def assert_value(self, expected, response):
        self.assertEqual((VALUE_HEADER, {"value": expected}), response)

    def assert_handle(self, kind, response):
        self.assertEqual(VALUE_HEADER, response[0])
        handle = response[1]["value"]["$handle"]
        self.assertEqual({"value": {"$handle": handle, "type": kind}}, response[1])
        return handle

    def assert_exception(self, kind, message, response):
        self.assertEqual((EXCEPTION_HEADER, kind, message), (response[0], response[1]["type"], response[1]["message"]))
        self.assertEqual({"type", "message", "traceback"}, set(response[1]))
        return response[1]["traceback"]

    def assert_malformed(self, message, body):
        self.assert_exception("quorvalen.core.command.MalformedCommand", message, send(body))


class OperationsTest(ReceiverTest):
    def test_call_by_name_answers_with_the_exact_bytes(self):
        command = HEADER + b'{"operation":"call","name":"sample.echo","arguments":[1,"\xc3\xa9"],"keywords":{"k":null}}'
        self.assertEqual(
            bytearray(VALUE_HEADER + b'{"value":[[1,"\xc3\xa9"],{"k":null}]}'), Receiver.send_command(command)
        )

    def test_call_of_a_built_in_function(self):
        self.assert_value(3, call("abs", -3))

    def test_call_without_arguments(self):
        self.assert_value([[], {}], send({"operation": "call", "name": "sample.echo"}))

    def test_name_goes_through_modules_and_classes(self):
        self.assert_value("a/b", call("os.path.join", "a", "b"))
        self.assert_handle("sample.Point.Inner", call("sample.Point.Inner"))

    def test_module_that_appears_later_is_seen(self):
        with tempfile.TemporaryDirectory() as folder:
            sys.path.insert(0, folder)
            self.addCleanup(sys.path.remove, folder)
            os.mkdir(os.path.join(folder, "late_package"))
            open(os.path.join(folder, "late_package", "__init__.py"), "w").close()
            self.assert_exception(
                "builtins.AttributeError",
                "module 'late_package' has no attribute 'late'",
                send({"operation": "get", "name": "late_package.late.value"}),
            )
            with open(os.path.join(folder, "late_package", "late.py"), "w") as module:
                module.write("value = 5\n")
            __import__("importlib").invalidate_caches()
            self.assert_value(5, send({"operation": "get", "name": "late_package.late.value"}))

    def test_a_name_that_was_found_is_not_looked_for_on_disk_again(self):
        class Finder:
            asked = []

            @classmethod
            def find_spec(cls, name, path=None, target=None):
                cls.asked.append(name)

        sys.meta_path.insert(0, Finder)
        self.addCleanup(sys.meta_path.remove, Finder)
        self.assert_value(None, send({"operation": "set", "name": "unittest.mood", "value": 1}))
        for _ in range(3):
            self.assert_value(1, send({"operation": "get", "name": "unittest.mood"}))
        self.assertEqual(["unittest.mood"], Finder.asked)

    def test_error_inside_an_imported_module_is_the_users_to_see(self):
        with tempfile.TemporaryDirectory() as folder:
            sys.path.insert(0, folder)
            self.addCleanup(sys.path.remove, folder)
            os.mkdir(os.path.join(folder, "broken_package"))
            open(os.path.join(folder, "broken_package", "__init__.py"), "w").close()
            path = os.path.join(folder, "broken_package", "broken.py")
            with open(path, "w") as module:
                module.write("import no_such_module_at_all\n")
            text = self.assert_exception(
                "builtins.ModuleNotFoundError", "No module named 'no_such_module_at_all'", call("broken_package.broken.f")
            )
            self.assertEqual(
                "Traceback (most recent call last):\n"
                '  File "{}", line 1, in <module>\n'
                "    import no_such_module_at_all\n"
                "ModuleNotFoundError: No module named 'no_such_module_at_all'\n".format(path),
                text,
            )

    def test_unknown_names(self):
        self.assert_exception("builtins.ModuleNotFoundError", "No module named 'nowhere'", call("nowhere.f"))
        self.assert_exception(
            "builtins.AttributeError",
            'there is no built-in function "nothing"; a function of a module is named "module.function"',
            call("nothing"),
        )
        self.assert_malformed('the name "a..b" is empty or has an empty part', {"operation": "get", "name": "a..b"})
        self.assert_malformed('the name "" is empty or has an empty part', {"operation": "call", "name": ""})

    def test_life_of_a_handle(self):
        handle = self.assert_handle(
            "sample.Point", send({"operation": "create", "name": "sample.Point", "arguments": [1], "keywords": {"y": 2}})
        )
        self.assert_value(3, send({"operation": "call", "handle": handle, "name": "total"}))
        self.assert_value(1, send({"operation": "get", "handle": handle, "name": "x"}))
        self.assert_value(None, send({"operation": "set", "handle": handle, "name": "x", "value": 40}))
        self.assert_value(42, send({"operation": "call", "handle": handle, "name": "total"}))
        self.assert_value("Point", send({"operation": "get", "handle": handle, "name": "__class__.__name__"}))
        self.assert_value(None, send({"operation": "release", "handle": handle}))
        gone = "there is no handle {}; it was never given out, or it was released".format(handle)
        for command in (
            {"operation": "release", "handle": handle},
            {"operation": "get", "handle": handle, "name": "x"},
            {"operation": "call", "name": "sample.identity", "arguments": [{"$handle": handle}]},
        ):
            self.assert_exception("quorvalen.core.receiver.handles.UnknownHandle", gone, send(command))
        again = self.assert_handle("sample.Point", call("sample.Point", 1))
        self.assertGreater(again, handle)

    def test_first_handle_of_an_interpreter_is_1(self):
        code = "import support; print(support.send({'operation': 'create', 'name': 'list'}))"
        expected = "({!r}, {{'value': {{'$handle': 1, 'type': 'builtins.list'}}}})\n".format(VALUE_HEADER)
        self.assertEqual((0, expected, ""), support.run_python(code))

    def test_release_lets_the_object_go(self):
        point = sample.Point(1)
        handle, watch = handles.keep(point), weakref.ref(point)
        del point
        self.assertIsNotNone(watch())
        send({"operation": "release", "handle": handle})
        gc.collect()
        self.assertIsNone(watch())

    def test_a_failed_command_keeps_nothing_alive(self):
        point = sample.Point(1)
        handle, watch = handles.keep(point), weakref.ref(point)
        del point
        send({"operation": "call", "name": "sample.fail", "arguments": [{"$handle": handle}]})
        handles.release(handle)
        gc.collect()
        self.assertIsNone(watch())

    def test_handles_as_arguments_at_any_depth(self):
        handle = handles.keep(sample.Point(1))
        self.addCleanup(handles.release, handle)
        body = '{"operation":"call","name":"sample.identity","arguments":[{"a":[{"%s":%d,"type":"ignored"}]}]}'
        for key in ("$handle", "\\u0024handle"):
            result = self.assert_handle("builtins.dict", send((body % (key, handle)).encode()))
            self.assertIs(handles.get(handle), handles.get(result)["a"][0])
            handles.release(result)

    def test_call_of_the_object_itself(self):
        handle = handles.keep(lambda value: value + 1)
        self.addCleanup(handles.release, handle)
        self.assert_value(8, send({"operation": "call", "handle": handle, "arguments": [7]}))

    def test_create_always_answers_with_a_handle(self):
        self.assert_handle("builtins.list", send({"operation": "create", "name": "list", "arguments": [[1]]}))

    def test_get_and_set_by_name(self):
        self.addCleanup(setattr, sample, "variable", 1)
        self.assert_value(None, send({"operation": "set", "name": "sample.variable", "value": [1, None]}))
        self.assert_value([1, None], send({"operation": "get", "name": "sample.variable"}))
        self.assert_value(None, send({"operation": "set", "name": "sample.Point.Inner.depth", "value": 3}))
        self.assert_value(3, send({"operation": "get", "name": "sample.Point.Inner.depth"}))

    def test_many_threads_share_the_handle_table(self):
        numbers = [[] for _ in range(8)]

        def work(own):
            for _ in range(300):
                own.append(send({"operation": "create", "name": "sample.Point", "arguments": [1]})[1]["value"]["$handle"])
                if len(own) % 3 == 0:
                    send({"operation": "release", "handle": own[-1]})

        interval = sys.getswitchinterval()
        self.addCleanup(sys.setswitchinterval, interval)
        sys.setswitchinterval(1e-6)
        threads = [threading.Thread(target=work, args=(own,)) for own in numbers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        given = [number for own in numbers for number in own]
        self.assertEqual(2400, len(set(given)))
        for own in numbers:
            for place, number in enumerate(own, 1):
                if place % 3:
                    handles.release(number)
                else:
                    self.assertRaises(handles.UnknownHandle, handles.get, number)


class MalformedTest(ReceiverTest):
    def test_bodies(self):
        for body, message in (
            (b"", "the body is not JSON: Expecting value: line 1 column 1 (char 0)"),
            (b"\xff{}", "the body is not UTF-8: byte 0xff at position 0 (invalid start byte)"),
            (b'{"a":1} x', "the body is not JSON: Extra data: line 1 column 9 (char 8)"),
            (b"[]", "the body must be one JSON object, not an array"),
            (b"1", "the body must be one JSON object, not a number"),
            (b'{"$handle":1}', "the body must be one JSON object, not a handle"),
            (b'{"a":1,"b":2,"a":3}', "an object has the member 'a' twice"),
            (b'{"a":{"$b":1}}',
             "an object has the member '$b'; of the keys that begin with $ there is only \"$handle\""),
            (b'{"a":NaN}', "NaN is no JSON number"),
            (b'{"a":-Infinity}', "-Infinity is no JSON number"),
            (b'{"a":1e999}', "the number 1e999 is too large for a floating-point number"),
            (b'{"a":{"$handle":true}}', '"$handle" must be an integer, not true or false'),
            (b'{"a":{"$handle":1.0}}', '"$handle" must be an integer, not a number'),
            (b'{"a":{"$handle":1,"b":2}}', "beside \"$handle\" only \"type\" may stand, not 'b'"),
            (b'{"a":' + b"[" * 100000 + b"]" * 100000 + b"}", "the body is nested too deeply"),
        ):
            self.assert_malformed(message, body)

    def test_members(self):
        known = "call, create, get, release, set"
        for body, message in (
            ({}, 'the member "operation" is missing; expected one of ' + known),
            ({"operation": "Call"}, "\"operation\" is 'Call'; expected one of " + known),
            ({"operation": 7}, '"operation" is a number; expected one of ' + known),
            ({"operation": ["call"]}, '"operation" is an array; expected one of ' + known),
            ({"operation": "call"}, 'the operation "call" needs the member "name" or "handle"'),
            ({"operation": "call", "name": "abs", "argument": [1]},
             "the operation \"call\" knows no member 'argument'; it knows name, handle, arguments, keywords"),
            ({"operation": "get", "name": "abs", "arguments": []},
             "the operation \"get\" knows no member 'arguments'; it knows name, handle"),
            ({"operation": "get", "handle": 1}, 'the operation "get" needs the member "name"'),
            ({"operation": "set", "name": "sample.variable"}, 'the operation "set" needs the member "value"'),
            ({"operation": "set", "name": "abs", "value": 1},
             'the operation "set" needs a "handle", or a dotted "name" like "module.attribute"'),
            ({"operation": "create", "name": "math.sqrt"},
             'the operation "create" needs a class; "math.sqrt" is none'),
            ({"operation": "create", "name": "list", "handle": 1},
             "the operation \"create\" knows no member 'handle'; it knows name, arguments, keywords"),
            ({"operation": "release"}, 'the operation "release" needs the member "handle"'),
            ({"operation": "release", "handle": "1"},
             'the member "handle" of the operation "release" must be an integer, not a string'),
            ({"operation": "release", "handle": True},
             'the member "handle" of the operation "release" must be an integer, not true or false'),
            ({"operation": "call", "name": None},
             'the member "name" of the operation "call" must be a string, not null'),
            ({"operation": "call", "name": "abs", "arguments": {"a": 1}},
             'the member "arguments" of the operation "call" must be an array, not an object'),
            ({"operation": "call", "name": "abs", "arguments": {"$handle": 1}},
             'the member "arguments" of the operation "call" must be an array, not a handle'),
            ({"operation": "call", "name": "abs", "keywords": [1]},
             'the member "keywords" of the operation "call" must be an object, not an array'),
            ({"operation": "call", "name": "sample.echo", "arguments": ["\ud800"]},
             "the text '\\ud800' holds a lone surrogate"),
            ({"operation": "call", "name": "sample.echo", "keywords": {"\ud800": 1}},
             "the text '\\ud800' holds a lone surrogate"),
        ):
            self.assert_malformed(message, body)

    def test_nothing_is_executed_when_a_handle_is_unknown(self):
        send({"operation": "set", "name": "sample.variable", "value": [{"$handle": 10 ** 9}]})
        self.assertEqual(1, sample.variable)

    def test_command_shorter_than_a_header(self):
        response = Receiver.send_command(HEADER[:3])
        self.assertEqual(bytes((0, 0, 2, 0, 0, 0, 0, 0, 0, 5, 10)), bytes(response[:11]))
        self.assertEqual(
            {
                "type": "quorvalen.core.command.MalformedCommand",
                "message": "the command has 3 bytes; expected a header of 11 bytes and a body",
                "traceback": "quorvalen.core.command.MalformedCommand: "
                             "the command has 3 bytes; expected a header of 11 bytes and a body\n",
            },
            json.loads(response[11:].decode()),
        )

    def test_what_is_no_bytes_at_all(self):
        response = Receiver.send_command(None)
        self.assertIs(bytearray, type(response))
        self.assertEqual(bytes(10) + b"\x0a", bytes(response[:11]))


class ValuesTest(ReceiverTest):
    def test_plain_values_come_back_as_they_went(self):
        for value in (
            None, True, False, 0, -(2 ** 63), 2 ** 64 - 1, 0.1, -1e308, 5e-324, "", "\u0000\u2028\U0001f600\"\\", [], {},
            {"": [1, {"a b": None}], "\u00e9": 1.5}, [True, 1, 1.0],
        ):
            response = call("sample.identity", value)
            self.assert_value(value, response)
            self.assertEqual(repr(value), repr(response[1]["value"]))

    def test_tuples_become_arrays(self):
        handle = handles.keep((1, (2,)))
        self.addCleanup(handles.release, handle)
        self.assert_value([1, [2]], call("sample.identity", {"$handle": handle}))

    def test_integers_of_a_command_may_have_any_size(self):
        digits = "-" + "1234567890" * 1000
        handle = self.assert_handle(
            "builtins.int",
            send(b'{"operation":"call","name":"sample.identity","arguments":[' + digits.encode() + b"]}"),
        )
        expected = 0
        for digit in digits[1:]:
            expected = expected * 10 + int(digit)
        self.assertEqual(-expected, handles.get(handle))

    def test_whatever_json_would_change_stays_here(self):
        for kind, name in (
            ("subclass", "sample.Text"), ("nested subclass", "builtins.list"), ("nan", "builtins.list"),
            ("infinity", "builtins.float"), ("too large", "builtins.int"), ("too small", "builtins.list"),
            ("surrogate", "builtins.dict"), ("number key", "builtins.dict"), ("dollar key", "builtins.dict"),
            ("text subclass key", "builtins.dict"), ("bytes", "builtins.bytes"), ("set", "builtins.set"),
            ("cycle", "builtins.list"), ("shared", "builtins.list"), ("object", "builtins.list"),
        ):
            handles.release(self.assert_handle(name, call("sample.special", kind)))

    def test_100_levels_are_json_and_101_a_handle(self):
        self.assert_value(sample.nested(100), call("sample.nested", 100))
        self.assert_handle("builtins.list", call("sample.nested", 101))

    def test_a_shared_part_counts_with_the_levels_above_it(self):
        shared = sample.nested(60)
        self.assertTrue(values.encode([shared, [shared]]))
        deep = shared
        for _ in range(41):
            deep = [deep]
        self.assertRaises(values.NotPlain, values.encode, [shared, deep])
        self.assertRaises(values.NotPlain, values.encode, [deep, shared])

    def test_a_value_too_long_for_a_response_is_a_handle(self):
        self.addCleanup(setattr, operations, "_LARGEST_VALUE", operations._LARGEST_VALUE)
        operations._LARGEST_VALUE = 10
        self.assert_value("a" * 8, call("sample.identity", "a" * 8))
        self.assert_handle("builtins.str", call("sample.identity", "a" * 9))

    def test_type_of_a_handle_runs_no_code_of_the_class(self):
        self.assert_handle("sample.HostileClass", call("sample.HostileClass"))


class FailureTest(ReceiverTest):
    def test_exceptions_that_end_a_program_become_responses(self):
        for kind, name, message in (
            ("system-exit", "builtins.SystemExit", "3"),
            ("keyboard", "builtins.KeyboardInterrupt", ""),
            ("generator-exit", "builtins.GeneratorExit", "gone"),
            ("memory", "builtins.MemoryError", ""),
            ("hostile", "sample.Hostile", "(its text cannot be had: str() raised builtins.SystemExit)"),
            ("hostile-text", "sample.HostileText", "stubborn"),
            ("unreadable", "sample.Unreadable", "text"),
            ("surrogate", "builtins.ValueError", "lone \\ud800 here"),
        ):
            self.assert_exception(name, message, call("sample.fail", kind))
        self.assert_exception("builtins.SystemExit", "", call("sys.exit"))

    def test_traceback_begins_with_the_users_frames(self):
        lines = self.assert_exception("builtins.KeyError", "'no such mood'", call("sample.fail", "no such mood"))
        lines = [line for line in lines.splitlines() if not line.strip(" ^~") == ""]
        self.assertEqual("Traceback (most recent call last):", lines[0])
        self.assertRegex(lines[1], r'^  File ".*sample\.py", line \d+, in fail$')
        self.assertEqual("KeyError: 'no such mood'", lines[-1])
        self.assertEqual(1, sum(line.startswith("  File") for line in lines))

    def test_traceback_tells_the_cause(self):
        text = self.assert_exception("builtins.ValueError", "outer", call("sample.cause"))
        self.assertIn("KeyError: 'missing'\n\nThe above exception was the direct cause of the following", text)
        self.assertNotIn("Receiver.py", text)
        self.assertNotIn("operations.py", text)

    def test_failure_in_no_frame_of_the_users_shows_the_whole_traceback(self):
        text = self.assert_exception(
            "builtins.TypeError", "identity() missing 1 required positional argument: 'value'", call("sample.identity")
        )
        lines = text.splitlines()
        self.assertEqual("Traceback (most recent call last):", lines[0])
        self.assertIn("operations.py", text)
        self.assertEqual("TypeError: identity() missing 1 required positional argument: 'value'", lines[-1])

    def test_endless_recursion(self):
        text = self.assert_exception(
            "builtins.RecursionError", "maximum recursion depth exceeded", call("sample.recurse")
        )
        self.assertIn("in recurse\n", text)

    def test_answer_when_hardly_any_stack_is_left(self):
        command = HEADER + b'{"operation":"call","name":"sample.recurse"}'
        outcomes = set()

        def descend(levels):
            if levels:
                return descend(levels - 1)
            try:
                response = Receiver.send_command(command)
            except RecursionError as error:
                # The call itself did not fit any more: no frame of send_command exists.
                self.assertIsNone(error.__traceback__.tb_next)
                return outcomes.add("no room")
            self.assertIs(bytearray, type(response))
            self.assertEqual(10, response[10])
            return outcomes.add("last resort" if response == failures.LAST_RESORT else "report")

        deepest = sys.getrecursionlimit()
        for levels in range(deepest - 400, deepest):
            try:
                descend(levels)
            except RecursionError:
                break
        # Up to 3.8 Python grants fifty levels more after a RecursionError, and the report finds room in them.
        expected = {"report", "last resort"} if sys.version_info >= (3, 9) else {"report"}
        self.assertEqual(expected, outcomes - {"no room"})

    def test_answer_when_the_report_itself_fails(self):
        def fail(error):
            raise MemoryError

        self.addCleanup(setattr, failures, "_traceback", failures._traceback)
        failures._traceback = fail
        self.assertEqual(failures.LAST_RESORT, Receiver.send_command(HEADER))
        self.assertEqual(failures.LAST_RESORT, Receiver.heart_beat(b""))

    def test_a_report_too_long_for_a_response(self):
        self.addCleanup(setattr, failures, "MAXIMUM_LENGTH", failures.MAXIMUM_LENGTH)
        failures.MAXIMUM_LENGTH = 10
        self.assertEqual(failures.LAST_RESORT, Receiver.send_command(HEADER))
        self.assertEqual("builtins.RuntimeError", json.loads(failures.LAST_RESORT[11:].decode())["type"])

    def test_each_last_resort_is_a_copy(self):
        self.addCleanup(setattr, failures, "MAXIMUM_LENGTH", failures.MAXIMUM_LENGTH)
        failures.MAXIMUM_LENGTH = 10
        self.assertIsNot(Receiver.send_command(HEADER), Receiver.send_command(HEADER))


class HeartBeatTest(unittest.TestCase):
    def test_answer_is_the_message_with_sender_and_target_exchanged(self):
        self.assertEqual(
            bytearray((8, 0, 0, 1, 2, 3, 4, 5, 6, 5, 11)) + b"12",
            Receiver.heart_beat(bytes((5, 7, 0, 1, 2, 3, 4, 5, 6, 8, 11)) + b"12"),
        )

    def test_body_may_be_anything(self):
        self.assertEqual(b"\xff\x00{", Receiver.heart_beat(bytes(10) + b"\x0b\xff\x00{")[11:])

    def test_too_short(self):
        response = Receiver.heart_beat(b"\x05")
        self.assertIs(bytearray, type(response))
        self.assertEqual(bytes((0,) * 9 + (5, 10)), bytes(response[:11]))
        self.assertEqual(
            "the command has 1 bytes; expected a header of 11 bytes and a body",
            json.loads(response[11:].decode())["message"],
        )


class RuntimeInfoTest(unittest.TestCase):
    def test_one_fact_a_line(self):
        self.addCleanup(setattr, sys, "path", sys.path)
        sys.path = ["/first", "/lone\udc80"]
        self.assertEqual(
            "Python Version: {}\nPython Executable: {}\nPython Prefix: {}\n"
            "Module Search Path: /first\nModule Search Path: /lone\\udc80".format(
                sys.version.replace("\n", " "), sys.executable, sys.prefix
            ),
            Receiver.get_runtime_info(),
        )


class ImportTest(unittest.TestCase):
    def test_receiving_needs_neither_threading_nor_ctypes(self):
        code = (
            "import sys; before = set(sys.modules)\n"
            "import quorvalen.core.receiver.Receiver\n"
            "print({'threading', 'ctypes', 'socket'} & (set(sys.modules) - before))"
        )
        self.assertEqual((0, "set()\n", ""), support.run_python(code))


if __name__ == "__main__":
    unittest.main()
