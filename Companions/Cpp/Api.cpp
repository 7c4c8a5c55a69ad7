// The public API of Quorvalen/Cpp.h: registration, and calls to other runtimes.
#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "CommandExecution.h"
#include "CppLib.h"
#include "Errors.h"
#include "FunctionTable.h"
#include "JsonText.h"
#include "MessageLength.h"
#include "Native/Definitions/CommandHeader.h"
#include "Native/Definitions/Runtime.h"
#include "Native/RuntimeNameHandler/RuntimeNameHandler.h"
#include "Plugins.h"
#include "Quorvalen/Cpp.h"

namespace Quorvalen::Cpp {
namespace {

namespace Definitions = Quorvalen::Native::Definitions;
namespace Header = Definitions::CommandHeader;
using CppBridge::Bytes;
using Names = Quorvalen::Native::RuntimeNameHandler::RuntimeNameHandler;

constexpr unsigned char kCommand = 1;
constexpr unsigned char kValue = 2;

// A body whose member texts are JSON already.
class BodyWriter {
  public:
    explicit BodyWriter(const std::string& operation) { Add("operation", operation); }

    BodyWriter& Add(const std::string& member, const Json& value) {
        return AddText(member, CppBridge::WriteValue(value));
    }
    // The array or object around the arguments is not part of any value.
    BodyWriter& AddAll(const std::string& member, const Arguments& values) {
        std::string array = "[";
        for (const Json& value : values) {
            array += (array.size() == 1 ? "" : ",") + CppBridge::WriteValue(value);
        }
        return AddText(member, array + "]");
    }
    BodyWriter& AddKeywords(const Json& keywords) {
        if (!keywords.is_object() || CppBridge::IsHandle(keywords)) {
            throw ArgumentError("the keywords must be an object, not " +
                                Conversion::KindOf(keywords));
        }
        return keywords.empty() ? *this : Add("keywords", keywords);
    }
    BodyWriter& AddHandle(const Json& handle) {
        if (!CppBridge::IsHandle(handle)) {
            throw ArgumentError("expected a handle, {\"$handle\": ...}, not " +
                                Conversion::KindOf(handle));
        }
        return Add("handle", handle.at("$handle"));
    }

    std::string Text() const { return "{" + text + "}"; }

  private:
    BodyWriter& AddText(const std::string& member, const std::string& value) {
        if (!text.empty()) text += ",";
        text += "\"" + member + "\":" + value;
        return *this;
    }

    std::string text;
};

unsigned char RuntimeByName(const std::string& name) {
    std::string known;
    for (int runtime = 0; runtime < Definitions::kRuntimeCount; ++runtime) {
        if (Names::GetRuntimeName(runtime) == name) return static_cast<unsigned char>(runtime);
        known += (known.empty() ? "" : ", ") + Names::GetRuntimeName(runtime);
    }
    throw std::invalid_argument("there is no runtime \"" + name + "\"; expected one of " + known);
}

// Through this bridge's transmitter, in memory. The receiver keeps the response for this thread.
Bytes Exchange(Bytes message) {
    auto* transmitter = CreateTransmitter(Definitions::RuntimeOperationMode::CallingRuntime);
    const int length = transmitter->SendCommand(message.data(), static_cast<int>(message.size()));
    if (length < Header::kLength) {
        throw std::runtime_error("the response has " + std::to_string(length) +
                                 " bytes; expected a header of 11 bytes at least");
    }
    Bytes response(static_cast<std::size_t>(length));
    // The in-memory channel finds the receiver to read from by this byte.
    response[Header::kTargetRuntime] = message[Header::kTargetRuntime];
    const int status = transmitter->ReadResponse(response.data(), length);
    if (status < 0) {
        throw std::runtime_error("the response could not be read; status " +
                                 std::to_string(status));
    }
    return response;
}

Json ResultIn(const Bytes& response) {
    const auto* text = reinterpret_cast<const char*>(response.data()) + Header::kLength;
    const Json body = CppBridge::ReadBody({text, response.size() - Header::kLength});
    switch (response[Header::kKind]) {
        case kValue:
            return body.at("value");
        case Definitions::kExceptionResponse:
            throw RemoteError(body.at("type").get<std::string>(),
                              body.at("message").get<std::string>(),
                              body.at("traceback").get<std::string>());
        default:
            throw std::runtime_error("the kind of the response is " +
                                     std::to_string(response[Header::kKind]) +
                                     "; expected 2 or 10");
    }
}

Json Execute(unsigned char runtime, unsigned char version, const BodyWriter& body) {
    const std::string text = body.Text();
    Bytes message(CppBridge::MessageLength(text.size()));
    message[Header::kTargetRuntime] = runtime;
    message[Header::kRuntimeVersion] = version;
    message[Header::kCallingRuntime] = static_cast<unsigned char>(Definitions::Runtime::Cpp);
    message[Header::kKind] = kCommand;
    std::copy(text.begin(), text.end(), message.begin() + Header::kLength);
    const Bytes response = Exchange(std::move(message));
    try {
        return ResultIn(response);
    } catch (const MalformedCommand& failure) {
        throw std::runtime_error(std::string("the response breaks the command format: ") +
                                 failure.what());
    } catch (const Json::exception& failure) {
        throw std::runtime_error(std::string("the response breaks the command format: ") +
                                 failure.what());
    }
}

}  // namespace

void RegisterJsonFunction(const std::string& name, JsonFunction function) {
    if (CppBridge::IsReserved(name)) {
        throw std::invalid_argument("the name \"" + name +
                                    "\" is reserved; only the bridge's own begin with quorvalen.");
    }
    CppBridge::FunctionTable::OfProcess().Add(name, std::move(function));
    CppBridge::Plugins::NoteRegistered(name);
}

bool Unregister(const std::string& name) {
    return !CppBridge::IsReserved(name) && CppBridge::FunctionTable::OfProcess().Remove(name);
}

Runtime::Runtime(const std::string& name, unsigned char version)
    : runtime(RuntimeByName(name)), runtimeVersion(version) {}

Json Runtime::Call(const std::string& name, const Arguments& arguments,
                   const Json& keywords) const {
    return Execute(
        runtime, runtimeVersion,
        BodyWriter("call").Add("name", name).AddAll("arguments", arguments).AddKeywords(keywords));
}

Json Runtime::CallMethod(const Json& handle, const std::string& name, const Arguments& arguments,
                         const Json& keywords) const {
    return Execute(runtime, runtimeVersion,
                   BodyWriter("call")
                       .AddHandle(handle)
                       .Add("name", name)
                       .AddAll("arguments", arguments)
                       .AddKeywords(keywords));
}

Json Runtime::CallObject(const Json& handle, const Arguments& arguments,
                         const Json& keywords) const {
    return Execute(
        runtime, runtimeVersion,
        BodyWriter("call").AddHandle(handle).AddAll("arguments", arguments).AddKeywords(keywords));
}

Json Runtime::Create(const std::string& name, const Arguments& arguments,
                     const Json& keywords) const {
    return Execute(runtime, runtimeVersion,
                   BodyWriter("create")
                       .Add("name", name)
                       .AddAll("arguments", arguments)
                       .AddKeywords(keywords));
}

Json Runtime::Get(const std::string& name) const {
    return Execute(runtime, runtimeVersion, BodyWriter("get").Add("name", name));
}

void Runtime::Set(const std::string& name, const Json& value) const {
    Execute(runtime, runtimeVersion, BodyWriter("set").Add("name", name).Add("value", value));
}

Json Runtime::GetAttribute(const Json& handle, const std::string& name) const {
    return Execute(runtime, runtimeVersion, BodyWriter("get").AddHandle(handle).Add("name", name));
}

void Runtime::SetAttribute(const Json& handle, const std::string& name, const Json& value) const {
    Execute(runtime, runtimeVersion,
            BodyWriter("set").AddHandle(handle).Add("name", name).Add("value", value));
}

void Runtime::Release(const Json& handle) const {
    Execute(runtime, runtimeVersion, BodyWriter("release").AddHandle(handle));
}

}  // namespace Quorvalen::Cpp
