"""The other processes of these tests: hosts that serve Python, HAProxy in front of them, and callers.

Each is a context manager that ends its process whatever happens, and everything waits for a bounded time only.
"""

import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import sysconfig
import tempfile
import threading
import time

STAGE = os.environ["QUORVALEN_TEST_STAGE"]

EXAMPLE = os.path.join(STAGE, "Examples", "RemotePython")
HOST = os.path.join(STAGE, "Binaries", "Host", "quorvalen-host")
WAIT_SECONDS = 60

DIRECTORY = os.path.realpath(tempfile.mkdtemp(prefix="quorvalen-test-"))
CERTIFICATES = os.path.join(DIRECTORY, "certificates")


def prepare():
    subprocess.check_call([os.path.join(EXAMPLE, "make-certificates"), CERTIFICATES], stdout=subprocess.DEVNULL)


def clean_up():
    shutil.rmtree(DIRECTORY)


def certificate(name):
    return os.path.join(CERTIFICATES, name)


# What a caller needs to reach a host over TLS.
CALLER_TLS = {
    "QUORVALEN_TLS_CA_FILE": certificate("ca.pem"),
    "QUORVALEN_TLS_CERTIFICATE_FILE": certificate("client.pem"),
    "QUORVALEN_TLS_KEY_FILE": certificate("client.key"),
}
HOST_TLS = (
    "--tls-certificate", certificate("host.pem"), "--tls-key", certificate("host.key"),
    "--tls-client-ca", certificate("ca.pem"),
)  # fmt: skip


def python_library():
    """The shared library of this very Python, None when it has none: hosts run the version under test too."""
    name = sysconfig.get_config_var("INSTSONAME") or ""
    path = os.path.join(sysconfig.get_config_var("LIBDIR") or "", name)
    return path if ".so" in name and os.path.exists(path) else None


def environment(**changes):
    """This process's variables without what steers bridge and clients, and with `changes`."""
    kept = {name: value for name, value in os.environ.items() if not name.startswith("QUORVALEN_")}
    return dict(kept, QUORVALEN_LOGGING_LEVEL="off", QUORVALEN_TELEMETRY_FILE="off", **changes)


def wait_for(condition):
    end = time.time() + WAIT_SECONDS
    while not condition():
        if time.time() > end:
            raise AssertionError("waited in vain")
        time.sleep(0.02)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def frame(*message):
    """A message in its frame, in hexadecimal."""
    return (struct.pack(">I", len(message)) + bytes(message)).hex()


class Process(object):
    """A child process whose standard output and error end up in `self.output` and a file."""

    def __init__(self, arguments, variables):
        self.errors_file = tempfile.TemporaryFile(mode="w+", dir=DIRECTORY)
        self.process = subprocess.Popen(
            arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors_file, env=variables,
            cwd=DIRECTORY, universal_newlines=True,
        )  # fmt: skip

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.kill()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()
        self.errors_file.close()

    def errors(self):
        self.errors_file.seek(0)
        return self.errors_file.read()

    def line_that_matches(self, expression):
        """Read standard output up to a line that matches; fail when the process ends or hangs before it."""
        watchdog = threading.Timer(WAIT_SECONDS, self.process.kill)
        watchdog.start()
        try:
            for line in self.process.stdout:
                found = re.match(expression, line)
                if found:
                    return found
        finally:
            watchdog.cancel()
        raise AssertionError("no line matched {!r}; standard error:\n{}".format(expression, self.errors()))


class Host(Process):
    """quorvalen-host with this Python's version inside, if that has a shared library."""

    def __init__(self, *options):
        variables = environment()
        if python_library():
            variables["QUORVALEN_PYTHON_RUNTIME_PATH"] = python_library()
        # What hosts import: the test modules themselves.
        variables["PYTHONPATH"] = os.path.dirname(os.path.abspath(__file__))
        Process.__init__(self, (HOST,) + options, variables)
        ready = self.line_that_matches(r"quorvalen-host ready: (.*)\n")
        ports = dict(re.findall(r"\b(tcp|tls) 127\.0\.0\.1:(\d+)", ready.group(1)))
        self.tcp = "127.0.0.1:" + ports.get("tcp", "-")
        self.tls = "127.0.0.1:" + ports.get("tls", "-")

    def terminate(self):
        self.process.send_signal(signal.SIGTERM)

    def stop(self):
        """Ask the host to end; return its exit status and last line."""
        self.terminate()
        last = self.line_that_matches(r"(quorvalen-host stopped: .*)\n").group(1)
        return self.process.wait(timeout=WAIT_SECONDS), last


class Proxy(Process):
    """HAProxy in TCP mode, which takes hosts out whose heartbeat is not answered."""

    def __init__(self, addresses):
        self.port = free_port()
        self.statistics = os.path.join(DIRECTORY, "haproxy-{}.sock".format(self.port))
        configuration = os.path.join(DIRECTORY, "haproxy-{}.cfg".format(self.port))
        with open(configuration, "w") as file:
            file.write(self._configuration(addresses))
        variables = environment()
        variables.pop("LD_PRELOAD", None)  # a sanitizer is for our own programs
        Process.__init__(self, (shutil.which("haproxy", path="/usr/sbin:/usr/bin"), "-db", "-f", configuration), variables)
        self.address = "127.0.0.1:{}".format(self.port)
        wait_for(lambda: os.path.exists(self.statistics) or self.process.poll() is not None)
        if self.process.poll() is not None:
            raise AssertionError("HAProxy ended with status {}:\n{}".format(self.process.poll(), self.errors()))

    def _configuration(self, addresses):
        lines = [
            "global",
            "    stats socket {} level admin".format(self.statistics),
            "defaults",
            "    mode tcp",
            "    timeout connect 2s",
            # A connection that a dead host refuses goes to the next one.
            "    retries 3",
            "    option redispatch 1",
            "    timeout client 60s",
            "    timeout server 60s",
            "listen hosts",
            "    bind 127.0.0.1:{}".format(self.port),
            "    balance roundrobin",
            "    option tcp-check",
            "    tcp-check send-binary " + frame(5, 0, 1, 0, 0, 0, 0, 0, 0, 8, 11),
            "    tcp-check expect binary " + frame(8, 0, 1, 0, 0, 0, 0, 0, 0, 5, 11),
            "    default-server check inter 200ms fall 2 rise 1 on-marked-down shutdown-sessions",
        ]
        lines += ["    server host{} {}".format(number, address) for number, address in enumerate(addresses)]
        return "\n".join(lines) + "\n"

    def states(self):
        """UP or DOWN for each host, in order."""
        with socket.socket(socket.AF_UNIX) as control:
            control.settimeout(WAIT_SECONDS)
            control.connect(self.statistics)
            control.sendall(b"show stat\n")
            answer = b"".join(iter(lambda: control.recv(65536), b"")).decode()
        rows = [line.split(",") for line in answer.splitlines() if line.startswith("hosts,host")]
        return [row[17].split()[0] for row in rows]


class Caller(Process):
    """Another Python process that runs a function of module `callers` with texts as arguments."""

    def __init__(self, function, *arguments, **variables):
        program = "import sys, callers; callers.{}(*sys.argv[1:])".format(function)
        variables = environment(**variables)
        variables["PYTHONPATH"] = os.pathsep.join(
            (os.path.join(STAGE, "Binaries", "Python"), os.path.dirname(os.path.abspath(__file__)))
        )
        Process.__init__(self, (sys.executable, "-B", "-c", program) + arguments, variables)

    def line(self):
        return self.line_that_matches("(?!.*ython runtime)(.*)\n").group(1)

    def proceed(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def result(self):
        """Wait for the end; return what it printed in lines, without what the bridge tells of its search."""
        watchdog = threading.Timer(WAIT_SECONDS, self.process.kill)
        watchdog.start()
        lines = self.process.stdout.read().splitlines()
        status = self.process.wait()
        watchdog.cancel()
        if status != 0:
            raise AssertionError("a caller ended with status {}:\n{}\n{}".format(status, lines, self.errors()))
        return [line for line in lines if "ython runtime" not in line]
