// quorvalen-host with the real bridge and this machine's Python, from the layout that the build
// stages.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <regex>

#include "Tests/Companions/Network/HostClient.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {
namespace {

std::string CallOf(const std::string& function, const std::string& arguments) {
    return Command(R"({"operation":"call","name":")" + function + R"(","arguments":[)" + arguments +
                   "]}");
}

// Python forgets some of its own memory at the end.
const Texts kEnvironment = {"ASAN_OPTIONS=detect_leaks=0:use_sigaltstack=0"};

class HostPythonTest : public testing::Test {
  protected:
    HostProcess& Host(Texts arguments = {}) {
        arguments.insert(arguments.end(), {"--port", "0"});
        started = std::make_unique<HostProcess>(arguments, kEnvironment);
        return *started;
    }
    int Stop() {
        started->Signal(SIGTERM);
        return started->Wait();
    }
    // A thread of Python's own takes the interpreter lock into a C function and keeps it.
    void HoldInterpreterLockForEver(HostProcess& host) {
        const std::string file = directory.File("held");
        const std::string code =
            "import ctypes, threading, time\\ndef hold():\\n    time.sleep(0.2)\\n"
            "    sleep = ctypes.PyDLL(None).sleep\\n    open('" +
            file + "', 'w').close()\\n    sleep(3600)\\n" +
            "threading.Thread(target=hold, daemon=True).start()";
        TcpClient client(host.TcpPort());
        EXPECT_EQ(Value(R"({"value":null})"),
                  client.Ask(CallOf("builtins.exec", '"' + code + "\",{}")));
        WaitUntil([&] { return std::filesystem::exists(file); }, "the thread did not begin");
        ShortPause();
    }
    TemporaryDirectory directory;

  private:
    std::unique_ptr<HostProcess> started;
};

TEST_F(HostPythonTest, TheReadyLineTellsTheVersion) {
    HostProcess& host = Host();
    const std::regex line(
        "quorvalen-host ready: tcp 127\\.0\\.0\\.1:\\d+, 4 threads, "
        "Python (3\\.\\d+\\.\\d+\\S*), pid " +
        std::to_string(host.Id()));
    std::smatch found;
    const std::string ready = host.ReadyLine();
    ASSERT_TRUE(std::regex_match(ready, found, line)) << ready;
    TcpClient client(host.TcpPort());
    EXPECT_EQ(Value(R"({"value":")" + found[1].str() + "\"}"),
              client.Ask(CallOf("platform.python_version", "")));
}

TEST_F(HostPythonTest, AFunctionIsCalled) {
    HostProcess& host = Host();
    TcpClient client(host.TcpPort());
    EXPECT_EQ(Value(R"({"value":5.0})"), client.Ask(CallOf("math.hypot", "3,4")));
    EXPECT_EQ(0, Stop());
    EXPECT_EQ("quorvalen-host stopped: 1 commands, 1 connections", host.LastLine());
}

TEST_F(HostPythonTest, AFunctionIsCalledOverTls) {
    const Certificates files(directory.Path());
    HostProcess& host = Host({"--tls-port", "0", "--tls-certificate", files.server.certificate,
                              "--tls-key", files.server.key, "--tls-client-ca", files.ca});
    TlsClient client(host.TlsPort(), {files.client, files.ca, TLS1_3_VERSION});
    EXPECT_EQ(Value(R"({"value":5.0})"), client.Ask(CallOf("math.hypot", "3,4")));
    EXPECT_EQ(0, Stop());
}

TEST_F(HostPythonTest, AnExceptionOfPythonIsAResponse) {
    TcpClient client(Host().TcpPort());
    const std::string answer = client.Ask(CallOf("math.sqrt", "-1"));
    EXPECT_EQ(std::string("\x08\0\0\0\0\0\0\0\0\x05\x0a", 11), answer.substr(0, 11));
    EXPECT_EQ(R"({"type":"builtins.ValueError","message":"math domain error",)",
              answer.substr(11, 60));
}

TEST_F(HostPythonTest, WhatPythonPrintedArrivesBeforeTheEnd) {
    HostProcess& host = Host();
    TcpClient client(host.TcpPort());
    EXPECT_EQ(Value(R"({"value":null})"), client.Ask(CallOf("print", "\"printed\"")));
    EXPECT_EQ(0, Stop());
    EXPECT_NE(std::string::npos, host.Output().find("\nprinted\nquorvalen-host stopped: "));
}

// Python's own handler would raise KeyboardInterrupt.
TEST_F(HostPythonTest, SigintStopsTheHost) {
    HostProcess& host = Host();
    TcpClient client(host.TcpPort());
    EXPECT_EQ(Value(R"({"value":5.0})"), client.Ask(CallOf("math.hypot", "3,4")));
    host.Signal(SIGINT);
    EXPECT_EQ(0, host.Wait());
}

TEST_F(HostPythonTest, PythonsThreadStatesAreKept) {
    TcpClient client(Host().TcpPort());
    EXPECT_EQ(Value(R"({"value":"process"})"),
              client.Ask(CallOf("os.environ.get", "\"QUORVALEN_PYTHON_LIFETIME\"")));
}

TEST_F(HostPythonTest, ProgramsThatPythonStartsHoldNoConnection) {
    TcpClient client(Host().TcpPort());
    EXPECT_EQ(Value(R"({"value":0})"),
              client.Ask(CallOf("os.system", R"("! ls -l /proc/self/fd | grep -q socket")")));
}

// A forked process that lives as long as the host must not keep the client's connection open.
TEST_F(HostPythonTest, AForkedProcessDoesNotKeepConnectionsOpen) {
    HostProcess& host = Host();
    TcpClient client(host.TcpPort());
    ASSERT_EQ(
        Value(R"({"value":null})"),
        client.Ask(CallOf(
            "exec", R"py("import os, time, builtins\nhost = os.getpid()\n)py"
                    R"py(builtins.forked = os.fork()\nwhile os.getpid() != host:\n)py"
                    R"py(  time.sleep(0.05)\n  os.getppid() == host or os._exit(0)", {})py")));
    client.FinishSending();
    EXPECT_EQ("closed", client.Receive());
    TcpClient next(host.TcpPort());
    EXPECT_EQ(Value(R"({"value":null})"),
              next.Ask(CallOf("exec", R"py("import os; os.kill(forked, 9)", {})py")));
}

// ctypes.PyDLL calls functions without letting the interpreter lock go, and opening a FIFO waits
// until somebody opens its other end.
TEST_F(HostPythonTest, HeartbeatsAreAnsweredWhileACommandHoldsTheInterpreterLock) {
    HostProcess& host = Host({"--threads", "1"});
    const std::string fifo = directory.File("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    TcpClient client(host.TcpPort());
    const std::string handle = R"({"value":{"$handle":1,"type":"ctypes.PyDLL"}})";
    ASSERT_EQ(Value(handle), client.Ask(CallOf("ctypes.PyDLL", "null")));
    const std::string path = R"({"value":{"$handle":2,"type":"builtins.bytes"}})";
    ASSERT_EQ(Value(path), client.Ask(CallOf("bytes", "\"" + fifo + "\",\"ascii\"")));
    client.Send(Framed(
        Command(R"({"operation":"call","handle":1,"name":"open","arguments":[{"$handle":2},0]})")));

    TcpClient other(host.TcpPort());
    for (int i = 0; i < 100; ++i) ASSERT_EQ(HeartbeatAnswer("x"), other.Ask(Heartbeat("x")));
    EXPECT_FALSE(client.IsReadable());
    std::ofstream(fifo).flush();
    EXPECT_EQ(0U, client.Receive().find(Value(R"({"value":)")));
}

TEST_F(HostPythonTest, ABridgeThatFindsNoPythonIsTold) {
    HostProcess host({"--port", "0"}, {"QUORVALEN_PYTHON_RUNTIME_PATH=" ECHO_BRIDGE});
    EXPECT_EQ(1, host.Wait());
    EXPECT_EQ(
        "quorvalen-host: Python Launcher: Exception code 003. \nCannot load functions from "
        "shared library. Reinstall Quorvalen package\n",
        host.Errors());
}

// --- An end while Python cannot be asked for its last output
// --------------------------------------

TEST_F(HostPythonTest, TheDrainTimeoutHoldsForTheLastOutputToo) {
    HostProcess& host = Host({"--drain-timeout", "1"});
    HoldInterpreterLockForEver(host);
    EXPECT_EQ(1, Stop());
    host.WaitForLog("not finished within 1 s (--drain-timeout): 0 commands are lost");
}

TEST_F(HostPythonTest, ASecondSignalEndsItDuringTheLastOutputToo) {
    HostProcess& host = Host();
    HoldInterpreterLockForEver(host);
    host.Signal(SIGTERM);
    host.WaitForLog("finishing 0 commands");
    EXPECT_EQ(1, Stop());
    host.WaitForLog("while finishing: stopped at once");
}

}  // namespace
}  // namespace NetworkTests
