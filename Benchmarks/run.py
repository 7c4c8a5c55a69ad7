"""Runs every benchmark program and writes the table and the plot.

    run.py --build BUILD --results DIRECTORY [--effort smoke|quick|full] [--instructions FILE]

What is compared takes turns, in one process or as processes. FILE holds
what Scripts/count-instructions printed.
"""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

import pythons
import report
from rows import PYBIND_GOAL_MINORS

SOURCE = pathlib.Path(__file__).resolve().parent
BRIDGE = "libQuorvalenPythonRuntimeNative.so"
LIFETIMES = ("unset", "process")
LIFETIME_VARIABLE = "QUORVALEN_PYTHON_LIFETIME"
STEP_TIMEOUT = 600  # seconds; no step comes near it
READY_TIMEOUT = 30

# processes: of each program, because some have luck with their addresses. repetitions: of each
# process. min_time: seconds of one repetition. starts: pairs of processes. commands, threads: of one
# round.
Effort = collections.namedtuple(
    "Effort", "processes repetitions min_time starts commands threads rounds counted all_pythons"
)
EFFORTS = {
    "smoke": Effort(1, 2, 0.0001, 1, 100, 10, 1, 100, False),
    "quick": Effort(1, 5, 0.005, 7, 100_000, 200, 3, 10_000, True),
    "full": Effort(5, 5, 0.01, 61, 1_000_000, 1000, 4, 100_000, True),
}


def say(text):
    print("%s %s" % (time.strftime("%H:%M:%S"), text), file=sys.stderr, flush=True)


def output_of(command, environment, directory):
    """Standard output of a program that has to succeed.

    It is a file: every line into a pipe would wake this process, in the middle of what is timed.
    """
    with tempfile.TemporaryFile("w+") as output:
        done = subprocess.run(
            [str(part) for part in command], env=environment, cwd=directory, timeout=STEP_TIMEOUT,
            stdout=output, stderr=subprocess.PIPE, universal_newlines=True,
        )
        output.seek(0)
        text = output.read()
    if done.returncode != 0:
        raise SystemExit("%s failed with status %d:\n%s%s" % (
            " ".join(map(str, command)), done.returncode, text, done.stderr))
    return text


def figure(name, values, python="", lifetime=""):
    return {"name": name, "python": python, "lifetime": lifetime, "values": list(values)}


def figures_of(runs):
    """Names and values. A comparison has a counter for each figure; others are figures themselves."""
    for run in runs:
        if run.get("error_occurred"):
            raise SystemExit("%s: %s" % (run["name"], run["error_message"]))
        if run["run_type"] != "iteration":
            continue
        counters = [(name, value) for name, value in run.items() if "/" in name]
        if not counters:
            yield run["run_name"], run["real_time"]
        yield from counters
        if "allocations" in run:
            yield run["run_name"] + "/allocations", run["allocations"]


class Layout:
    """The directories that the bridge expects around itself, with the minimal receiver."""

    def __init__(self, root, build):
        self.root = root
        self.native = root / "Binaries/Native/Linux/X64"
        self.python = root / "Binaries/Python"
        self.bridge = self.native / BRIDGE
        self.native.mkdir(parents=True)
        self.built = build / "Stage/Binaries/Native/Linux/X64"
        for library in (BRIDGE, "libConfigs.so", "libUtils.so"):
            shutil.copy(self.built / library, self.native)
        shutil.copy(build / "Tests/Fakes/libFakeEchoBridge.so",
                    self.native / "libQuorvalenNetcoreRuntimeNative.so")
        receiver = self.python / "quorvalen/core/receiver"
        receiver.mkdir(parents=True)
        for package in (receiver, receiver.parent, receiver.parent.parent):
            (package / "__init__.py").touch()
        shutil.copy(SOURCE / "MinimalReceiver.py", receiver / "Receiver.py")

    def renew_bridge(self):
        """Another copy: one copy was seen to be slower than others in all its processes."""
        self.bridge.unlink()
        shutil.copy(self.built / BRIDGE, self.bridge)


class Runner:
    def __init__(self, build, effort, layout):
        self.build = build
        self.effort = effort
        self.layout = layout
        self.figures = []
        self.notes = []
        self.left_out = []  # how the names of figures begin that cannot be measured here

    def leave_out(self, prefix, note):
        self.left_out.append(prefix)
        self.notes.append(note)

    def program(self, name):
        return self.build / "Benchmarks" / name

    def environment(self, **more):
        own = {name: value for name, value in os.environ.items()
               if not name.startswith(("QUORVALEN_", "PYTHON"))}
        return {**own, "QUORVALEN_LOGGING_LEVEL": "off", "QUORVALEN_TELEMETRY_FILE": "off", **more}

    def run(self, command, environment):
        return output_of(command, environment, self.layout.root)

    def google_benchmark(self, command, environment, python="", lifetime="", longer=1):
        """Runs a program and takes the times and counters of all its repetitions.

        Each takes `longer` times the usual.
        """
        output = self.layout.root / "google-benchmark.json"
        found = collections.defaultdict(list)
        for _ in range(self.effort.processes):
            self.layout.renew_bridge()
            self.run([
                *command, "--benchmark_out=%s" % output, "--benchmark_out_format=json",
                "--benchmark_min_time=%g" % (longer * self.effort.min_time),
                "--benchmark_repetitions=%d" % self.effort.repetitions,
                "--benchmark_enable_random_interleaving=true",
            ], environment)
            for name, value in figures_of(json.loads(output.read_text())["benchmarks"]):
                found[name].append(value)
        self.figures += [figure(name, values, python, lifetime) for name, values in found.items()]

    # --- with Python -----------------------------------------------------------------------------

    def pybind_caller(self, python):
        """Compiles pybind11's part for one Python; "-" when it does not compile."""
        if python.headers is None:
            self.leave_out("pybind11", "pybind11: CPython %s has no headers here" % python.version)
            return "-"
        library = self.layout.root / ("pybind-%s.so" % python.version.replace(" ", "-"))
        done = subprocess.run(
            ["g++", "-O3", "-DNDEBUG", "-std=c++17", "-fPIC", "-shared", "-fvisibility=hidden",
             "-I%s" % python.headers, str(SOURCE / "PybindCaller.cpp"), "-o", str(library)],
            timeout=STEP_TIMEOUT, stderr=subprocess.PIPE, universal_newlines=True,
        )
        if done.returncode == 0:
            return library
        reason = next((l for l in done.stderr.splitlines() if "error" in l), "no reason given")
        self.leave_out("pybind11",
                       "pybind11 does not compile for CPython %s: %s" % (python.version, reason))
        return "-"

    def python_environment(self, python, lifetime):
        environment = self.environment(
            QUORVALEN_PYTHON_RUNTIME_PATH=str(python.library), PYTHONHOME=str(python.home)
        )
        if lifetime != "unset":
            environment[LIFETIME_VARIABLE] = lifetime
        return environment

    def receiver(self, python, lifetime, caller):
        self.google_benchmark(
            [self.program("receiver-round-trips"), self.layout.bridge, caller],
            self.python_environment(python, lifetime), python.version, lifetime,
        )

    def start(self, python, lifetime):
        ways = {"bridge": self.layout.bridge, "bare": self.layout.python}
        environment = self.python_environment(python, lifetime)
        values = {way: [] for way in ways}
        for _ in range(self.effort.starts + 1):
            for way, path in ways.items():
                lines = self.run([self.program("start"), way, path], environment).splitlines()
                values[way].append(int(lines[-1]))
        # The first pair brings the files into memory.
        self.figures += [figure("start/" + way, times[1:], python.version, lifetime)
                         for way, times in values.items()]

    def watch(self, python, lifetime, what, count, rounds):
        lines = self.run([self.program("memory"), what, self.layout.bridge, count, rounds],
                         self.python_environment(python, lifetime)).splitlines()
        wanted = 2 if what == "allocations" else rounds
        return [float(line) for line in lines[-wanted:]]

    def memory(self, python, lifetime):
        for what, count in (("one-thread", self.effort.commands),
                            ("ending-threads", self.effort.threads)):
            growth = self.watch(python, lifetime, what, count, self.effort.rounds)
            self.figures.append(figure("memory/" + what, growth, python.version, lifetime))
        allocations = self.watch(python, lifetime, "allocations", self.effort.counted, 1)
        for name, value in zip(("bridge", "floor"), allocations):
            self.figures.append(figure("allocations/" + name, [value], python.version, lifetime))

    def with_python(self, python):
        say("Python %s: %s" % (python.version, python.library))
        caller = self.pybind_caller(python)
        for lifetime in LIFETIMES:
            self.receiver(python, lifetime, caller)
            self.start(python, lifetime)
            self.memory(python, lifetime)

    # --- without Python --------------------------------------------------------------------------

    def routing(self):
        say("routing")
        self.google_benchmark([self.program("routing"), self.layout.bridge], self.environment())

    def certificate(self):
        """A certificate for the loopback address and its key."""
        certificate, key = self.layout.root / "certificate.pem", self.layout.root / "key.pem"
        self.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                  "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                  "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate],
                 self.environment())
        return certificate, key

    def echo_peers(self, servers, certificate, key):
        for kind in ("tcp", "tls", "zeromq", "grpc", "grpc-tls"):
            command = [self.program("Remote/echo-server"), kind, certificate, key]
            port = self.serve(servers, command, r"^(\d+)$").group(1)
            yield "%s=%s" % (kind, port)

    def companion_peers(self, servers, certificate, key):
        """The clients and the host of the companions, if they were built."""
        stage = self.build / "Stage/Binaries"
        host = stage / "Host/quorvalen-host"
        clients = {"tcp": stage / "Native/Linux/X64/libQuorvalenTcpClient.so",
                   "tls": stage / "Native/Linux/X64/libQuorvalenTcpTlsClient.so"}
        missing = [path.name for path in (host, *clients.values()) if not path.exists()]
        if missing:
            self.leave_out("client-", "remote: not built, so not measured: " + ", ".join(missing))
            return
        echo = self.build / "Tests/Fakes/libFakeEchoBridge.so"
        command = [host, "--bridge", echo, "--port", "0", "--tls-port", "0", "--tls-certificate",
                   certificate, "--tls-key", key]
        ready = self.serve(servers, command,
                           r"^quorvalen-host ready: tcp [^,]*:(\d+), tls [^,]*:(\d+),")
        for port, (protocol, library) in zip(ready.groups(), clients.items()):
            yield "client-%s=%s:%s" % (protocol, port, library)

    def serve(self, servers, command, ready):
        """Starts a server that ends with `servers`; returns the match of its ready line."""
        process = servers.enter_context(ended(subprocess.Popen(
            [str(part) for part in command], cwd=self.layout.root, env=self.environment(),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, universal_newlines=True)))
        deadline = threading.Timer(READY_TIMEOUT, process.kill)
        deadline.start()
        try:
            matches = (re.search(ready, line) for line in process.stdout)
            match = next((match for match in matches if match), None)
        finally:
            deadline.cancel()
        if match is None:
            raise SystemExit("%s did not become ready" % " ".join(map(str, command)))
        return match

    def remote(self):
        say("remote")
        certificate, key = self.certificate()
        with contextlib.ExitStack() as servers:
            peers = [*self.echo_peers(servers, certificate, key),
                     *self.companion_peers(servers, certificate, key)]
            self.google_benchmark(
                [self.program("Remote/remote-round-trips"), certificate, *peers, "--"],
                self.environment(QUORVALEN_TLS_CA_FILE=str(certificate)), longer=5)

    def instructions(self, file, python):
        if file is None:
            # Without a profiler the program has no figure, but it runs all the same.
            for path in ("routed", "received"):
                self.run([self.program("counted-commands"), path, self.layout.bridge,
                          self.effort.counted], self.python_environment(python, "unset"))
            self.leave_out("instructions/", "the instructions were not counted")
            return
        for number, path in re.findall(r"^(\d+) instructions per (\w+) ", file.read_text(), re.M):
            self.figures.append(figure("instructions/" + path, [int(number)]))


@contextlib.contextmanager
def ended(process):
    try:
        yield process
    finally:
        process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout):
            stream.close()


def processor():
    match = re.search(r"^model name\s*:\s*(.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return "%s, %d processors" % (match.group(1) if match else "unknown", os.cpu_count())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--results", type=pathlib.Path, required=True)
    parser.add_argument("--effort", choices=EFFORTS, default="full")
    parser.add_argument("--instructions", type=pathlib.Path)
    options = parser.parse_args()
    effort = EFFORTS[options.effort]
    found = pythons.find()
    if not found:
        raise SystemExit("no shared library of a CPython 3.6 to 3.14 was found")
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="quorvalen-benchmarks-") as directory:
        layout = Layout(pathlib.Path(directory).resolve(), options.build.resolve())
        runner = Runner(options.build.resolve(), effort, layout)
        runner.routing()
        runner.remote()
        measured = found if effort.all_pythons else found[-1:]
        for python in measured:
            runner.with_python(python)
        runner.instructions(options.instructions, found[-1])
    if not any(python.minor in PYBIND_GOAL_MINORS for python in measured):
        runner.leave_out("pybind11/other/64", "no Python that the goal against pybind11 is for")
    context = {
        "date": time.strftime("%Y-%m-%d"), "machine": processor(), "system": platform.release(),
        "effort": "%s, %d repetitions" % (options.effort, effort.processes * effort.repetitions),
        "duration": "%d s" % (time.monotonic() - begin), "notes": runner.notes,
    }
    print(report.write(context, runner.figures, options.results))
    forgotten = report.unexplained(report.table(runner.figures), runner.left_out)
    if forgotten:
        raise SystemExit("not measured, and nobody knows why: " +
                         "; ".join("%s, %s" % (e["section"], e["what"]) for e in forgotten))


if __name__ == "__main__":
    main()
