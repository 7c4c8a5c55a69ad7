"""A real Python process that calls out: to C++ in the same process and back, and to network channels.

The libraries are the real ones, in a temporary copy of the staged layout; only the network clients are stand-ins that
echo what reaches them. All tests share the process, as all callers in a real program do.
"""

import ctypes
import os
import shutil
import sys
import tempfile
import threading
import unittest

STAGE = os.environ["QUORVALEN_TEST_STAGE"]
PARTS = os.environ["QUORVALEN_TEST_PARTS"]

ROOT = os.path.realpath(tempfile.mkdtemp(prefix="quorvalen-test-"))
NATIVE = os.path.join(ROOT, "Binaries", "Native", "Linux", "X64")


def setUpModule():
    shutil.copytree(os.path.join(STAGE, "Binaries"), os.path.join(ROOT, "Binaries"))
    for client in "Tcp", "TcpTls":
        name = "libQuorvalen{}Client.so".format(client)
        shutil.copy(os.path.join(PARTS, name), os.path.join(NATIVE, name))
    os.chdir(ROOT)
    os.environ["QUORVALEN_LOGGING_LEVEL"] = "off"
    os.environ["QUORVALEN_TELEMETRY_FILE"] = "off"
    sys.path.insert(0, os.path.join(ROOT, "Binaries", "Python"))
    for module in [name for name in sys.modules if name.split(".")[0] == "quorvalen"]:
        del sys.modules[module]
    global quorvalen, cpp
    import quorvalen

    cpp = quorvalen.connect("Cpp")
    cpp.call("quorvalen.load_plugin", os.path.join(PARTS, "EndToEndPlugin.so"))


def tearDownModule():
    os.chdir(os.path.dirname(ROOT))
    shutil.rmtree(ROOT)


# What C++ calls back. Commands name these functions as "test_from_python.<name>".
def double(value):
    return 2 * value


def fail(value):
    raise KeyError(value)


def descend(depth):
    steps = cpp.call("descend", __name__ + ".descend", depth)
    return steps + ["Python {}".format(depth)]


class Collector(object):
    def __init__(self):
        self.items = []

    def add(self, item):
        self.items.append(item)


class FromPythonTest(unittest.TestCase):
    def test_calls_a_function(self):
        self.assertEqual(7, cpp.call("add", 3, 4))

    def test_cpp_calls_back_while_it_works(self):
        self.assertEqual(42, cpp.call("call_back", __name__ + ".double", 21))

    def test_three_deep(self):
        expected = ["C++ 0", "Python 0", "C++ 1", "Python 1", "C++ 2", "Python 2", "C++ 3", "Python 3"]
        self.assertEqual(expected, descend(3))

    def test_cpp_makes_an_object_in_python_and_uses_it(self):
        self.assertEqual([5, 6], cpp.call("collect", __name__ + ".Collector", [5, 6]))

    def test_an_exception_of_cpp(self):
        with self.assertRaises(quorvalen.RemoteError) as raised:
            cpp.call("fail", "too far")
        self.assertEqual("std::out_of_range", raised.exception.remote_type)
        self.assertEqual("too far", raised.exception.remote_message)
        self.assertEqual(7, cpp.call("add", 3, 4))

    def test_an_exception_of_the_callback_goes_through_cpp(self):
        with self.assertRaises(quorvalen.RemoteError) as raised:
            cpp.call("call_back", __name__ + ".fail", "gone")
        self.assertIn("builtins.KeyError", str(raised.exception))
        self.assertIn("'gone'", str(raised.exception))
        self.assertEqual(42, cpp.call("call_back", __name__ + ".double", 21))

    def test_a_runtime_whose_library_is_missing(self):
        with self.assertRaises(quorvalen.BridgeError) as raised:
            quorvalen.connect("Ruby").call("puts", "nobody there")
        self.assertIn(
            "Quorvalen Native Exception: Exception code 001. \nCannot load: {}/libQuorvalenRubyRuntimeNative.so. \n"
            "Error: File not found.".format(NATIVE),
            str(raised.exception),
        )
        self.assertEqual(7, cpp.call("add", 3, 4))

    def test_four_threads_with_a_thousand_commands_each(self):
        self.run_threads(lambda number, count: cpp.call("add", 10000 * number, count), 1000)

    def test_four_threads_that_are_called_back(self):
        self.run_threads(
            lambda number, count: cpp.call("call_back", __name__ + ".double", 5000 * number + count / 2), 250
        )

    def run_threads(self, command, rounds):
        wrong = []

        def work(number):
            for count in range(rounds):
                answer = command(number, count)
                if answer != 10000 * number + count:
                    wrong.append((number, count, answer))

        threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([], wrong)

    def test_other_header_bytes_go_to_a_network_channel(self):
        for tls, client in (False, "tcp"), (True, "tls"):
            remote = quorvalen.connect("Python", "127.0.0.1:{}".format(8080 + tls), tls=tls)
            self.assertEqual(
                {
                    "client": client,
                    "address": "127.0.0.1:{}".format(8080 + tls),
                    "header": [5, 0, 1 + tls, 127, 0, 0, 1, 0x90 + tls, 0x1F, 5, 1],
                },
                remote.call("anything"),
            )
        self.assertEqual(7, cpp.call("add", 3, 4))

    def test_an_address_keeps_its_first_kind_of_channel(self):
        for tls in False, True:
            answer = quorvalen.connect("Python", "127.0.0.2:9000", tls=tls).call("anything")
            self.assertEqual("tcp", answer["client"])

    def test_refused_commands_have_a_status_and_a_text(self):
        library = ctypes.CDLL(os.path.join(NATIVE, "libQuorvalenPythonRuntimeNative.so"))
        library.GetNativeError.restype = ctypes.c_char_p
        short = (ctypes.c_ubyte * 10)()
        self.assertEqual(-2, library.SendCommand(short, 10))
        self.assertEqual(b"Message byte array length is less than 11", library.GetNativeError())
        unknown = (ctypes.c_ubyte * 11)(8, 0, 3)
        self.assertEqual(-2, library.SendCommand(unknown, 11))
        self.assertEqual(b"Quorvalen Native Exception: Exception code 023.", library.GetNativeError())
        self.assertEqual(7, cpp.call("add", 3, 4))


if __name__ == "__main__":
    unittest.main()
