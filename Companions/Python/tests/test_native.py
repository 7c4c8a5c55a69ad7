"""The transmitter over ctypes, against a small native bridge that is compiled for the run."""

import ctypes
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import support
import callbacks

import quorvalen
from quorvalen.core.transmitter import library, set_callback, set_config_source, set_working_directory

_folder = None


def setUpModule():
    global _folder
    compiler = shutil.which("cc")
    if compiler is None:
        print("\nnot run: test_native needs a C compiler, and there is no cc")
        raise unittest.SkipTest("no C compiler")
    os.environ.pop(library.RUNTIME_VARIABLE, None)
    _folder = tempfile.mkdtemp()
    source = os.path.join(support.TESTS, "fake_bridge.c")
    subprocess.check_call([compiler, "-fPIC", "-shared", "-pthread", source, "-o", fake_bridge(), "-ldl"])
    callbacks.cpp = quorvalen.connect("Cpp", library=fake_bridge())
    callbacks.remote = quorvalen.connect("Python", "127.0.0.1:5000", tls=True)
    callbacks.other_remote = quorvalen.connect("Python", "127.0.0.1:5001")


def tearDownModule():
    os.environ.pop(library.RUNTIME_VARIABLE, None)
    shutil.rmtree(_folder)


def fake_bridge():
    return os.path.join(_folder, "fake_bridge.so")


def waiting_responses():
    return ctypes.CDLL(fake_bridge()).CountWaitingResponses()


class NativeTest(unittest.TestCase):
    def test_echo(self):
        self.assertEqual([1, "\u00e9", None], callbacks.cpp.call("echo", 1, "\u00e9", None))

    def test_responses_of_every_length(self):
        for length in (0, 1, 4096, 10 ** 6):
            self.assertEqual(["a" * length], callbacks.cpp.call("echo", "a" * length))

    def test_native_errors(self):
        for name, message, status in (
            ("fail", "no luck \ufffd today (status -2)", -2), ("unreadable", "cannot read (status -3)", -3)
        ):
            with self.assertRaises(quorvalen.BridgeError) as caught:
                callbacks.cpp.call(name)
            self.assertEqual((message, status), (str(caught.exception), caught.exception.status))

    def test_no_answer_of_four_threads_is_lost_or_swapped(self):
        wrong, answered = [], []

        def work(number):
            target = (callbacks.cpp, callbacks.remote)[number % 2]
            for count in range(1000):
                value = "{}-{}".format(number, count) * (count % 5)
                if target.call("echo", value) != [value]:
                    wrong.append(value)
                answered.append(number)

        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-6)
        threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(([], 4000), (wrong, len(answered)))

    def test_callbacks_three_deep(self):
        self.assertEqual(["three deep"], callbacks.cpp.call("callback", "callbacks.middle"))

    def test_nested_commands_over_the_network(self):
        expected = [["network"], ["memory"], ["network again"]]
        self.assertEqual(expected, callbacks.cpp.call("callback", "callbacks.over_network"))
        self.assertEqual([expected, ["last"]], callbacks.cpp.call("callback", "callbacks.nested_over_network"))
        self.assertEqual(0, waiting_responses())

    def test_nested_command_that_would_lose_the_outer_response_is_refused(self):
        self.assertEqual(
            "a command sent while a network command is under way must go to the same address",
            callbacks.remote.call("callback", "callbacks.to_another_address"),
        )

    def test_nested_command_over_the_network_below_a_command_to_this_python_is_refused(self):
        python = quorvalen.connect("Python")
        self.assertEqual(
            "a command sent while this Python executes a command of its own must go to a runtime in this process",
            python.call("callback", "callbacks.to_another_address"),
        )
        self.assertEqual(["three deep"], python.call("callback", "callbacks.deepest"))

    def test_callback_on_a_thread_that_python_did_not_create(self):
        self.assertIs(True, callbacks.cpp.call("callback_elsewhere", "callbacks.thread_is_foreign"))

    def test_exceptions_do_not_leave_the_callback(self):
        with self.assertRaises(quorvalen.RemoteError) as caught:
            callbacks.cpp.call("callback", "callbacks.leave")
        self.assertEqual("builtins.SystemExit", caught.exception.remote_type)
        self.assertEqual("not today", caught.exception.remote_message)


class CallbackTest(unittest.TestCase):
    def setUp(self):
        self.addCleanup(set_callback, None)

    def test_own_function(self):
        received = []

        def serve(command):
            received.append(command)
            return bytearray(bytes((8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 2)) + b'{"value":"served"}')

        set_callback(serve)
        self.assertEqual("served", callbacks.cpp.call("callback", "any.name"))
        self.assertEqual(
            [bytes((5, 0, 0, 0, 0, 0, 0, 0, 0, 8, 1)) + b'{"operation":"call","name":"any.name"}'], received
        )

    def test_failures_of_an_own_function(self):
        def fail(command):
            raise KeyboardInterrupt

        set_callback(fail)
        with self.assertRaises(quorvalen.RemoteError) as caught:
            callbacks.cpp.call("callback", "any.name")
        self.assertEqual("builtins.KeyboardInterrupt", caught.exception.remote_type)
        set_callback(bytes)
        with self.assertRaises(quorvalen.RemoteError) as caught:
            callbacks.cpp.call("callback", "any.name")
        self.assertEqual("the callback must return a bytearray, not bytes", caught.exception.remote_message)

    def test_the_response_lives_until_the_next_one_and_no_longer(self):
        response = bytearray(bytes((8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 2)) + b'{"value":1}')
        set_callback(lambda command: response)
        callbacks.cpp.call("callback", "any.name")
        kept = sys.getrefcount(response)
        for _ in range(100):
            callbacks.cpp.call("callback", "any.name")
        self.assertEqual(kept, sys.getrefcount(response))
        set_callback(None)
        callbacks.cpp.call("callback", "callbacks.deepest")
        self.assertEqual(kept - 1, sys.getrefcount(response))

    def test_messages_without_bytes(self):
        for message, length in ((None, 5), (ctypes.c_ubyte(5), -1), (ctypes.c_ubyte(5), 0)):
            pointer = ctypes.pointer(message) if message is not None else ctypes.POINTER(ctypes.c_ubyte)()
            address = library._callback(pointer, length)
            response = library._responses[threading.get_ident()]
            self.assertEqual(id(response), address)
            self.assertIn(b"the command has 0 bytes; expected a header of 11 bytes and a body", response)


class LibraryTest(unittest.TestCase):
    maxDiff = None

    def assert_failure(self, message, code, **environment):
        program = "import quorvalen\ntry:\n    {}\nexcept quorvalen.BridgeError as error:\n    print(error)".format(code)
        self.assertEqual((0, message + "\n", ""), support.run_python(program, **environment))

    def test_places_of_the_library(self):
        advice = (
            "there is no bridge library at {}; install it there, or name its file in the environment variable "
            "QUORVALEN_PYTHON_BRIDGE or in the argument `library`"
        )
        installed = os.path.join(
            os.path.dirname(os.path.realpath(support.PACKAGE_ROOT)), "Native/Linux/X64/libQuorvalenPythonRuntimeNative.so"
        )
        self.assert_failure(advice.format(installed), "quorvalen.connect('Cpp')")
        self.assert_failure(advice.format("/none/a.so"), "quorvalen.connect('Cpp')", QUORVALEN_PYTHON_BRIDGE="/none/a.so")
        self.assert_failure(
            advice.format("/none/b.so"), "quorvalen.connect('Cpp', library='/none/b.so')", QUORVALEN_PYTHON_BRIDGE="/none/a.so"
        )

    def test_files_that_are_no_bridge(self):
        for content in (b"scrap", None):
            path = os.path.join(_folder, "scrap.so")
            if content is None:
                with open(path + ".c", "w") as source:
                    source.write("int SendCommand(void) { return 0; }\n")
                subprocess.check_call(["cc", "-fPIC", "-shared", path + ".c", "-o", path])
            else:
                with open(path, "wb") as scrap:
                    scrap.write(content)
            status, output, _ = support.run_python(
                "import quorvalen\ntry:\n    quorvalen.connect('Cpp', library={!r})\n"
                "except quorvalen.BridgeError as error:\n    print(error)".format(path)
            )
            start = "the file {} cannot be used as the bridge library: ".format(os.path.realpath(path))
            self.assertEqual((0, start), (status, output[:len(start)]))
            self.assertIn("file too short" if content else "undefined symbol: ReadResponse", output)

    def test_one_bridge_per_process(self):
        second = os.path.join(_folder, "second.so")
        shutil.copy(fake_bridge(), second)
        with self.assertRaises(quorvalen.BridgeError) as caught:
            quorvalen.connect("Cpp", library=second)
        self.assertEqual(
            "the bridge {} is in use already; {} cannot be".format(
                os.path.realpath(fake_bridge()), os.path.realpath(second)
            ),
            str(caught.exception),
        )
        self.assertIs(callbacks.cpp._bridge, quorvalen.connect("Cpp", library=fake_bridge())._bridge)

    def test_configuration(self):
        configuration = os.path.join(os.path.realpath(_folder), "libConfigs.so")
        with self.assertRaises(quorvalen.BridgeError) as caught:
            set_config_source("a.json")
        self.assertEqual("there is no configuration library at " + configuration, str(caught.exception))
        open(configuration, "w").close()
        self.addCleanup(os.remove, configuration)
        configured = ctypes.CDLL(fake_bridge()).GetConfigured
        configured.restype = ctypes.c_char_p
        for function, name, expected in (
            (set_config_source, "SetConfigSource", "source"),
            (set_working_directory, "SetWorkingDirectory", "directory"),
        ):
            function("/a/\u00e9")
            self.assertEqual(os.fsencode(expected + " /a/\u00e9"), configured())
            with self.assertRaises(quorvalen.BridgeError) as caught:
                function("bad")
            self.assertEqual(
                name + "(b'bad') was refused by the configuration library (status -1)", str(caught.exception)
            )
            with self.assertRaises(ValueError) as caught:
                function("a\0b")
            self.assertEqual(name + ": 'a\\x00b' holds a zero byte", str(caught.exception))

    def test_environment_variable_names_the_library(self):
        code = "import quorvalen; print(quorvalen.connect('Cpp').call('echo', 1))"
        self.assertEqual((0, "[1]\n", ""), support.run_python(code, QUORVALEN_PYTHON_BRIDGE=fake_bridge()))

    def test_the_bridge_is_told_the_python_library_of_this_process(self):
        code = (
            "import os, quorvalen\n"
            "quorvalen.connect('Cpp')\n"
            "path = os.environ.get('QUORVALEN_PYTHON_RUNTIME_PATH') or os.environ['QUORVALEN_PYTHON_VERSION']\n"
            "maps = {line.split(None, 5)[-1].rstrip() for line in open('/proc/self/maps')}\n"
            "print(sorted(os.path.basename(path) for path in maps if 'libpython' in path), path)"
        )
        status, output, errors = support.run_python(code, QUORVALEN_PYTHON_BRIDGE=fake_bridge())
        self.assertEqual((0, ""), (status, errors))
        libraries, path = output.rstrip("\n").rsplit(" ", 1)
        if libraries == "[]":
            # This Python has no library, it is all in the executable: one of its version is asked for.
            self.assertEqual("%d.%d" % sys.version_info[:2], path)
        else:
            self.assertEqual("['{}']".format(os.path.basename(path)), libraries)
            self.assertTrue(os.path.isfile(path))

    def test_a_python_library_named_by_the_user_is_left_alone(self):
        code = "import os, quorvalen; quorvalen.connect('Cpp'); print(os.environ['QUORVALEN_PYTHON_RUNTIME_PATH'])"
        self.assertEqual(
            (0, "mine\n", ""),
            support.run_python(code, QUORVALEN_PYTHON_BRIDGE=fake_bridge(), QUORVALEN_PYTHON_RUNTIME_PATH="mine"),
        )

    def test_a_python_version_named_by_the_user_is_left_alone(self):
        code = (
            "import os, quorvalen\n"
            "quorvalen.connect('Cpp')\n"
            "print(os.environ['QUORVALEN_PYTHON_VERSION'], os.environ.get('QUORVALEN_PYTHON_RUNTIME_PATH'))"
        )
        self.assertEqual(
            (0, "3.0 None\n", ""),
            support.run_python(code, QUORVALEN_PYTHON_BRIDGE=fake_bridge(), QUORVALEN_PYTHON_VERSION="3.0"),
        )


if __name__ == "__main__":
    unittest.main()
