// The execution of commands against a recording fake of the Python library: the calls of a command,
// its response, its failures that need no restart, and the commands of the calling runtime.
#include <climits>

#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherCommandsTest : public StartedLauncherFixture {
  protected:
    // Sends, and compares the failure's text and the calls up to the runtime information.
    void ExpectFailure(const std::string& message, const Calls& calls) {
        EXPECT_EQ(WithInfo(message), SendFailure(launcher, command));
        EXPECT_EQ(Lines(Joined({calls, InfoCalls()})), PythonCalls());
        EXPECT_FALSE(HoldsInterpreterLock());
    }

    // A failure leaves the launcher able to answer, and a response that was pending before it.
    void ExpectPendingResponseAndNextCommand(const std::string& pending) {
        Fakes::FailNoMore();
        EXPECT_EQ(pending, Read(launcher, static_cast<int>(pending.size())));
        EXPECT_EQ(8, Send(launcher, Command()));
        EXPECT_EQ("response", Read(launcher, 8));
    }

    void LeavePendingResponse(const std::string& text) {
        Fakes::SetText("response", text);
        EXPECT_EQ(static_cast<int>(text.size()), Send(launcher, Command()));
        Fakes::SetText("response", "response");
        Fakes::ClearTrace();
    }

    const Bytes command = Command("anything");
};

// --- Answered commands --------------------------------------------------------------------------

TEST_F(PythonLauncherCommandsTest, ACommandWalksTheWholeRoadInItsOrder) {
    Start();
    EXPECT_EQ(8, Send(launcher, {5, 0, 0, 0, 0, 0, 0, 0, 0, 6, 1, 0xff}));
    EXPECT_EQ(Lines({"PyGILState_Ensure() = 1",
                     "PyBytes_FromStringAndSize([12] 05 00 00 00 00 00 00 00 00 06 01 ff)",
                     "PyTuple_Pack(1)", "Py_DecRef(bytes)",
                     "PyObject_CallObject(send_command, arguments)", "Py_DecRef(arguments)",
                     "PyByteArray_Size(result)", "PyByteArray_AsString(result)",
                     "Py_DecRef(result)", "PyGILState_Release(1)", "PyGILState_Check() = 0"}),
              PythonCalls());
    EXPECT_EQ("response", Read(launcher, 8));
}

TEST_F(PythonLauncherCommandsTest, OnlyTheKindElevenGoesToHeartBeat) {
    Start();
    for (const int kind : {0, 1, 10, 12, 255}) {
        const Bytes other = Command("", static_cast<unsigned char>(kind));
        Fakes::ClearTrace();
        Send(launcher, other);
        EXPECT_EQ(Lines(CommandCalls(other, "send_command")), PythonCalls()) << kind;
    }
    const Bytes heartBeat = Command("", kHeartBeat);
    Fakes::ClearTrace();
    Send(launcher, heartBeat);
    EXPECT_EQ(Lines(CommandCalls(heartBeat, "heart_beat")), PythonCalls());
}

TEST_F(PythonLauncherCommandsTest, TheKindIsReadWithoutAskingForTheLength) {
    Start();
    Bytes heartBeat = Command("", kHeartBeat);
    EXPECT_EQ(8, launcher->SendCommand(heartBeat.data(), 3));
    EXPECT_EQ(Lines(CommandCalls({5, 0, 0}, "heart_beat")), PythonCalls());
}

TEST_F(PythonLauncherCommandsTest, TheTypeOfTheResultIsAskedForWhenItCanBe) {
    Start("FakePythonWithOptional");
    EXPECT_EQ(8, Send(launcher, command));
    Calls expected = CommandCalls(command);
    expected.insert(expected.begin() + 6, "PyObject_IsInstance(result, bytearray type)");
    EXPECT_EQ(Lines(expected), PythonCalls());
}

TEST_F(PythonLauncherCommandsTest, AnEmptyResponseIsAResponse) {
    Start();
    Fakes::SetText("response", "");
    EXPECT_EQ(0, Send(launcher, command));
    unsigned char untouched = 0x5a;
    EXPECT_EQ(0, launcher->ReadResponse(&untouched, 1));
    EXPECT_EQ(0x5a, untouched);
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
}

TEST_F(PythonLauncherCommandsTest, AResponseHoldsAnyBytes) {
    Start();
    const std::string bytes("\0\xff\n\x0b\0", 5);
    Fakes::SetText("response", bytes);
    EXPECT_EQ(5, Send(launcher, command));
    EXPECT_EQ(bytes, Read(launcher, 5));
}

TEST_F(PythonLauncherCommandsTest, ASecondCommandReplacesThePendingResponse) {
    Start();
    LeavePendingResponse("the first and longer one");
    EXPECT_EQ(8, Send(launcher, command));
    EXPECT_EQ("response", Read(launcher, 8));
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
}

// --- Reading ------------------------------------------------------------------------------------

TEST_F(PythonLauncherCommandsTest, AShortBufferGetsTheBeginningAndTheRestIsDropped) {
    Start();
    Send(launcher, command);
    unsigned char buffer[8] = {0, 0, 0, 0x5a, 0x5a, 0x5a, 0x5a, 0x5a};
    EXPECT_EQ(0, launcher->ReadResponse(buffer, 3));
    EXPECT_EQ("[8] 72 65 73 5a 5a 5a 5a 5a", Fakes::ShowBytes(buffer, 8));
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
}

TEST_F(PythonLauncherCommandsTest, ALengthOfZeroDropsTheResponse) {
    Start();
    Send(launcher, command);
    EXPECT_EQ(0, launcher->ReadResponse(nullptr, 0));
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
}

TEST_F(PythonLauncherCommandsTest, ANegativeLengthReadsTheWholeResponse) {
    Start();
    for (const int length : {-1, INT_MIN}) {
        Send(launcher, command);
        unsigned char buffer[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0x5a};
        EXPECT_EQ(0, launcher->ReadResponse(buffer, length));
        EXPECT_EQ("[9] 72 65 73 70 6f 6e 73 65 5a", Fakes::ShowBytes(buffer, 9)) << length;
    }
}

TEST_F(PythonLauncherCommandsTest, ALongBufferIsFilledNoFurtherThanTheResponse) {
    Start();
    Send(launcher, command);
    unsigned char buffer[10] = {0, 0, 0, 0, 0, 0, 0, 0, 0x5a, 0x5a};
    EXPECT_EQ(0, launcher->ReadResponse(buffer, 10));
    EXPECT_EQ("[10] 72 65 73 70 6f 6e 73 65 5a 5a", Fakes::ShowBytes(buffer, 10));
}

TEST_F(PythonLauncherCommandsTest, ReadingTouchesNoPython) {
    Start();
    Send(launcher, command);
    Fakes::ClearTrace();
    EXPECT_EQ("response", Read(launcher, 8));
    EXPECT_EQ("", PythonCalls());
}

TEST_F(PythonLauncherCommandsTest, ReadingWithoutACommandIsCode020) {
    Start();
    EXPECT_EQ(WithInfo(Texts::kNoResponse), ReadFailure(launcher));
    EXPECT_EQ(Lines(InfoCalls()), PythonCalls());
}

TEST_F(PythonLauncherCommandsTest, ReadingBeforeTheStartIsCode020) {
    EXPECT_EQ(WithUnboundInfo(Texts::kNoResponse, ""), ReadFailure(launcher));
}

// --- Failures without a restart -----------------------------------------------------------------

TEST_F(PythonLauncherCommandsTest, BytesThatCannotBeMadeAreNeverPacked) {
    Start();
    LeavePendingResponse("pending");
    Fakes::Fail("PyBytes_FromStringAndSize");
    Calls made = CommandCallsUntilResult(command);
    made.resize(2);
    ExpectFailure(Texts::kArguments, Joined({made, {"PyErr_Print()", "PyGILState_Release(1)"}}));
    ExpectPendingResponseAndNextCommand("pending");
}

TEST_F(PythonLauncherCommandsTest, ATupleThatCannotBeMadeReleasesTheBytes) {
    Start();
    LeavePendingResponse("pending");
    Fakes::Fail("PyTuple_Pack");
    Calls made = CommandCallsUntilResult(command);
    made.resize(4);
    ExpectFailure(Texts::kArguments, Joined({made, {"PyErr_Print()", "PyGILState_Release(1)"}}));
    ExpectPendingResponseAndNextCommand("pending");
}

TEST_F(PythonLauncherCommandsTest, ANegativeLengthOfACommandIsAFailureToBuildArguments) {
    Start();
    Bytes message = Command();
    for (const int length : {-1, INT_MIN}) {
        Fakes::ClearTrace();
        EXPECT_EQ(WithInfo(Texts::kArguments),
                  FailureOf([&] { launcher->SendCommand(message.data(), length); }));
        EXPECT_EQ(Lines(Joined({{"PyGILState_Ensure() = 1",
                                 "PyBytes_FromStringAndSize(" + std::to_string(length) + ")",
                                 "PyErr_Print()", "PyGILState_Release(1)"},
                                InfoCalls()})),
                  PythonCalls());
    }
}

TEST_F(PythonLauncherCommandsTest, ANullMessageIsAFailureToBuildArguments) {
    Start();
    EXPECT_EQ(WithInfo(Texts::kArguments), FailureOf([&] { launcher->SendCommand(nullptr, 11); }));
    EXPECT_EQ(Lines(InfoCalls()), PythonCalls());
}

TEST_F(PythonLauncherCommandsTest, ArgumentsThatNeverCanBeBuiltFailEveryCommand) {
    Start();
    Fakes::Fail("PyTuple_Pack", 1, true);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(WithInfo(Texts::kArguments), SendFailure(launcher, command));
        EXPECT_FALSE(HoldsInterpreterLock());
    }
    Fakes::FailNoMore();
    EXPECT_EQ(8, Send(launcher, command));
}

TEST_F(PythonLauncherCommandsTest, ANegativeSizeGivesTheLockBackBeforeTheLengthError) {
    Start();
    LeavePendingResponse("pending");
    Fakes::Fail("PyByteArray_Size");
    EXPECT_EQ(Texts::kLengthError, SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(command),
                            {"PyByteArray_Size(result)", "PyByteArray_AsString(result)",
                             "Py_DecRef(result)", "PyGILState_Release(1)"}})),
              PythonCalls());
    EXPECT_FALSE(HoldsInterpreterLock());
    ExpectPendingResponseAndNextCommand("pending");
}

std::string NoByteArray(const std::string& function) {
    return "Python Launcher: Failed to read the result of a method call. \n\"" + function +
           "\" must return a bytearray";
}

TEST_F(PythonLauncherCommandsTest, AResultOfAnotherTypeIsAFailureWithoutARestart) {
    Start("FakePythonWithOptional");
    LeavePendingResponse("pending");
    Fakes::SetNumber("result type", 1);
    ExpectFailure(NoByteArray("send_command"),
                  Joined({CommandCallsUntilResult(command),
                          {"PyObject_IsInstance(no bytearray, bytearray type)",
                           "Py_DecRef(no bytearray)", "PyGILState_Release(1)"}}));
    Fakes::SetNumber("result type", 0);
    ExpectPendingResponseAndNextCommand("pending");
}

TEST_F(PythonLauncherCommandsTest, AHeartBeatsResultOfAnotherTypeNamesHeartBeat) {
    Start("FakePythonWithOptional");
    Fakes::SetNumber("result type", 1);
    EXPECT_EQ(WithInfo(NoByteArray("heart_beat")), SendFailure(launcher, Command("", kHeartBeat)));
}

TEST_F(PythonLauncherCommandsTest, ATypeThatCannotBeAskedForIsShownAndFails) {
    Start("FakePythonWithOptional");
    Fakes::Fail("PyObject_IsInstance");
    EXPECT_EQ(WithInfo(NoByteArray("send_command")), SendFailure(launcher, command));
    EXPECT_EQ(Lines(Joined({CommandCallsUntilResult(command),
                            {"PyObject_IsInstance(result, bytearray type)",
                             "PyErr_ExceptionMatches(SystemExit)", "PyErr_Print()",
                             "Py_DecRef(result)", "PyGILState_Release(1)"},
                            InfoCalls()})),
              PythonCalls());
}

// Without the means to ask, the result is taken as the bytearray that it should be.
TEST_F(PythonLauncherCommandsTest, WithoutTheOptionalFunctionsTheTypeIsNotAskedFor) {
    Start();
    Fakes::SetNumber("result type", 1);
    EXPECT_EQ(0, Send(launcher, command));
}

TEST_F(PythonLauncherCommandsTest, ACommandBeforeTheStartIsCode004AndCallsNothing) {
    EXPECT_EQ(WithUnboundInfo(Texts::kNotInitialized, ""), SendFailure(launcher, command));
    EXPECT_EQ("", PythonCalls());
}

// --- The lock of the commanding thread ----------------------------------------------------------

// A thread that held the lock before its command loses it.
TEST_F(PythonLauncherCommandsTest, TheLockIsNotLeftWithTheThread) {
    Start();
    Fakes::SetNumber("lock state", 0);
    EXPECT_EQ(8, Send(launcher, command));
    Calls expected = CommandCalls(command);
    expected.front() = "PyGILState_Ensure() = 0";
    expected.resize(expected.size() - 2);
    EXPECT_EQ(
        Lines(Joined({expected,
                      {"PyGILState_Release(0)", "PyGILState_Check() = 1", "PyEval_SaveThread()"}})),
        PythonCalls());
}

// Once a subinterpreter exists PyGILState_Check always answers yes; a thread state that was given
// back must not be saved.
TEST_F(PythonLauncherCommandsTest, ACheckThatAlwaysSaysYesSavesNoThread) {
    Start();
    Fakes::SetNumber("lock check", 1);
    EXPECT_EQ(8, Send(launcher, command));
    Calls expected = CommandCalls(command);
    expected.back() = "PyGILState_Check() = 1";
    EXPECT_EQ(Lines(expected), PythonCalls());
}

}  // namespace
