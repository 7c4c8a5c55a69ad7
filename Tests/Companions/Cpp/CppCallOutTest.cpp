// Calls from C++ to another runtime: the client, the transmitter behind it, and nested calls. The
// other runtime is a fake Python bridge.
#include <dlfcn.h>

#include <atomic>
#include <future>
#include <thread>

#include "Native/Interfaces/ITransport.h"
#include "Tests/Companions/CompanionSupport.h"
#include "Tests/Companions/Cpp/CppBridgeSupport.h"
#include "Tests/Companions/Cpp/FakePythonBridge.h"

namespace {

using namespace CppBridgeSupport;
using Quorvalen::Cpp::ArgumentError;
using Quorvalen::Cpp::RemoteError;
using Quorvalen::Cpp::Runtime;

const Bytes kPythonHeader = {5, 0, 0, 0, 0, 0, 0, 0, 0, 8, 1};
const Bytes kPythonValue = {8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 2};
const Bytes kPythonException = {8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 10};

// Opened as the bridge will open it, so that both mean the same library.
template <typename Symbol>
Symbol* FakeSymbol(const char* name) {
    void* library = ::dlopen(LAYOUT_DIRECTORY "/libQuorvalenPythonRuntimeNative.so", RTLD_NOW);
    if (library == nullptr) throw std::runtime_error(::dlerror());
    return reinterpret_cast<Symbol*>(::dlsym(library, name));
}

void SetHandler(FakePython::Handler handler) {
    FakeSymbol<void(FakePython::Handler)>(
        "_ZN10FakePython10SetHandlerESt8functionIFSt6vectorIhSaIhEES3_EE")(std::move(handler));
}

// The body of a command to the fake, whose header is checked.
Json BodyOf(const Bytes& command) {
    EXPECT_EQ(kPythonHeader, Bytes(command.begin(), command.begin() + 11));
    return Json::parse(command.begin() + 11, command.end());
}

Bytes PythonValue(const Json& value) {
    return kPythonValue + Json{{"value", value}}.dump();
}

// Answers with `response`, and keeps the text of the command's body.
void AnswerWith(const Bytes& response, std::string* body = nullptr) {
    SetHandler([response, body](const Bytes& command) {
        if (body != nullptr) body->assign(command.begin() + 11, command.end());
        return response;
    });
}

TEST(CppCallOut, OperationsHaveTheirCommands) {
    std::string body;
    AnswerWith(PythonValue(5.0), &body);
    const Runtime python("Python");
    const Json handle = {{"$handle", 7}, {"type", "collections.Counter"}};

    EXPECT_EQ(Json(5.0), python.Call("math.hypot", {3, 4}));
    EXPECT_EQ(R"({"operation":"call","name":"math.hypot","arguments":[3,4]})", body);
    python.Call("f", {}, {{"key", handle}});
    EXPECT_EQ(R"({"operation":"call","name":"f","arguments":[],)"
              R"("keywords":{"key":{"$handle":7,"type":"collections.Counter"}}})",
              body);
    python.Call("f", {{"a", 1}, handle, nullptr});
    EXPECT_EQ(R"({"operation":"call","name":"f",)"
              R"("arguments":[["a",1],{"$handle":7,"type":"collections.Counter"},null]})",
              body);
    python.CallMethod(handle, "most_common", {2}, {{"k", true}});
    EXPECT_EQ(R"({"operation":"call","handle":7,"name":"most_common","arguments":[2],)"
              R"("keywords":{"k":true}})",
              body);
    python.CallObject(handle, {"x"});
    EXPECT_EQ(R"({"operation":"call","handle":7,"arguments":["x"]})", body);
    python.Create("collections.Counter", {"abc"});
    EXPECT_EQ(R"({"operation":"create","name":"collections.Counter","arguments":["abc"]})", body);
    python.Get("sys.version");
    EXPECT_EQ(R"({"operation":"get","name":"sys.version"})", body);
    python.Set("module.value", {1, 2});
    EXPECT_EQ(R"({"operation":"set","name":"module.value","value":[1,2]})", body);
    python.GetAttribute(handle, "x");
    EXPECT_EQ(R"({"operation":"get","handle":7,"name":"x"})", body);
    python.SetAttribute(handle, "x", "y");
    EXPECT_EQ(R"({"operation":"set","handle":7,"name":"x","value":"y"})", body);
    python.Release(handle);
    EXPECT_EQ(R"({"operation":"release","handle":7})", body);
}

TEST(CppCallOut, HeaderNamesTheVersion) {
    Bytes command;
    SetHandler([&](const Bytes& bytes) {
        command = bytes;
        return PythonValue(nullptr);
    });
    Runtime("Python", 8).Get("a");
    const Bytes header = {5, 8, 0, 0, 0, 0, 0, 0, 0, 8, 1};
    ExpectSame(header + R"({"operation":"get","name":"a"})", command);
}

TEST(CppCallOut, HandleComesBackAsItWasSent) {
    const Json handle = {{"$handle", 18446744073709551615u}, {"type", "list"}};
    AnswerWith(PythonValue(handle));
    EXPECT_EQ(handle, Runtime("Python").Create("list"));
}

TEST(CppCallOut, ExceptionResponseBecomesRemoteError) {
    AnswerWith(kPythonException +
               R"({"type":"builtins.ValueError","message":"wrong","traceback":"Traceback\n"})");
    try {
        Runtime("Python").Call("f");
        FAIL() << "no exception";
    } catch (const RemoteError& error) {
        EXPECT_STREQ("builtins.ValueError: wrong", error.what());
        EXPECT_EQ("builtins.ValueError", error.Type());
        EXPECT_EQ("wrong", error.Message());
        EXPECT_EQ("Traceback\n", error.Traceback());
    }
}

TEST(CppCallOut, RemoteErrorThatNobodyCatchesKeepsItsTraceback) {
    AnswerWith(kPythonException + R"({"type":"a.B","message":"c","traceback":"Traceback\n"})");
    Quorvalen::Cpp::Register("fail", [] { Runtime("Python").Call("f"); });
    ExpectSame(Exception("Quorvalen::Cpp::RemoteError", "a.B: c", "Traceback\n"),
               Call("fail", Json::array()));
}

TEST(CppCallOut, MalformedResponses) {
    const auto failure = [](const Bytes& response) {
        AnswerWith(response);
        return Thrown<std::runtime_error>([] { Runtime("Python").Call("f"); });
    };
    const std::string broken = "the response breaks the command format: ";
    EXPECT_EQ("the response has 0 bytes; expected a header of 11 bytes at least", failure({}));
    EXPECT_EQ(broken + "the body must be one JSON object, not an array",
              failure(kPythonValue + "[]"));
    EXPECT_EQ(broken + "[json.exception.out_of_range.403] key 'value' not found",
              failure(kPythonValue + "{}"));
    EXPECT_EQ(broken + "[json.exception.type_error.302] type must be string, but is number",
              failure(kPythonException + R"({"type":1,"message":"","traceback":""})"));
    Bytes wrongKind = kPythonValue + "{}";
    wrongKind[10] = 3;
    EXPECT_EQ("the kind of the response is 3; expected 2 or 10", failure(wrongKind));

    *FakeSymbol<int>("_ZN10FakePython10readStatusE") = -3;
    EXPECT_EQ("the response could not be read; status -3", failure(PythonValue(1)));
}

TEST(CppCallOut, WhatCannotBeSentIsRefused) {
    const Runtime python("Python");
    const auto refusal = [&](const Json& value) {
        return Thrown<std::invalid_argument>([&] { python.Call("f", {value}); });
    };
    EXPECT_EQ("a number is not finite", refusal(std::numeric_limits<double>::infinity()));
    EXPECT_EQ("a text is not UTF-8", refusal("\xff"));
    EXPECT_EQ("a key of an object begins with $: \"$a\"", refusal({{"$a", 1}}));
    EXPECT_EQ("a key of an object begins with $: \"$handle\"", refusal({{"$handle", "x"}}));
    EXPECT_EQ("the keywords must be an object, not an array", Thrown<ArgumentError>([&] {
                  python.Call("f", {}, {1, 2});
              }));
    EXPECT_EQ("expected a handle, {\"$handle\": ...}, not a string",
              Thrown<ArgumentError>([&] { python.CallMethod("x", "f"); }));
    EXPECT_EQ(
        "there is no runtime \"python\"; expected one of Clr, Go, Jvm, Netcore, Perl, Python, "
        "Ruby, "
        "Nodejs, Cpp, Php, Python2",
        Thrown<std::invalid_argument>([] { Runtime("python"); }));
}

TEST(CppCallOut, RuntimeThatIsNotInstalled) {
    const CompanionSupport::TemporaryDirectory directory;
    const CompanionSupport::ScopedWorkingDirectory here(directory.Path());
    EXPECT_EQ("Quorvalen Native Exception: Exception code 001. \nCannot load: " LAYOUT_DIRECTORY
              "/libQuorvalenJvmRuntimeNative.so. \nError: File not found.",
              Thrown<std::runtime_error>([] { Runtime("Jvm").Call("f"); }));
}

// Python calls C++ calls Python ...: each level adds its letter around what the inner ones answer.
Json Descend(const std::string& path, int levels) {
    if (levels == 0) return path + "|";
    const Json inner = Runtime("Python").Call("descend", {path + "c", levels - 1});
    return inner.get<std::string>() + "C";
}

Bytes DescendInPython(const Bytes& command) {
    const Json arguments = BodyOf(command).at("arguments");
    const std::string path = arguments[0].get<std::string>() + "p";
    const int levels = arguments[1].get<int>();
    if (levels == 0) return PythonValue(path + "|");
    const Bytes response = Call("descend", {path, levels - 1});
    const Json body = Json::parse(response.begin() + 11, response.end());
    return PythonValue(body.at("value").get<std::string>() + "P");
}

TEST(CppCallOut, NestedCallsOnOneThread) {
    SetHandler(DescendInPython);
    Quorvalen::Cpp::Register("descend", &Descend);
    ExpectSame(Value("cpcpcp|PCPCPC"), Call("descend", {"", 6}));
    ExpectSame(Value("cpcpcpcp|CPCPCPC"), Call("descend", {"", 7}));
}

TEST(CppCallOut, NestedCallsOnManyThreads) {
    SetHandler(DescendInPython);
    Quorvalen::Cpp::Register("descend", &Descend);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            const std::string own = std::to_string(i);
            for (int round = 0; round < 50; ++round) {
                ExpectSame(Value(own + "cpcpcp|PCPCPC"), Call("descend", {own, 6}));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// A lock around a whole command would let neither of the two come back.
TEST(CppCallOut, CommandUnderWayHoldsUpNoOtherThread) {
    std::promise<void> isInside;
    std::promise<void> otherIsDone;
    SetHandler([&](const Bytes& command) {
        if (BodyOf(command).at("name") == "wait") {
            isInside.set_value();
            otherIsDone.get_future().wait();
        }
        return PythonValue(1);
    });
    std::thread waiting([] { EXPECT_EQ(Json(1), Runtime("Python").Call("wait")); });
    isInside.get_future().wait();
    EXPECT_EQ(Json(1), Runtime("Python").Call("pass"));
    otherIsDone.set_value();
    waiting.join();
}

TEST(CppCallOut, EntryPointsReportFailuresByStatusAndText) {
    const CompanionSupport::TemporaryDirectory directory;
    const CompanionSupport::ScopedWorkingDirectory here(directory.Path());
    EXPECT_STREQ("Undefined error", GetNativeError());
    Bytes command = kPythonHeader;
    EXPECT_EQ(-2, SendCommand(command.data(), 10));
    EXPECT_STREQ("Message byte array length is less than 11", GetNativeError());
    EXPECT_EQ(-2, SendCommand(nullptr, 11));
    EXPECT_STREQ(
        "Quorvalen Native Exception: The message is a null pointer. \nPass the bytes of a command",
        GetNativeError());
    EXPECT_EQ(-3, ReadResponse(command.data(), 11));
    EXPECT_STREQ(
        "Quorvalen Native Exception: No command has chosen a transport channel yet. \n"
        "Call SendCommand before ReadResponse",
        GetNativeError());
    command[2] = 3;
    EXPECT_EQ(-2, SendCommand(command.data(), 11));
    EXPECT_STREQ("Quorvalen Native Exception: Exception code 023.", GetNativeError());
    std::thread([] { EXPECT_STREQ("Undefined error", GetNativeError()); }).join();
}

TEST(CppCallOut, EntryPointsCarryCommands) {
    Bytes seen;
    SetHandler([&](const Bytes& command) {
        seen = command;
        return PythonValue("answer");
    });
    Bytes command = kPythonHeader + "body";
    const int length = SendCommand(command.data(), static_cast<int>(command.size()));
    Bytes response(static_cast<std::size_t>(length));
    response[0] = 5;
    EXPECT_EQ(0, ReadResponse(response.data(), length));
    ExpectSame(command, seen);
    ExpectSame(PythonValue("answer"), response);
}

// A channel that answers with its name, and tells when it is destroyed.
class NamedChannel : public Quorvalen::Native::Interfaces::ITransport {
  public:
    NamedChannel(char channelName, std::atomic<int>& counter)
        : name(channelName), destroyed(counter) {}
    ~NamedChannel() override { ++destroyed; }
    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }
    int SendCommand(unsigned char*, int) override { return 0; }
    int ReadResponse(unsigned char* buffer, int) override {
        buffer[0] = static_cast<unsigned char>(name);
        return 0;
    }
    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 0;
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }

  private:
    char name;
    std::atomic<int>& destroyed;
};

TEST(CppCallOut, EachThreadHasItsOwnChannel) {
    static std::atomic<int> destroyed = 0;
    auto* transmitter = CreateTransmitter(RuntimeOperationMode::CallingRuntime);
    unsigned char buffer = 0;
    transmitter->SetTransportChannel(new NamedChannel('a', destroyed));
    std::thread([&] {
        unsigned char own = 0;
        transmitter->SetTransportChannel(new NamedChannel('b', destroyed));
        transmitter->ReadResponse(&own, 1);
        EXPECT_EQ('b', own);
    }).join();
    EXPECT_EQ(1, destroyed);
    transmitter->ReadResponse(&buffer, 1);
    EXPECT_EQ('a', buffer);

    AnswerWith(PythonValue(1));
    EXPECT_EQ(Json(1), Runtime("Python").Call("f"));
    EXPECT_EQ(2, destroyed);
}

TEST(CppCallOut, ResponseComesFromTheCommandsChannelWhateverIsNestedInIt) {
    static std::atomic<int> destroyed = 0;
    SetHandler([](const Bytes&) {
        CreateTransmitter(RuntimeOperationMode::CallingRuntime)
            ->SetTransportChannel(new NamedChannel('n', destroyed));
        return PythonValue("answer");
    });
    EXPECT_EQ(Json("answer"), Runtime("Python").Call("f"));
    EXPECT_EQ(1, destroyed);
}

TEST(CppCallOut, EmbeddedRuntimeAndDeploymentGoToTheOtherBridge) {
    auto* transmitter = CreateTransmitter(RuntimeOperationMode::CallingRuntime);
    Bytes command = kPythonHeader + "body";
    EXPECT_EQ(15 + 5 + 100, transmitter->DeployRuntime(command.data(), 15, "12345", 100));
    EXPECT_EQ(9 + 3, transmitter->SetEmbeddedRuntime(8, 5, 9, "abc"));
}

}  // namespace
