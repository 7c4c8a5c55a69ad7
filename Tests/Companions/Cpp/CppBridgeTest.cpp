// The receiver of the C++ bridge: whole responses to whole commands; and how functions are
// registered.
#include <pthread.h>

#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <set>
#include <thread>

#include "Companions/Cpp/MessageLength.h"
#include "Tests/Companions/CompanionSupport.h"
#include "Tests/Companions/Cpp/CppBridgeSupport.h"
#include "Tests/Companions/Cpp/ScarceMemory.h"

using Quorvalen::Cpp::Json;

struct Point {
    int x = 0;
    int y = 0;
};

void from_json(const Json& json, Point& point) {
    json.at("x").get_to(point.x);
    json.at("y").get_to(point.y);
}

void to_json(Json& json, const Point& point) {
    json = {{"x", point.x}, {"y", point.y}};
}

namespace Weather {

class Storm : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace Weather

namespace {

using namespace CppBridgeSupport;
using Quorvalen::Cpp::Register;
using Quorvalen::Cpp::Unregister;

int Add(int a, int b) {
    return a + b;
}

Json Nested(int levels) {
    Json value = Json::array();
    for (int level = 1; level < levels; ++level) {
        Json outer = Json::array();
        outer.push_back(std::move(value));
        value = std::move(outer);
    }
    return value;
}

void ExpectMalformed(const std::string& message, const std::string& body) {
    ExpectSame(Exception("Quorvalen::Cpp::MalformedCommand", message), SendBody(body));
}

void ExpectNotSupported(const std::string& message, const std::string& body) {
    ExpectSame(Exception("Quorvalen::Cpp::NotSupported", message), SendBody(body));
}

// A function that takes what it gets, and tells how often it was called.
std::atomic<int> echoes = 0;
void RegisterEcho() {
    Register("echo", [](const Json& arguments) {
        ++echoes;
        return arguments;
    });
}

TEST(CppBridge, CallAnswersWithTheExactBytes) {
    Register("add", &Add);
    ExpectSame(kValueHeader + R"({"value":3})",
               SendBody(R"({"operation":"call","name":"add","arguments":[1,2],"keywords":{}})"));
    ExpectSame(kExceptionHeader + R"({"message":"add: expected 2 arguments, not 0",)"
                                  R"("traceback":"","type":"Quorvalen::Cpp::ArgumentError"})",
               SendBody(R"({"operation":"call","name":"add"})"));
}

TEST(CppBridge, NameIsLookedUpAsAWhole) {
    Register("a.b", [] { return 1; });
    ExpectSame(Value(1), Call("a.b", Json::array()));
    for (const std::string name : {"a", "b", "a.b.c", "", "a..b"}) {
        ExpectSame(Exception("Quorvalen::Cpp::UnknownFunction",
                             "there is no C++ function \"" + name +
                                 "\"; load the plug-in that registers it with "
                                 "\"quorvalen.load_plugin\""),
                   Call(name, Json::array()));
    }
}

TEST(CppBridge, ParametersOfEveryKind) {
    Register("add", &Add);
    Register("byte", [](unsigned char value) { return value; });
    Register("long", [](std::int64_t value) { return value; });
    Register("unsigned", [](std::uint64_t value) { return value; });
    Register("not", [](bool value) { return !value; });
    Register("half", [](double value) { return value / 2; });
    Register("shout", [](const std::string& text) { return text + "!"; });
    Register("move", [](std::string&& text) { return std::string(std::move(text)); });
    Register("sum", [](const std::vector<std::vector<int>>& rows) { return rows.at(1).at(0); });
    Register("mirror", [](Point point) { return Point{point.y, point.x}; });
    Register("second", [](int, const Json& value) { return value; });
    Register("none", [] {});
    Register("nothing", [](const Json&) {});
    Register("object", std::negate<int>());

    ExpectSame(Value(-1), Call("add", {1, -2}));
    ExpectSame(Value(255), Call("byte", {255}));
    ExpectSame(Value(std::numeric_limits<std::int64_t>::min()),
               Call("long", {std::numeric_limits<std::int64_t>::min()}));
    ExpectSame(Value(std::numeric_limits<std::uint64_t>::max()),
               Call("unsigned", {std::numeric_limits<std::uint64_t>::max()}));
    ExpectSame(Value(false), Call("not", {true}));
    ExpectSame(Value(1.5), Call("half", {3}));
    ExpectSame(Value("\u00e9!"), Call("shout", {"\u00e9"}));
    ExpectSame(Value("text"), Call("move", {"text"}));
    ExpectSame(Value(3), Call("sum", {{{1, 2}, {3}}}));
    ExpectSame(Value({{"x", 2}, {"y", 1}}), Call("mirror", {{{"x", 1}, {"y", 2}}}));
    ExpectSame(Value({{"a", nullptr}}), Call("second", {1, {{"a", nullptr}}}));
    ExpectSame(Value(nullptr), Call("none", Json::array()));
    ExpectSame(Value(nullptr), Call("nothing", {1, 2, 3}));
    ExpectSame(Value(7), Call("object", {-7}));
}

TEST(CppBridge, ArgumentsThatDoNotFitAreRefused) {
    Register("add", &Add);
    Register("byte", [](unsigned char) {});
    Register("long", [](std::int64_t) {});
    Register("not", [](bool) {});
    Register("half", [](double) {});
    Register("shout", [](const std::string&) {});
    Register("sum", [](const std::vector<std::vector<int>>&) {});
    Register("mirror", [](Point) {});
    const std::string range = " must be an integer from -2147483648 to 2147483647, not ";
    const auto refused = [](const std::string& message, const std::string& name,
                            const Json& arguments) {
        ExpectSame(Exception("Quorvalen::Cpp::ArgumentError", name + ": " + message),
                   Call(name, arguments));
    };
    refused("expected 2 arguments, not 3", "add", {1, 2, 3});
    refused("argument 1" + range + "a string", "add", {"1", "2"});
    refused("argument 2" + range + "true or false", "add", {1, true});
    refused("argument 2" + range + "a number", "add", {1, 2.5});
    refused("argument 2" + range + "2147483648", "add", {1, 2147483648});
    refused("argument 1" + range + "-2147483649", "add", {-2147483649, 1});
    refused("argument 1 must be an integer from 0 to 255, not 256", "byte", {256});
    refused("argument 1 must be an integer from 0 to 255, not -1", "byte", {-1});
    refused(
        "argument 1 must be an integer from -9223372036854775808 to 9223372036854775807, not "
        "9223372036854775808",
        "long", {9223372036854775808u});
    refused("argument 1 must be true or false, not a number", "not", {1});
    refused("argument 1 must be a number, not null", "half", {nullptr});
    refused("argument 1 must be a string, not a handle", "shout", {{{"$handle", 1}}});
    refused("argument 1 must be an array, not an object", "sum", {{{"a", 1}}});
    refused("argument 1, element 2, element 1" + range + "an array", "sum",
            Json::parse("[[[1],[[]]]]"));
    refused("argument 1 cannot be converted: [json.exception.out_of_range.403] key 'y' not found",
            "mirror", {{{"x", 1}}});
}

TEST(CppBridge, ValuesComeBackAsTheyWent) {
    RegisterEcho();
    const std::string arguments =
        R"([null,true,-9223372036854775808,18446744073709551615,0.1,5e-324,"\u0000é😀\"\\",[],{}])";
    const Json expected = Json::parse(arguments);
    ExpectSame(Value(expected),
               SendBody(R"({"operation":"call","name":"echo","arguments":)" + arguments + "}"));
}

TEST(CppBridge, HandlesPassThroughUnchanged) {
    RegisterEcho();
    const Json handles = {{{"$handle", 7}, {"type", "list"}}, {{"a", {{"$handle", -1}}}}};
    ExpectSame(Value(handles), Call("echo", handles));
}

TEST(CppBridge, HundredLevelsAreSentAndMoreAreRefused) {
    RegisterEcho();
    Register("identity", [](const Json& arguments) { return arguments.at(0); });
    Register("nested", [](int levels) { return Nested(levels); });
    ExpectSame(Value(Nested(100)), Call("identity", Json::array({Nested(100)})));
    ExpectSame(Value(Nested(100)), Call("nested", {100}));
    const Bytes tooDeep =
        Exception("Quorvalen::Cpp::NotPlain",
                  "the result cannot be sent: the value is nested more than 100 levels deep");
    ExpectSame(tooDeep, Call("echo", Json::array({Nested(100)})));
    ExpectSame(tooDeep, Call("nested", {100000}));
    ExpectMalformed("the body is nested too deeply",
                    R"({"operation":"call","name":"echo","arguments":)" + Nested(102).dump() + "}");
    ExpectMalformed("the body is nested too deeply", std::string(1000000, '['));
}

TEST(CppBridge, ResultsThatJsonWouldChangeAreRefused) {
    Register("infinite", [] { return std::vector<double>{1, 1 / 0.0}; });
    Register("nan", [] { return std::numeric_limits<double>::quiet_NaN(); });
    Register("bytes", [] { return "\xff"; });
    Register("key", [] { return Json{{"$a", 1}}; });
    Register("bad key", [] { return Json{{"\xff", 1}}; });
    Register("handle", [] { return Json{{"$handle", 1}, {"other", 2}}; });
    Register("binary", [] { return Json::binary({1, 2}); });
    const auto refused = [](const std::string& reason, const std::string& name) {
        ExpectSame(Exception("Quorvalen::Cpp::NotPlain", "the result cannot be sent: " + reason),
                   Call(name, Json::array()));
    };
    refused("a number is not finite", "infinite");
    refused("a number is not finite", "nan");
    refused("a text is not UTF-8", "bytes");
    refused("a key of an object begins with $: \"$a\"", "key");
    refused("a text is not UTF-8", "bad key");
    refused("a key of an object begins with $: \"$handle\"", "handle");
    refused("a value is no JSON value", "binary");
}

TEST(CppBridge, BodiesThatAreNoCommand) {
    for (const std::string body : {"", "{\"a\":1} x", "\xff{}", "{\"a\":\"\xff\"}", "{\"a\":NaN}",
                                   "{\"a\":1e999}", "{\"a\":\"\\ud800\"}", "{\"a\":1,}", "\x00"}) {
        const std::string reason =
            Thrown<Json::exception>([&] { Json parsed = Json::parse(body); });
        ExpectMalformed("the body is not JSON in UTF-8: " + reason, body);
    }
    const std::string notAnObject = "the body must be one JSON object, not ";
    ExpectMalformed(notAnObject + "an array", "[]");
    ExpectMalformed(notAnObject + "a number", "1");
    ExpectMalformed(notAnObject + "null", "null");
    ExpectMalformed(notAnObject + "true or false", "true");
    ExpectMalformed(notAnObject + "a string", "\"a\"");
    ExpectMalformed(notAnObject + "a handle", R"({"$handle":1})");
    ExpectMalformed("an object has the member \"a\" twice", R"({"a":1,"b":2,"\u0061":3})");
    ExpectMalformed(
        "an object has the member \"$b\"; of the keys that begin with $ there is only \"$handle\"",
        R"({"a":{"\u0024b":1}})");
    ExpectMalformed("\"$handle\" must be an integer, not a string", R"({"a":{"$handle":"1"}})");
    ExpectMalformed("\"$handle\" must be an integer, not a number", R"({"a":{"$handle":1.0}})");
    ExpectMalformed("beside \"$handle\" only \"type\" may stand, not \"b\"",
                    R"({"a":{"$handle":1,"b":2}})");
    ExpectMalformed("the integer 18446744073709551616 lies outside -2^63 to 2^64 - 1",
                    R"({"a":18446744073709551616})");
    ExpectMalformed("the integer -9223372036854775809 lies outside -2^63 to 2^64 - 1",
                    R"({"a":[-9223372036854775809]})");
}

TEST(CppBridge, MembersThatBreakTheFormat) {
    RegisterEcho();
    const std::string known = "; expected one of call, create, get, release, set";
    ExpectMalformed("the member \"operation\" is missing" + known, "{}");
    ExpectMalformed("\"operation\" is \"Call\"" + known, R"({"operation":"Call"})");
    ExpectMalformed("\"operation\" is a number" + known, R"({"operation":7})");
    ExpectMalformed("the operation \"call\" needs the member \"name\" or \"handle\"",
                    R"({"operation":"call"})");
    ExpectMalformed(
        "the operation \"call\" knows no member \"argument\"; it knows name, handle, arguments, "
        "keywords",
        R"({"operation":"call","name":"echo","argument":[1]})");
    const std::string member = "the member \"";
    const std::string wrong = "\" of the operation \"call\" must be ";
    ExpectMalformed(member + "name" + wrong + "a string, not null",
                    R"({"operation":"call","name":null})");
    ExpectMalformed(member + "handle" + wrong + "an integer, not a number",
                    R"({"operation":"call","handle":1.5})");
    ExpectMalformed(member + "arguments" + wrong + "an array, not a handle",
                    R"({"operation":"call","name":"echo","arguments":{"$handle":1}})");
    ExpectMalformed(member + "keywords" + wrong + "an object, not an array",
                    R"({"operation":"call","name":"echo","keywords":[]})");
    ExpectMalformed(member + "keywords" + wrong + "an object, not a handle",
                    R"({"operation":"call","name":"echo","keywords":{"$handle":1}})");
    EXPECT_EQ(0, echoes);
}

TEST(CppBridge, WhatNeedsObjectsIsNotSupported) {
    RegisterEcho();
    for (const std::string operation : {"create", "get", "set", "release"}) {
        ExpectNotSupported("the operation \"" + operation +
                               "\" is not supported by the C++ runtime, which keeps no objects; it "
                               "knows call",
                           R"({"operation":")" + operation + R"(","name":"echo","handle":1})");
    }
    ExpectNotSupported("the C++ runtime keeps no objects, so there is no handle 12",
                       R"({"operation":"call","handle":12,"name":"echo"})");
    ExpectNotSupported("C++ functions have no keyword arguments; pass them by position",
                       R"({"operation":"call","name":"echo","keywords":{"a":1}})");
    EXPECT_EQ(0, echoes);
}

TEST(CppBridge, ExceptionsBecomeResponses) {
    Register("storm", [] { throw Weather::Storm("thunder"); });
    Register("range", [] { std::string("a").at(1); });
    Register("int", [] { throw 7; });
    Register("text", [] { throw "text"; });
    Register("bytes", [] { throw std::runtime_error("a\xff"); });
    const std::string foreign = "an exception that is not derived from std::exception";
    ExpectSame(Exception("Weather::Storm", "thunder"), Call("storm", Json::array()));
    ExpectSame(Exception("int", foreign), Call("int", Json::array()));
    ExpectSame(Exception("char const*", foreign), Call("text", Json::array()));
    ExpectSame(Exception("std::runtime_error", "a\ufffd"), Call("bytes", Json::array()));
    ExpectSame(Exception("std::out_of_range", Thrown<std::out_of_range>([] {
                             static_cast<void>(std::string("a").at(1));
                         })),
               Call("range", Json::array()));
}

TEST(CppBridge, ReportThatFindsNoMemory) {
    Register("starve", [] {
        const std::runtime_error failure(std::string(100000, 'a'));
        SetLargestAllocation(50000);
        throw failure;
    });
    Bytes command =
        kHeader +
        Json{{"operation", "call"}, {"name", "starve"}, {"arguments", Json::array()}}.dump();
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    const int length = receiver->SendCommand(command.data(), static_cast<int>(command.size()));
    SetLargestAllocation(kNoLimit);
    Bytes response(static_cast<std::size_t>(length));
    EXPECT_EQ(0, receiver->ReadResponse(response.data(), length));
    const Bytes header = {0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 10};
    ExpectSame(header + R"({"type":"std::bad_alloc","message":"the failure could not be reported",)"
                        R"("traceback":""})",
               response);
}

TEST(CppBridge, ThreadThatEndsInsideAFunctionJustEnds) {
    static std::atomic<bool> cameBack = false;
    Register("end", [] { ::pthread_exit(nullptr); });
    pthread_t thread;
    ASSERT_EQ(0, ::pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         Call("end", Json::array());
                         cameBack = true;
                         return nullptr;
                     },
                     nullptr));
    ASSERT_EQ(0, ::pthread_join(thread, nullptr));
    EXPECT_FALSE(cameBack);
}

TEST(CppBridge, HeartbeatComesBackWithSenderAndTargetExchanged) {
    const Bytes heartbeat = {8, 7, 0, 1, 2, 3, 4, 5, 6, 5, 11};
    const Bytes answer = {5, 0, 0, 1, 2, 3, 4, 5, 6, 8, 11};
    ExpectSame(answer, Send(heartbeat));
    ExpectSame(answer + "\xff{12", Send(heartbeat + "\xff{12"));
}

TEST(CppBridge, AnyOtherKindIsACommand) {
    Register("add", &Add);
    for (const unsigned char kind : Bytes{0, 2, 10, 12, 255}) {
        Bytes command = kHeader + R"({"operation":"call","name":"add","arguments":[1,2]})";
        command[10] = kind;
        ExpectSame(Value(3), Send(command));
    }
}

TEST(CppBridge, CommandShorterThanAHeader) {
    const auto tooShort = [](const Bytes& header, int size) {
        return header + Json{{"type", "Quorvalen::Cpp::MalformedCommand"},
                             {"message", "the command has " + std::to_string(size) +
                                             " bytes; expected a header of 11 bytes and a body"},
                             {"traceback", ""}}
                            .dump();
    };
    ExpectSame(tooShort({0, 0, 2, 0, 0, 0, 0, 0, 0, 8, 10}, 3), Send({8, 3, 2}));
    ExpectSame(tooShort({5, 0, 2, 192, 168, 1, 20, 0x1F, 0x90, 8, 10}, 10),
               Send(Bytes(kHeader.begin(), kHeader.begin() + 10)));
    ExpectSame(tooShort({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10}, 0), Send({}));

    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    for (const auto& [message, length] :
         {std::pair<unsigned char*, int>(nullptr, 20),
          std::pair<unsigned char*, int>(Bytes(kHeader).data(), -1)}) {
        Bytes response(static_cast<std::size_t>(receiver->SendCommand(message, length)));
        receiver->ReadResponse(response.data(), static_cast<int>(response.size()));
        ExpectSame(tooShort({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10}, 0), response);
    }
}

TEST(CppBridge, ResponseIsReadOnceAndByItsThread) {
    const CompanionSupport::TemporaryDirectory directory;
    const CompanionSupport::ScopedWorkingDirectory here(directory.Path());
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    const auto failure = [&] {
        unsigned char byte = 0;
        return Thrown<std::runtime_error>([&] { receiver->ReadResponse(&byte, 1); });
    };
    const std::string nothingThere =
        "Cpp Launcher: No response is waiting on this thread. \n"
        "Call SendCommand before ReadResponse";
    EXPECT_EQ(nothingThere, failure());

    Bytes heartbeat = {8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 11, 1, 2, 3};
    EXPECT_EQ(14, receiver->SendCommand(heartbeat.data(), 14));
    std::thread([&] { EXPECT_EQ(nothingThere, failure()); }).join();
    Bytes response(12);
    EXPECT_EQ(0, receiver->ReadResponse(response.data(), 11));
    EXPECT_EQ((Bytes{5, 0, 0, 0, 0, 0, 0, 0, 0, 8, 11, 0}), response);
    EXPECT_EQ(nothingThere, failure());
}

TEST(CppBridge, LaterCommandReplacesAnUnreadResponse) {
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    Bytes heartbeat = {8, 0, 0, 0, 0, 0, 0, 0, 0, 5, 11, 1};
    receiver->SendCommand(heartbeat.data(), 12);
    heartbeat[11] = 2;
    receiver->SendCommand(heartbeat.data(), 12);
    Bytes response(12);
    // A negative length reads the whole response.
    EXPECT_EQ(0, receiver->ReadResponse(response.data(), -1));
    EXPECT_EQ((Bytes{5, 0, 0, 0, 0, 0, 0, 0, 0, 8, 11, 2}), response);
}

TEST(CppBridge, FunctionMaySendCommandsItself) {
    Register("countdown", [](int number) -> std::string {
        if (number == 0) return "0";
        const Bytes inner = Call("countdown", {number - 1});
        return std::to_string(number) + " " +
               Json::parse(inner.begin() + 11, inner.end()).at("value").get<std::string>();
    });
    ExpectSame(Value("4 3 2 1 0"), Call("countdown", {4}));
}

TEST(CppBridge, ManyThreadsGetTheirOwnResponses) {
    Register("add", &Add);
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([number] {
            for (int round = 0; round < 100; ++round) {
                ExpectSame(Value(number + round), Call("add", {number, round}));
                const std::string own = "f" + std::to_string(number);
                Register(own, [round] { return round; });
                ExpectSame(Value(round), Call(own, Json::array()));
                EXPECT_TRUE(Unregister(own));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST(CppBridge, FunctionThatIsUnregisteredDuringACallFinishes) {
    std::promise<void> inside;
    std::promise<void> unregistered;
    auto watch = std::make_shared<int>(5);
    Register("wait", [&, watch] {
        inside.set_value();
        unregistered.get_future().wait();
        return *watch;
    });
    std::thread caller([] { ExpectSame(Value(5), Call("wait", Json::array())); });
    inside.get_future().wait();
    EXPECT_TRUE(Unregister("wait"));
    EXPECT_EQ(2, watch.use_count());
    unregistered.set_value();
    caller.join();
    EXPECT_EQ(1, watch.use_count());
    EXPECT_FALSE(Unregister("wait"));
}

TEST(CppBridge, RegistrationRefusesWhatCouldNotBeCalled) {
    const auto refusal = [](const std::string& name, std::function<int()> function) {
        return Thrown<std::invalid_argument>([&] { Register(name, function); });
    };
    const auto one = [] { return 1; };
    EXPECT_EQ("(nothing)", refusal("one", one));
    EXPECT_EQ("there is a function \"one\" already; unregister it first", refusal("one", one));
    for (const std::string name : {"", ".", ".a", "a.", "a..b"}) {
        EXPECT_EQ("the name \"" + name + "\" is empty or has an empty part", refusal(name, one));
    }
    EXPECT_EQ("there is no function behind \"none\"", refusal("none", nullptr));
    EXPECT_EQ("the name \"quorvalen.x\" is reserved; only the bridge's own begin with quorvalen.",
              refusal("quorvalen.x", one));
    EXPECT_FALSE(Unregister("quorvalen.load_plugin"));
    ExpectSame(Value(1), Call("one", Json::array()));
}

TEST(CppBridge, MessagesHaveAtMostTheLengthOfTheBoundary) {
    using Quorvalen::CppBridge::MessageLength;
    EXPECT_EQ(11u, MessageLength(0));
    EXPECT_EQ(2147483647u, MessageLength(2147483636));
    EXPECT_EQ("the value is too large for one message",
              Thrown<std::invalid_argument>([] { MessageLength(2147483637); }));
}

TEST(CppBridge, SingletonsAreCreatedOnce) {
    EXPECT_EQ(nullptr, GetReceiver());
    EXPECT_EQ(nullptr, GetTransmitter());
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    EXPECT_EQ(receiver, CreateReceiver(RuntimeOperationMode::CallingRuntime));
    EXPECT_EQ(receiver, GetReceiver());
    EXPECT_EQ(nullptr, GetTransmitter());
    auto* transmitter = CreateTransmitter(RuntimeOperationMode::CallingRuntime);
    EXPECT_EQ(transmitter, CreateTransmitter(RuntimeOperationMode::CalledRuntime));
    EXPECT_EQ(transmitter, GetTransmitter());
}

TEST(CppBridge, SingletonsAreCreatedOnceByManyThreads) {
    std::vector<void*> receivers(8);
    std::vector<std::thread> threads;
    for (void*& receiver : receivers) {
        threads.emplace_back(
            [&] { receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(1u, std::set<void*>(receivers.begin(), receivers.end()).size());
}

TEST(CppBridge, FirstInitializationTellsWhatRunsHere) {
    const CompanionSupport::ScopedEnvironment level("QUORVALEN_LOGGING_LEVEL", "all");
    CompanionSupport::CapturedOutput output;
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    EXPECT_EQ(0, receiver->Initialize(5, 8, 0));
    EXPECT_EQ(0, receiver->Initialize(5, 8, 0));
    EXPECT_EQ("Cpp Native Launcher Runtime Info:\nLibrary Location: " LAYOUT_DIRECTORY
              "/\nCompiler Version: " __VERSION__ "\n\n",
              output.Stop());
}

TEST(CppBridge, WhatThereIsNothingToDoForIsDone) {
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    unsigned char byte = 0;
    EXPECT_EQ(0, receiver->LoadOptimizedMethod("method"));
    EXPECT_EQ(0, receiver->SetEmbeddedRuntime(1, "/path/"));
    EXPECT_EQ(0, receiver->DeployRuntime(&byte, 1, "/path/", 1));
}

// Without parameters, because the names of the JSON package's types hold its version.
std::set<std::string> ExportedFunctions() {
    std::set<std::string> names;
    const std::string command = "'" NM_PROGRAM "' -DC --defined-only '" COMPANION_LIBRARY "'";
    for (const std::string& line : CompanionSupport::Lines(CompanionSupport::OutputOf(command))) {
        const std::string name = line.substr(line.find(' ') + 3);
        names.insert(name.substr(0, name.find('(')));
    }
    return names;
}

TEST(CppBridge, ExportsNothingElse) {
    const std::set<std::string> expected = {
        "CreateReceiver",
        "CreateTransmitter",
        "GetNativeError",
        "GetReceiver",
        "GetTransmitter",
        "Quorvalen::Cpp::RegisterJsonFunction",
        "Quorvalen::Cpp::Runtime::Call",
        "Quorvalen::Cpp::Runtime::CallMethod",
        "Quorvalen::Cpp::Runtime::CallObject",
        "Quorvalen::Cpp::Runtime::Create",
        "Quorvalen::Cpp::Runtime::Get",
        "Quorvalen::Cpp::Runtime::GetAttribute",
        "Quorvalen::Cpp::Runtime::Release",
        "Quorvalen::Cpp::Runtime::Runtime",
        "Quorvalen::Cpp::Runtime::Set",
        "Quorvalen::Cpp::Runtime::SetAttribute",
        "Quorvalen::Cpp::Unregister",
        "ReadResponse",
        "SendCommand",
    };
    EXPECT_EQ(expected, ExportedFunctions());
}

}  // namespace
