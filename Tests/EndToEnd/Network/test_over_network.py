"""Python calls Python in another process: through the bridge and a client library, to quorvalen-host and back.

Everything is real: the staged libraries, sockets on loopback, TLS with certificates made for this run, HAProxy. Callers
and hosts run this very Python version where it has a shared library.
"""

import collections
import json
import os
import subprocess
import sys
import threading
import time
import unittest

import processes
from processes import CALLER_TLS, HOST_TLS, Caller, Host, Proxy, wait_for

CLIENT = "Quorvalen Network Client: Exception code "


def setUpModule():
    processes.prepare()


def tearDownModule():
    processes.clean_up()


def call(kind, address, function, *arguments, **variables):
    """One call from a process of its own; what it printed: the result as JSON, or the error's text."""
    if kind == "tls":
        variables = dict(CALLER_TLS, **variables)
    with Caller("call", kind, address, function, *map(json.dumps, arguments), **variables) as caller:
        return "\n".join(caller.result())


def path(name):
    return os.path.join(processes.DIRECTORY, name)


class OneHostTest(unittest.TestCase):
    """One host that serves TCP and TLS, shared by all tests of the class."""

    @classmethod
    def setUpClass(cls):
        cls.host = Host("--port", "0", "--tls-port", "0", *HOST_TLS)
        cls.addresses = {"tcp": cls.host.tcp, "tls": cls.host.tls}

    @classmethod
    def tearDownClass(cls):
        status, last = cls.host.stop()
        cls.host.kill()
        assert status == 0, (status, last)

    def on_both(self, expected, function, *arguments):
        for kind, address in self.addresses.items():
            self.assertEqual(expected, call(kind, address, function, *arguments), kind)

    def test_a_function_is_executed_in_the_host(self):
        self.on_both(str(self.host.process.pid), "served.process")

    def test_a_value_of_five_megabytes(self):
        self.on_both(json.dumps("0123456789" * 500000), "served.repeat", "0123456789", 500000)

    def test_an_exception_comes_back_with_its_traceback(self):
        for kind, address in self.addresses.items():
            text = call(kind, address, "served.fail", "not here")
            self.assertTrue(text.startswith("builtins.LookupError: not here"), text)
            self.assertIn("Traceback (most recent call last):", text)
            self.assertIn("in fail", text)

    def test_an_object_lives_in_the_host(self):
        for kind, address in self.addresses.items():
            with Caller("use_an_object", kind, address, **CALLER_TLS) as caller:
                self.assertEqual(["41 42 served.Counter"], caller.result())

    def test_eight_callers_at_once(self):
        log = path("eight")
        callers = [Caller("call_for", "0.5", self.host.tcp, log, str(number)) for number in range(8)]
        try:
            outcomes = [json.loads(line) for caller in callers for line in caller.result()[1:]]
        finally:
            for caller in callers:
                caller.kill()
        self.assertEqual({self.host.process.pid}, {outcome for _, outcome in outcomes})
        with open(log) as file:
            self.assertEqual(sorted(line for line, _ in outcomes), sorted(file.read().splitlines()))

    def test_the_example_program(self):
        for kind, address in self.addresses.items():
            program = [os.path.join(processes.EXAMPLE, "call_remote.py")] + (["--tls"] if kind == "tls" else [])
            output = subprocess.check_output(
                [sys.executable, "-B"] + program + [address, "math.hypot", "3", "4"],
                env=processes.environment(**CALLER_TLS), cwd=processes.DIRECTORY,
                universal_newlines=True, timeout=processes.WAIT_SECONDS,
            )  # fmt: skip
            self.assertEqual("5.0", output.splitlines()[-1])

    def test_an_authority_that_the_caller_does_not_trust(self):
        stranger = path("stranger")
        subprocess.check_call([os.path.join(processes.EXAMPLE, "make-certificates"), stranger])
        text = call("tls", self.host.tls, "served.process", QUORVALEN_TLS_CA_FILE=os.path.join(stranger, "ca.pem"))
        self.assertTrue(text.startswith(CLIENT + "105. \n"), text)
        self.assertIn(self.host.tls, text)

    def test_a_caller_without_a_certificate(self):
        with Caller(
            "call", "tls", self.host.tls, "served.process", QUORVALEN_TLS_CA_FILE=CALLER_TLS["QUORVALEN_TLS_CA_FILE"]
        ) as caller:
            text = "\n".join(caller.result())
        self.assertTrue(text.startswith(CLIENT + "105. \n"), text)
        self.assertIn("certificate", text)

    def test_a_late_answer_misses_the_reply_deadline(self):
        text = call(
            "tcp", self.host.tcp, "served.write_and_sleep", path("late"), 3, "late",
            QUORVALEN_NETWORK_REPLY_TIMEOUT="0.2",
        )  # fmt: skip
        self.assertTrue(text.startswith(CLIENT + "104. \n"), text)
        for part in self.host.tcp, "reply", "0.2 s":
            self.assertIn(part, text)


class EndOfAHostTest(unittest.TestCase):
    def test_no_host(self):
        address = "127.0.0.1:{}".format(processes.free_port())
        text = call("tcp", address, "served.process")
        self.assertTrue(text.startswith(CLIENT + "103. \n"), text)
        self.assertIn(address, text)
        self.assertIn("Connection refused", text)

    def test_a_stop_lets_the_command_in_flight_finish(self):
        with Host("--port", "0") as host:
            begun = path("draining")
            answers = []
            caller = threading.Thread(
                target=lambda: answers.append(call("tcp", host.tcp, "served.write_and_sleep", begun, 1, "done"))
            )
            caller.start()
            wait_for(lambda: os.path.exists(begun))
            self.assertEqual((0, "quorvalen-host stopped: 1 commands, 1 connections"), host.stop())
            caller.join()
            self.assertEqual(['"done"'], answers)

    def test_killed_in_mid_command_and_started_again(self):
        begun = path("killed")
        with Host("--port", "0") as host:
            caller = Caller("call_twice", "tcp", host.tcp, "served.write_and_sleep", json.dumps(begun), "2", "7")
            with caller:
                wait_for(lambda: os.path.exists(begun))
                host.kill()
                self.assertEqual(CLIENT + "108. ", caller.line())
                self.assertIn(host.tcp, caller.line())
                with Host("--port", host.tcp.split(":")[1]):
                    caller.proceed()
                    self.assertEqual("7", caller.line())
                    caller.proceed()
                    caller.result()


class BehindAProxyTest(unittest.TestCase):
    """Two hosts behind HAProxy in TCP mode, which asks each for heartbeats."""

    def test_one_of_two_hosts_is_killed_under_load(self):
        with Host("--port", "0") as first, Host("--port", "0") as second, Proxy([first.tcp, second.tcp]) as proxy:
            wait_for(lambda: proxy.states() == ["UP", "UP"])
            log = path("proxied")
            callers = [Caller("call_for", "3", proxy.address, log, str(number)) for number in range(4)]
            try:
                for caller in callers:
                    self.assertEqual("begun", caller.line())
                time.sleep(1)
                first.kill()
                outcomes = [[json.loads(line) for line in caller.result()] for caller in callers]
            finally:
                for caller in callers:
                    caller.kill()
            self.check_outcomes(outcomes, log, first.process.pid, second.process.pid)
            self.assertEqual(["DOWN", "UP"], proxy.states())
            for _ in range(4):
                self.assertEqual(str(second.process.pid), call("tcp", proxy.address, "served.process"))

    def check_outcomes(self, outcomes, log, killed, alive):
        every = [outcome for caller in outcomes for outcome in caller]
        errors = [outcome for _, outcome in every if not isinstance(outcome, int)]
        print("\ncounted: {} commands behind a proxy, {} of them ended in an error".format(len(every), len(errors)))
        for error in errors:
            self.assertTrue(error.startswith(CLIENT), error)
        with open(log) as file:
            executed = collections.Counter(file.read().splitlines())
        # Nothing was executed twice, and whatever was answered was executed.
        self.assertEqual([], [line for line, times in executed.items() if times > 1])
        self.assertEqual([], [line for line, outcome in every if isinstance(outcome, int) and line not in executed])
        self.assertEqual({killed, alive}, {outcome for _, outcome in every if isinstance(outcome, int)})
        # Once the dead host is out, nobody has an error any more.
        self.assertEqual([alive] * len(outcomes), [caller[-1][1] for caller in outcomes])
