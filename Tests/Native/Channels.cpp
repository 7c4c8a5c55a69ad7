#include "Tests/Native/Channels.h"

#include <algorithm>

std::string BridgeFile(const std::string& runtime) {
    return "libQuorvalen" + runtime + "RuntimeNative.so";
}

Bytes InMemoryCommand(unsigned char target, unsigned char calling) {
    return {target, 7, 0, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, calling, 0};
}

Bytes NetworkCommand(unsigned char connectionType, int port, const Host& host) {
    return {kCpp,
            7,
            connectionType,
            host[0],
            host[1],
            host[2],
            host[3],
            static_cast<unsigned char>(port % 256),
            static_cast<unsigned char>(port / 256),
            kRuby,
            0};
}

std::string Shown(const Bytes& command) {
    return Fakes::ShowBytes(command.data(), Length(command));
}

int Length(const Bytes& bytes) {
    return static_cast<int>(bytes.size());
}

std::vector<std::string> Recording(const std::string& message) {
    std::string oneLine = message;
    oneLine.erase(std::remove(oneLine.begin(), oneLine.end(), '\n'), oneLine.end());
    return {"GetLoggingLevel()", "GetWorkingDirectory()",
            "LogMessage(\"Native exception\", \"" + oneLine + "\", \"Unknown\")"};
}

std::vector<std::string> Joined(const std::vector<std::vector<std::string>>& parts) {
    std::vector<std::string> joined;
    for (const auto& part : parts) joined.insert(joined.end(), part.begin(), part.end());
    return joined;
}

std::string Reinstall(const std::string& code) {
    return "Quorvalen Native Exception: Exception code " + code + ". \nReinstall Quorvalen package";
}

std::string NotFound(const std::string& path) {
    return "Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
           ". \nError: File not found.";
}

std::string NobodyInMemory(const std::string& object, const std::string& runtime) {
    return "Quorvalen Native Exception: No " + object + " of runtime " + runtime +
           " is set up in this process. \n"
           "Send a command to this runtime over the in-memory channel first";
}
