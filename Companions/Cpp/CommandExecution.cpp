#include "CommandExecution.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "Errors.h"
#include "FunctionTable.h"
#include "JsonText.h"
#include "MessageLength.h"
#include "Native/Definitions/CommandHeader.h"
#include "Quorvalen/Cpp.h"

namespace Quorvalen::CppBridge {
namespace {

namespace Header = Quorvalen::Native::Definitions::CommandHeader;
using Quorvalen::Native::Definitions::kExceptionResponse;
using Quorvalen::Native::Definitions::kHeartBeat;
using Command = std::span<const unsigned char>;
using Response = std::shared_ptr<const Bytes>;
using Cpp::Json;
using Cpp::MalformedCommand;

constexpr unsigned char kValueResponse = 2;

// What can be said when not even the memory for a report is left; made when the library is loaded.
const Response& LastResort() {
    static const Response& response = *new Response([] {
        constexpr std::string_view body =
            "{\"type\":\"std::bad_alloc\",\"message\":\"the failure could not be "
            "reported\",\"traceback\":\"\"}";
        Bytes bytes(Header::kLength + body.size());
        bytes[Header::kCallingRuntime] = 8;
        bytes[Header::kKind] = kExceptionResponse;
        std::copy(body.begin(), body.end(), bytes.begin() + Header::kLength);
        return std::make_shared<const Bytes>(bytes);
    }());
    return response;
}
[[maybe_unused]] const Response& madeAtLoad = LastResort();

// Header bytes that the command lacks are read as 0.
template <typename Body>
Response MakeResponse(Command command, unsigned char kind, const Body& body) {
    Bytes response(MessageLength(body.size()));
    std::copy_n(command.begin(), std::min(command.size(), std::size_t{Header::kLength}),
                response.begin());
    std::swap(response[Header::kTargetRuntime], response[Header::kCallingRuntime]);
    response[Header::kRuntimeVersion] = 0;
    response[Header::kKind] = kind;
    std::copy(body.begin(), body.end(), response.begin() + Header::kLength);
    return std::make_shared<const Bytes>(std::move(response));
}

// The members that "call" knows, and the operations that the command format knows.
struct Member {
    const char* name;
    bool (*hasRightKind)(const Json&);
    const char* kind;
};
constexpr std::array<Member, 4> kMembersOfCall = {{
    {"name", [](const Json& value) { return value.is_string(); }, "a string"},
    {"handle", [](const Json& value) { return value.is_number_integer(); }, "an integer"},
    {"arguments", [](const Json& value) { return value.is_array(); }, "an array"},
    {"keywords", [](const Json& value) { return value.is_object() && !IsHandle(value); },
     "an object"},
}};
constexpr std::array<std::string_view, 5> kOperations = {"call", "create", "get", "release", "set"};

void CheckOperation(const Json& body) {
    const std::string known = "; expected one of call, create, get, release, set";
    if (!body.contains("operation")) {
        throw MalformedCommand("the member \"operation\" is missing" + known);
    }
    const Json& operation = body.at("operation");
    if (std::find(kOperations.begin(), kOperations.end(), operation) == kOperations.end()) {
        const std::string shown =
            operation.is_string() ? operation.dump() : Cpp::Conversion::KindOf(operation);
        throw MalformedCommand("\"operation\" is " + shown + known);
    }
    if (operation != "call") {
        throw Cpp::NotSupported("the operation " + operation.dump() +
                                " is not supported by the C++ runtime, which keeps no objects; it "
                                "knows call");
    }
}

void CheckMember(const std::string& name, const Json& value) {
    if (name == "operation") return;
    const auto* member = std::find_if(kMembersOfCall.begin(), kMembersOfCall.end(),
                                      [&](const Member& known) { return name == known.name; });
    if (member == kMembersOfCall.end()) {
        throw MalformedCommand(R"(the operation "call" knows no member ")" + name +
                               "\"; it knows name, handle, arguments, keywords");
    }
    if (!member->hasRightKind(value)) {
        throw MalformedCommand(R"(the member ")" + name + R"(" of the operation "call" must be )" +
                               member->kind + ", not " + Cpp::Conversion::KindOf(value));
    }
}

void CheckCall(const Json& body) {
    CheckOperation(body);
    for (const auto& member : body.items()) CheckMember(member.key(), member.value());
    if (body.contains("handle")) {
        throw Cpp::NotSupported("the C++ runtime keeps no objects, so there is no handle " +
                                body.at("handle").dump());
    }
    if (!body.contains("name")) {
        throw MalformedCommand(R"(the operation "call" needs the member "name" or "handle")");
    }
    if (body.contains("keywords") && !body.at("keywords").empty()) {
        throw Cpp::NotSupported("C++ functions have no keyword arguments; pass them by position");
    }
}

std::string Execute(std::string_view text) {
    const Json body = ReadBody(text);
    CheckCall(body);
    const auto function = FunctionTable::OfProcess().Find(body.at("name").get<std::string>());
    const Json noArguments = Json::array();
    const bool hasArguments = body.contains("arguments");
    const Json result = (*function)(hasArguments ? body.at("arguments") : noArguments);
    try {
        return "{\"value\":" + WriteValue(result) + "}";
    } catch (const Cpp::NotPlain& failure) {
        throw Cpp::NotPlain(std::string("the result cannot be sent: ") + failure.what());
    }
}

Response AnswerOrRaise(Command command) {
    if (command.size() < Header::kLength) {
        throw MalformedCommand("the command has " + std::to_string(command.size()) +
                               " bytes; expected a header of 11 bytes and a body");
    }
    const Command body = command.subspan(Header::kLength);
    if (command[Header::kKind] == kHeartBeat) return MakeResponse(command, kHeartBeat, body);
    const char* text = reinterpret_cast<const char*>(body.data());
    return MakeResponse(command, kValueResponse, Execute({text, body.size()}));
}

std::string ReadableName(const std::type_info* type) {
    if (type == nullptr) return "unknown";  // an exception of another language
    int status = 0;
    char* readable = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
    std::string name = status == 0 ? readable : type->name();
    std::free(readable);
    return name;
}

// REQUIRES: called while an exception is handled.
Json DescribeCurrentException() {
    std::string message;
    std::string traceback;
    try {
        throw;
    } catch (const Cpp::RemoteError& failure) {
        message = failure.what();
        traceback = failure.Traceback();
    } catch (const std::exception& failure) {
        message = failure.what();
    } catch (...) {
        message = "an exception that is not derived from std::exception";
    }
    return {{"type", ReadableName(abi::__cxa_current_exception_type())},
            {"message", message},
            {"traceback", traceback}};
}

// REQUIRES: called while an exception is handled.
Response ReportCurrentException(Command command) noexcept {
    try {
        const std::string body =
            DescribeCurrentException().dump(-1, ' ', false, Json::error_handler_t::replace);
        return MakeResponse(command, kExceptionResponse, body);
    } catch (...) {
        return LastResort();
    }
}

}  // namespace

// No check for null references: the unwinding of a thread has no exception object to refer to.
__attribute__((no_sanitize("null"))) std::shared_ptr<const Bytes> Answer(
    std::span<const unsigned char> command) {
    try {
        return AnswerOrRaise(command);
    } catch (const abi::__forced_unwind&) {
        throw;  // a cancelled thread; stopping it here would end the process
    } catch (...) {
        return ReportCurrentException(command);
    }
}

}  // namespace Quorvalen::CppBridge
