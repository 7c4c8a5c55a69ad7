// A recording fake of the configuration library.
//
// Every call is recorded with its string arguments. Answers: Fakes::SetText("<function>", value) is
// written to the buffer and its length returned; SetNumber("<function> result", n) is returned in
// its place (the text is still written); integer functions return SetNumber("<function>", n). Fail
// lets a function return -1 with the text "<function> failed". With SetNumber("configs throw", 1)
// the "GetConfigSource" function throws a std::runtime_error("configs threw"). Fail("<function>
// throws") lets any function throw std::runtime_error("<function> threw").
//
// Variants: one per function that lacks just that function (a version script hides it).
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Tests/Fakes/Recorder.h"

namespace {

using Fakes::MustFail;
using Fakes::Number;
using Fakes::Record;
using Fakes::Text;

void ThrowIfTold(const std::string& function) {
    if (MustFail(function + " throws")) throw std::runtime_error(function + " threw");
}

int WriteText(const std::string& function, char* buffer, unsigned long size) {
    ThrowIfTold(function);
    const bool fails = MustFail(function);
    const std::string value = fails ? function + " failed" : Text(function);
    const std::size_t count = std::min<std::size_t>(value.size(), size);
    std::memcpy(buffer, value.data(), count);
    const long long length = fails ? -1 : static_cast<long long>(value.size());
    return static_cast<int>(Number(function + " result", length));
}

int StringFunction(const char* function, char* buffer, unsigned long size) {
    Record(std::string(function) + "()");
    if (Number("configs throw") != 0 && std::string(function) == "GetConfigSource") {
        throw std::runtime_error("configs threw");
    }
    return WriteText(function, buffer, size);
}

int ChannelFunction(const char* function, const char* runtime, const char* channel, char* buffer,
                    unsigned long size) {
    Record(std::string(function) + "(\"" + runtime + "\", \"" + channel + "\")");
    return WriteText(function, buffer, size);
}

int NumberFunction(const char* function) {
    Record(std::string(function) + "()");
    ThrowIfTold(function);
    return static_cast<int>(Number(function));
}

int Setter(const char* function, const char* value) {
    Record(std::string(function) + "(\"" + value + "\")");
    ThrowIfTold(function);
    return MustFail(function) ? -1 : static_cast<int>(Number(function));
}

}  // namespace

extern "C" {

int SetConfigSource(const char* source) {
    return Setter(__func__, source);
}
int SetWorkingDirectory(const char* path) {
    return Setter(__func__, path);
}

int GetConfigSource(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}
int GetWorkingDirectory(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}
int GetLoggingLevel(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}
int GetProxyHost(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}
int GetProxyUsername(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}
int GetProxyPassword(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}
int GetProxyDomain(char* buffer, unsigned long size) {
    return StringFunction(__func__, buffer, size);
}

int ProxyExists() {
    return NumberFunction(__func__);
}
int GetProxyPort() {
    return NumberFunction(__func__);
}

int GetChannelPort(const char* runtime, const char* channel) {
    Record(std::string(__func__) + "(\"" + runtime + "\", \"" + channel + "\")");
    ThrowIfTold(__func__);
    return static_cast<int>(Number(__func__));
}

int GetRuntimeName(const char* runtime, const char* channel, char* buffer, unsigned long size) {
    return ChannelFunction(__func__, runtime, channel, buffer, size);
}
int GetChannelType(const char* runtime, const char* channel, char* buffer, unsigned long size) {
    return ChannelFunction(__func__, runtime, channel, buffer, size);
}
int GetChannelHost(const char* runtime, const char* channel, char* buffer, unsigned long size) {
    return ChannelFunction(__func__, runtime, channel, buffer, size);
}
int GetChannelRuntimePath(const char* runtime, const char* channel, char* buffer,
                          unsigned long size) {
    return ChannelFunction(__func__, runtime, channel, buffer, size);
}

}  // extern "C"
