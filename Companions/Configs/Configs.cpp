// The sixteen exported functions. Each is one line over the store; Guarded is the only place where
// an exception ends.

#include "Configs.h"

#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "ConfigurationStore.h"

#define QUORVALEN_EXPORT __attribute__((visibility("default")))

namespace {

using Quorvalen::Companions::Channel;
using Quorvalen::Companions::Configuration;
using Quorvalen::Companions::ConfigurationError;
using Quorvalen::Companions::ConfigurationStore;
using Quorvalen::Companions::Proxy;
using Quorvalen::Companions::Runtime;

constexpr int kFailure = -1;

template <typename Operation, typename FailureAnswer>
int Guarded(Operation operation, FailureAnswer failureAnswer) {
    try {
        return operation();
    } catch (const std::exception& error) {
        return failureAnswer(error.what());
    }
}

void CopyWithNul(char* buf, std::string_view text) {
    std::memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
}

bool ContinuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// As much of the sentence as fits, ending with a whole UTF-8 character.
int AnswerSentence(char* buf, unsigned long size, std::string_view sentence) {
    if (buf == nullptr || size == 0) return kFailure;
    std::size_t length = sentence.size();
    if (length >= size) {
        length = size - 1;
        while (length > 0 && ContinuesCharacter(sentence[length])) --length;
    }
    CopyWithNul(buf, sentence.substr(0, length));
    return kFailure;
}

int AnswerValue(char* buf, unsigned long size, const std::string& value) {
    if (buf == nullptr || value.size() >= size) {
        throw ConfigurationError("The buffer of " + std::to_string(size) +
                                 " bytes is too small for a value of " +
                                 std::to_string(value.size()) + " bytes and its terminating NUL.");
    }
    CopyWithNul(buf, value);
    return static_cast<int>(value.size());
}

template <typename Getter>
int AnswerText(char* buf, unsigned long size, Getter getter) {
    return Guarded([&] { return AnswerValue(buf, size, getter()); },
                   [&](const char* sentence) { return AnswerSentence(buf, size, sentence); });
}

template <typename Getter>
int AnswerNumber(Getter getter) {
    return Guarded(getter, [](const char*) { return 0; });
}

template <typename Setter>
int AnswerStatus(Setter setter) {
    return Guarded(
        [&] {
            setter();
            return 0;
        },
        [](const char*) { return kFailure; });
}

std::string ProxyText(std::string Proxy::*member) {
    const auto configuration = ConfigurationStore::Instance().Current();
    return configuration->proxy ? (*configuration->proxy).*member : "";
}

const Runtime* FindRuntime(const Configuration& configuration, const char* runtime) {
    if (runtime == nullptr) throw ConfigurationError("The runtime name is a null pointer.");
    const auto found = configuration.runtimes.find(std::string_view(runtime));
    return found == configuration.runtimes.end() ? nullptr : &found->second;
}

const Channel* FindChannel(const Runtime* runtime, const char* channel) {
    if (channel == nullptr) throw ConfigurationError("The channel name is a null pointer.");
    if (runtime == nullptr) return nullptr;
    const auto found = runtime->channels.find(std::string_view(channel));
    return found == runtime->channels.end() ? nullptr : &found->second;
}

// The member of one channel, or an empty value when there is no such channel.
template <typename Value>
Value ChannelMember(const char* runtime, const char* channel, Value Channel::*member) {
    const auto configuration = ConfigurationStore::Instance().Current();
    const Channel* found = FindChannel(FindRuntime(*configuration, runtime), channel);
    return found == nullptr ? Value{} : found->*member;
}

std::string RuntimeName(const char* runtime, const char* channel) {
    const auto configuration = ConfigurationStore::Instance().Current();
    const Runtime* found = FindRuntime(*configuration, runtime);
    return FindChannel(found, channel) == nullptr ? "" : found->name;
}

}  // namespace

extern "C" {

QUORVALEN_EXPORT int SetConfigSource(const char* source) {
    return AnswerStatus([&] { ConfigurationStore::Instance().SetSource(source); });
}

QUORVALEN_EXPORT int SetWorkingDirectory(const char* path) {
    return AnswerStatus([&] { ConfigurationStore::Instance().SetWorkingDirectory(path); });
}

QUORVALEN_EXPORT int GetConfigSource(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ConfigurationStore::Instance().Current()->source; });
}

QUORVALEN_EXPORT int GetWorkingDirectory(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ConfigurationStore::Instance().WorkingDirectory(); });
}

QUORVALEN_EXPORT int GetLoggingLevel(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ConfigurationStore::Instance().LoggingLevel(); });
}

QUORVALEN_EXPORT int GetProxyHost(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ProxyText(&Proxy::host); });
}

QUORVALEN_EXPORT int GetProxyUsername(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ProxyText(&Proxy::username); });
}

QUORVALEN_EXPORT int GetProxyPassword(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ProxyText(&Proxy::password); });
}

QUORVALEN_EXPORT int GetProxyDomain(char* buf, unsigned long size) {
    return AnswerText(buf, size, [] { return ProxyText(&Proxy::domain); });
}

QUORVALEN_EXPORT int ProxyExists(void) {
    return AnswerNumber([] { return ConfigurationStore::Instance().Current()->proxy ? 1 : 0; });
}

QUORVALEN_EXPORT int GetProxyPort(void) {
    return AnswerNumber([] {
        const auto configuration = ConfigurationStore::Instance().Current();
        return configuration->proxy ? configuration->proxy->port : 0;
    });
}

QUORVALEN_EXPORT int GetChannelPort(const char* runtime, const char* channel) {
    return AnswerNumber([&] { return ChannelMember(runtime, channel, &Channel::port); });
}

QUORVALEN_EXPORT int GetRuntimeName(const char* runtime, const char* channel, char* buf,
                                    unsigned long size) {
    return AnswerText(buf, size, [&] { return RuntimeName(runtime, channel); });
}

QUORVALEN_EXPORT int GetChannelType(const char* runtime, const char* channel, char* buf,
                                    unsigned long size) {
    return AnswerText(buf, size, [&] { return ChannelMember(runtime, channel, &Channel::type); });
}

QUORVALEN_EXPORT int GetChannelHost(const char* runtime, const char* channel, char* buf,
                                    unsigned long size) {
    return AnswerText(buf, size, [&] { return ChannelMember(runtime, channel, &Channel::host); });
}

QUORVALEN_EXPORT int GetChannelRuntimePath(const char* runtime, const char* channel, char* buf,
                                           unsigned long size) {
    return AnswerText(buf, size,
                      [&] { return ChannelMember(runtime, channel, &Channel::runtimePath); });
}
}
