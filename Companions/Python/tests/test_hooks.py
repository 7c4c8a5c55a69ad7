"""Reports of errors that nobody catches, each in an interpreter of its own, compared as whole texts."""

import re
import sys
import unittest

import support

INSTALL = "import sys, threading\nfrom quorvalen.core.receiver.Receiver import Receiver\n"
INITIALIZE = INSTALL + "Receiver.initialize_exception_handler()\n"
HAS_THREAD_HOOK = sys.version_info >= (3, 8)


def error_output(code):
    text = re.sub(r'File "<string>", line \d+', "File, line", support.run_python(code)[2])
    return re.sub(r"(?m)^    .*\n", "", text)  # from 3.13 on the lines of a program given by -c are shown, too


class HooksTest(unittest.TestCase):
    maxDiff = None

    def test_uncaught_error_of_a_thread_is_reported_once(self):
        code = (
            "def f(): 1 / 0\n"
            "t = threading.Thread(target=f, name='worker')\n"
            "t.run = f\n"  # no frames of the standard library, whose lines differ between versions
            "t.start(); t.join()\n"
        )
        first = (
            "quorvalen: uncaught exception in Python thread worker:" if HAS_THREAD_HOOK
            else "Exception in thread worker:"  # Python's own report, see hooks
        )
        lines = error_output(INITIALIZE + "Receiver.initialize_exception_handler()\n" + code).splitlines()
        self.assertEqual([first, "Traceback (most recent call last):"], lines[:2])
        self.assertIn("  File, line, in f", lines)
        self.assertEqual(["ZeroDivisionError: division by zero"], [line for line in lines[2:] if line.startswith("Zero")])
        self.assertEqual(1, sum("thread worker" in line for line in lines))

    def test_uncaught_error_of_the_main_thread(self):
        self.assertEqual(
            "quorvalen: uncaught exception in Python thread MainThread:\n"
            "Traceback (most recent call last):\n  File, line, in <module>\nValueError: text\n",
            error_output(INITIALIZE + "raise ValueError('text')"),
        )

    def test_uncaught_error_on_a_thread_python_does_not_know(self):
        code = (
            "import _thread\n"
            "done = _thread.allocate_lock(); done.acquire()\n"
            "def f():\n"
            "    sys.excepthook(ValueError, ValueError('text'), None)\n"
            "    print(_thread.get_ident(), len(threading.enumerate())); done.release()\n"
            "_thread.start_new_thread(f, ()); done.acquire()\n"
        )
        status, output, errors = support.run_python(INITIALIZE + code)
        ident, threads = output.split()
        self.assertEqual(
            "quorvalen: uncaught exception in Python thread {} of the host:\nValueError: text\n".format(ident), errors
        )
        self.assertEqual("1", threads)

    def test_exit_of_a_thread_is_no_error(self):
        code = "t = threading.Thread(target=sys.exit); t.start(); t.join()"
        self.assertEqual("", error_output(INITIALIZE + code))

    def test_error_that_cannot_be_raised(self):
        if not HAS_THREAD_HOOK:
            support.skip(self, "Python 3.6 and 3.7 have no sys.unraisablehook")
        code = (
            "class C:\n"
            "    def __del__(self): raise ValueError('text')\n"
            "    def __repr__(self): return 'c'\n"
            "C.__del__.__qualname__ = 'C.__del__'\n"
            "c = C(); del c"
        )
        self.assertRegex(
            error_output(INITIALIZE + code),
            r"\Aquorvalen: an exception could not be raised \(Exception ignored (in|while calling deallocator)"
            r": <function C\.__del__ at 0x[0-9a-f]+>\):\n"
            r"Traceback \(most recent call last\):\n  File, line, in __del__\nValueError: text\n\Z",
        )

    def test_hooks_of_the_user_are_left_alone(self):
        names = "sys.excepthook, sys.unraisablehook, threading.excepthook" if HAS_THREAD_HOOK else "sys.excepthook, 0, 0"
        code = (
            "sys.excepthook = sys.unraisablehook = threading.excepthook = print\n"
            "Receiver.initialize_exception_handler()\n"
            "print([hook in (print, 0) for hook in (%s)])" % names
        )
        self.assertEqual((0, "[True, True, True]\n", ""), support.run_python(INSTALL + code))

    def test_installing_again_changes_nothing(self):
        code = (
            "before = sys.excepthook, getattr(threading, 'excepthook', 0), getattr(sys, 'unraisablehook', 0)\n"
            "Receiver.initialize_exception_handler()\n"
            "print(before == (sys.excepthook, getattr(threading, 'excepthook', 0), getattr(sys, 'unraisablehook', 0)))\n"
            "print(sys.excepthook is sys.__excepthook__)"
        )
        self.assertEqual((0, "True\nFalse\n", ""), support.run_python(INITIALIZE + code))

    def test_a_broken_error_output_is_survived(self):
        code = (
            "class Broken:\n    def write(self, text): raise OSError\n    def flush(self): pass\n"
            "sys.stderr = Broken()\n"
            "def f(): 1 / 0\n"
            "t = threading.Thread(target=f); t.start(); t.join()\n"
            "sys.stderr = None\n"
            "sys.excepthook(ValueError, ValueError(), None); print('alive')"
        )
        self.assertEqual((0, "alive\n"), support.run_python(INITIALIZE + code)[:2])

    def test_a_thread_of_the_first_command_is_not_taken_for_the_main_thread(self):
        code = (
            "import _thread\n"
            "from quorvalen.core.receiver.Receiver import Receiver\n"
            "Receiver.initialize_exception_handler()\n"
            "done = _thread.allocate_lock(); done.acquire()\n"
            "def f():\n    import threading\n    print(threading.main_thread().ident == main); done.release()\n"
            "main = _thread.get_ident()\n"
            "_thread.start_new_thread(f, ()); done.acquire()\n"
        )
        self.assertEqual((0, "True\n", ""), support.run_python(code))


if __name__ == "__main__":
    unittest.main()
