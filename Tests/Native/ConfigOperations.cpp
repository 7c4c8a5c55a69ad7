#include "Tests/Native/ConfigOperations.h"

const std::vector<ConfigOperation> kConfigOperations = {
    {"SetConfigSource", ConfigKind::Setter},
    {"SetWorkingDirectory", ConfigKind::Setter},
    {"GetConfigSource", ConfigKind::RaisingText},
    {"GetWorkingDirectory", ConfigKind::RaisingText},
    {"GetLoggingLevel", ConfigKind::Level},
    {"GetProxyHost", ConfigKind::Text},
    {"GetProxyUsername", ConfigKind::Text},
    {"GetProxyPassword", ConfigKind::Text},
    {"GetProxyDomain", ConfigKind::Text},
    {"ProxyExists", ConfigKind::Number},
    {"GetProxyPort", ConfigKind::Number},
    {"GetChannelPort", ConfigKind::ChannelNumber},
    {"GetRuntimeName", ConfigKind::ChannelText},
    {"GetChannelType", ConfigKind::ChannelText},
    {"GetChannelHost", ConfigKind::ChannelText},
    {"GetChannelRuntimePath", ConfigKind::ChannelText},
};

std::string ConfigOperation::Recorded() const {
    switch (kind) {
        case ConfigKind::Setter:
            return std::string(name) + "(\"argument\")";
        case ConfigKind::ChannelNumber:
        case ConfigKind::ChannelText:
            return std::string(name) + "(\"python\", \"default\")";
        default:
            return std::string(name) + "()";
    }
}

std::string ConfigOperation::DefaultAnswer() const {
    if (kind == ConfigKind::Level) return "1";
    return AnswersWithText() ? "" : "0";
}

void PrintTo(const ConfigOperation& operation, std::ostream* stream) {
    *stream << operation.name;
}

std::string CallOf(const Bridge& bridge, const ConfigOperation& operation) {
    const std::string name =
        std::string("Quorvalen::Native::ConfigHandler::ConfigHandler::") + operation.name;
    const std::string argument = "argument";
    const std::string runtime = "python";
    const std::string channel = "default";
    const std::string two = "(std::string const&, std::string const&)";
    switch (operation.kind) {
        case ConfigKind::Setter:
            return std::to_string(
                bridge.Cpp<int(const std::string&)>(name + "(std::string const&)")(argument));
        case ConfigKind::Level:
        case ConfigKind::Number:
            return std::to_string(bridge.Cpp<int()>(name + "()")());
        case ConfigKind::ChannelNumber:
            return std::to_string(bridge.Cpp<int(const std::string&, const std::string&)>(
                name + two)(runtime, channel));
        case ConfigKind::ChannelText:
            return bridge.Cpp<std::string(const std::string&, const std::string&)>(name + two)(
                runtime, channel);
        default:
            return bridge.Cpp<std::string()>(name + "()")();
    }
}
