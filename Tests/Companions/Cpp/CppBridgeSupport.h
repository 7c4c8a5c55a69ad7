// What the tests of the C++ bridge share: commands written by hand, and whole responses.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "Companions/Cpp/CppLib.h"
#include "Quorvalen/Cpp.h"

namespace CppBridgeSupport {

using Quorvalen::Cpp::Json;
using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Bytes = std::vector<unsigned char>;

// Target 8 (C++), version 3, TLS, 192.168.1.20:36895, sender 5 (Python), command; what answers it.
inline const Bytes kHeader = {8, 3, 2, 192, 168, 1, 20, 0x1F, 0x90, 5, 1};
inline const Bytes kValueHeader = {5, 0, 2, 192, 168, 1, 20, 0x1F, 0x90, 8, 2};
inline const Bytes kExceptionHeader = {5, 0, 2, 192, 168, 1, 20, 0x1F, 0x90, 8, 10};

inline Bytes operator+(Bytes header, std::string_view body) {
    header.insert(header.end(), body.begin(), body.end());
    return header;
}

// Sends to the bridge's receiver, as the in-memory channel of another bridge does.
inline Bytes Send(Bytes command) {
    auto* receiver = CreateReceiver(RuntimeOperationMode::CalledRuntime);
    Bytes response(static_cast<std::size_t>(
        receiver->SendCommand(command.data(), static_cast<int>(command.size()))));
    EXPECT_EQ(0, receiver->ReadResponse(response.data(), static_cast<int>(response.size())));
    return response;
}

inline Bytes SendBody(std::string_view body) {
    return Send(kHeader + body);
}

inline Bytes Call(const std::string& name, const Json& arguments) {
    return SendBody(Json{{"operation", "call"}, {"name", name}, {"arguments", arguments}}.dump());
}

inline Bytes Value(const Json& value) {
    return kValueHeader + Json{{"value", value}}.dump();
}

inline Bytes Exception(const std::string& type, const std::string& message,
                       const std::string& traceback = "") {
    const Json body = {{"type", type}, {"message", message}, {"traceback", traceback}};
    return kExceptionHeader + body.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// So that a failed comparison is readable.
inline std::string Text(const Bytes& bytes) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text +=
            i < 11 ? std::to_string(bytes[i]) + " " : std::string(1, static_cast<char>(bytes[i]));
    }
    return text;
}

inline void ExpectSame(const Bytes& expected, const Bytes& actual) {
    EXPECT_EQ(Text(expected), Text(actual));
}

// The text of what an operation throws; "(nothing)" when it does not.
template <typename Failure, typename Operation>
std::string Thrown(Operation operation) {
    try {
        operation();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "(nothing)";
}

}  // namespace CppBridgeSupport
