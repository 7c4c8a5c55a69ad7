// Commands in a real interpreter: from any thread, of any size, with results of any kind.
#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

#include "Tests/Runtimes/Python/Real/RealPython.h"

namespace {

class RealPythonCommandsTest : public RealPython {
  protected:
    RealPythonCommandsTest() { UseTestReceiver(); }
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonCommandsTest);

TEST_P(RealPythonCommandsTest, RunOnTheStartingThread) {
    Initialize();
    EXPECT_EQ(Command("pass"), Run("pass"));
    EXPECT_EQ("3." + std::to_string(GetParam().minor),
              Run("import sys; result = bytearray(('%d.%d' % sys.version_info[:2]).encode())"));
}

TEST_P(RealPythonCommandsTest, RunOnOtherThreads) {
    Initialize();
    std::string answer;
    std::thread([&] { answer = Run("result = bytearray(b'elsewhere')"); }).join();
    EXPECT_EQ("elsewhere", answer);
    EXPECT_EQ("here", Run("result = bytearray(b'here')"));
}

TEST_P(RealPythonCommandsTest, NineFirstCommandsAtOnceAllAnswer) {
    Initialize();
    std::barrier start(9);
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 9; ++number) {
        threads.emplace_back([&, number] {
            const std::string body = "# " + std::to_string(number);
            start.arrive_and_wait();
            if (Run(body) == Command(body)) ++answered;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(9, answered);
}

TEST_P(RealPythonCommandsTest, FourThreadsNeverGetEachOthersAnswers) {
    Initialize();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            for (int round = 0; round < 250; ++round) {
                const std::string body =
                    "# " + std::to_string(number) + " " + std::to_string(round);
                if (Run(body) != Command(body)) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, wrong);
}

TEST_P(RealPythonCommandsTest, AHeartbeatIsAnsweredByHeartBeat) {
    Initialize();
    EXPECT_EQ("alive", SendTo(*receiver, Command("raise Exception()", 11)));
}

TEST_P(RealPythonCommandsTest, ABodyOf16MiBComesBackWhole) {
    Initialize();
    const std::string big = Command("#" + std::string(16 * 1024 * 1024, 'x'));
    EXPECT_TRUE(big == SendTo(*receiver, big));
}

TEST_P(RealPythonCommandsTest, AnEmptyResponseIsALengthOfZero) {
    Initialize();
    EXPECT_EQ("", Run("result = bytearray()"));
}

TEST_P(RealPythonCommandsTest, ASubclassOfBytearrayIsAResponse) {
    Initialize();
    EXPECT_EQ("sub", Run("class Sub(bytearray): pass\nresult = Sub(b'sub')"));
}

// A result of another type is refused without a restart: the module of the first command is the
// module of the last.
TEST_P(RealPythonCommandsTest, AResultOfAWrongTypeIsRefusedAndNothingIsLost) {
    Initialize();
    Run("import sys; sys.kept = b'kept'");
    const std::string expected =
        "Python Launcher: Failed to read the result of a method call. \n"
        "\"send_command\" must return a bytearray\nRUNTIME INFO:\n"
        "Python Native Launcher Runtime Info:\nLibrary Location: " +
        GetParam().library + "\n";
    for (const char* result : {"b'bytes'", "'text'", "None", "7", "[1]", "object()"}) {
        const std::string failure = FailureOfRun("result = " + std::string(result));
        EXPECT_EQ(expected, failure.substr(0, expected.size())) << result;
    }
    EXPECT_EQ("kept", Run("import sys; result = bytearray(sys.kept)"));
}

TEST_P(RealPythonCommandsTest, ANegativeLengthIsRefusedAndNothingIsLost) {
    Initialize();
    Run("import sys; sys.kept = b'kept'");
    std::string command = Command("pass");
    const std::string failure = FailureOf(
        [&] { receiver->SendCommand(reinterpret_cast<unsigned char*>(command.data()), -1); });
    const std::string expected =
        "Python Launcher: Failed to build arguments for method call\nRUNTIME INFO:\n";
    EXPECT_EQ(expected, failure.substr(0, expected.size()));
    EXPECT_EQ("kept", Run("import sys; result = bytearray(sys.kept)"));
}

TEST_P(RealPythonCommandsTest, ANullMessageIsRefused) {
    Initialize();
    const std::string failure = FailureOf([&] { receiver->SendCommand(nullptr, 20); });
    const std::string expected =
        "Python Launcher: Failed to build arguments for method call\nRUNTIME INFO:\n";
    EXPECT_EQ(expected, failure.substr(0, expected.size()));
    EXPECT_EQ(Command("pass"), Run("pass"));
}

// From the creation of a subinterpreter on, CPython's own check whether a thread holds the lock
// answers yes on every thread.
TEST_P(RealPythonCommandsTest, CommandsGoOnAfterASubinterpreterWasCreated) {
    Initialize();
    const std::string available =
        Run("try:\n    import _interpreters as i\nexcept ImportError:\n"
            "    try:\n        import _xxsubinterpreters as i\n    except ImportError:\n"
            "        i = None\n"
            "if i: i.create()\n"
            "result = bytearray(b'yes' if i else b'no')");
    if (available == "no") GTEST_SKIP() << "this CPython has no module for subinterpreters";
    for (int round = 0; round < 3; ++round) EXPECT_EQ(Command("pass"), Run("pass"));
    std::thread([&] { EXPECT_EQ(Command("pass"), Run("pass")); }).join();
}

// The package's receiver: whatever user code raises is a response.
class RealPythonPackageTest : public RealPython {
  protected:
    RealPythonPackageTest() { UsePackage(); }
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonPackageTest);

TEST_P(RealPythonPackageTest, CallsAFunction) {
    Initialize();
    const std::string response =
        Run(R"({"operation": "call", "name": "math.hypot", "arguments": [3, 4]})");
    EXPECT_EQ(2, response.at(10));
    EXPECT_EQ(R"({"value":5.0})", response.substr(11));
}

TEST_P(RealPythonPackageTest, AnswersAHeartbeat) {
    Initialize();
    const std::string response = SendTo(*receiver, Command("12", 11));
    EXPECT_EQ(11, response.at(10));
    EXPECT_EQ("12", response.substr(11));
}

TEST_P(RealPythonPackageTest, ExceptionsOfUserCodeAreResponsesAndReachTelemetry) {
    Initialize();
    for (const char* exception : {"SystemExit", "KeyboardInterrupt", "ValueError"}) {
        const std::string response =
            Run(R"~({"operation": "call", "name": "exec", "arguments": ["raise )~" +
                std::string(exception) + R"~(('told')"]})~");
        EXPECT_EQ(10, response.at(10)) << exception;
        EXPECT_NE(std::string::npos,
                  response.find(R"("type":"builtins.)" + std::string(exception) + "\""))
            << response;
        EXPECT_NE(std::string::npos, response.find(R"("message":"told")")) << response;
    }
    const std::string telemetryLines = ContentsOf(layout.Root() / "telemetry.jsonl");
    EXPECT_NE(std::string::npos, telemetryLines.find("\"event\":\"Python exception\""))
        << telemetryLines;
    EXPECT_EQ(Run(R"({"operation": "call", "name": "len", "arguments": ["abc"]})").substr(11),
              R"({"value":3})");
}

}  // namespace
