#include "Configuration.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

#include "StrictJson.h"

namespace Quorvalen::Companions {
namespace {

namespace fs = std::filesystem;

using Names = std::span<const std::string_view>;

constexpr auto kTopLevelKeys =
    std::to_array<std::string_view>({"loggingLevel", "workingDirectory", "proxy", "runtimes"});
constexpr auto kProxyKeys =
    std::to_array<std::string_view>({"host", "port", "username", "password", "domain"});
constexpr auto kRuntimeKeys = std::to_array<std::string_view>({"name", "channels"});
constexpr auto kChannelKeys =
    std::to_array<std::string_view>({"type", "host", "port", "runtimePath"});
constexpr auto kLoggingLevels = std::to_array<std::string_view>({"Off", "RuntimeInfo", "All"});
constexpr auto kChannelTypes = std::to_array<std::string_view>({"inMemory", "tcp", "tls"});
constexpr auto kRuntimeNames = std::to_array<std::string_view>(
    {"clr", "go", "jvm", "netcore", "perl", "python", "ruby", "nodejs", "cpp", "php", "python2"});

constexpr std::uint64_t kHighestPort = 65535;

// A value of the document and the way to it, as it is named to the user ("proxy.port").
struct Node {
    const Json& value;
    std::string path;
};

std::string Listed(Names names) {
    std::string list;
    for (std::string_view name : names) list += (list.empty() ? "" : ", ") + Quoted(name);
    return list;
}

std::string PathOf(const Node& parent, const std::string& key) {
    return parent.path.empty() ? key : parent.path + "." + key;
}

bool Contains(Names names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

void RequireObject(const Node& node) {
    if (node.value.is_object()) return;
    Fail(node.path, std::string("must be an object (found: ") + node.value.type_name() + ")");
}

// A key that is not known would otherwise be ignored, and a misspelt setting with it.
void RequireObjectWithKeys(const Node& node, Names known) {
    RequireObject(node);
    for (const auto& [key, value] : node.value.items()) {
        if (!Contains(known, key)) {
            Fail(PathOf(node, key), "is unknown (expected one of: " + Listed(known) + ")");
        }
    }
}

std::optional<Node> Member(const Node& parent, const std::string& key) {
    const auto found = parent.value.find(key);
    if (found == parent.value.end()) return std::nullopt;
    return Node{*found, PathOf(parent, key)};
}

std::string TextMember(const Node& parent, const std::string& key) {
    const std::optional<Node> node = Member(parent, key);
    if (!node) return "";
    if (!node->value.is_string()) {
        Fail(node->path, std::string("must be a string (found: ") + node->value.type_name() + ")");
    }
    const auto& text = node->value.get_ref<const std::string&>();
    if (text.size() > kLongestValue) {
        Fail(node->path, "must have at most " + std::to_string(kLongestValue) +
                             " bytes (found: " + std::to_string(text.size()) + ")");
    }
    if (text.find('\0') != std::string::npos) Fail(node->path, "must not contain a NUL character");
    return text;
}

std::string ChoiceMember(const Node& parent, const std::string& key, Names choices,
                         const std::string& byDefault) {
    if (!Member(parent, key)) return byDefault;
    std::string text = TextMember(parent, key);
    if (!Contains(choices, text)) {
        Fail(PathOf(parent, key),
             "must be one of: " + Listed(choices) + " (found: " + Quoted(text) + ")");
    }
    return text;
}

int PortMember(const Node& parent, const std::string& key) {
    const std::optional<Node> node = Member(parent, key);
    if (!node) return 0;
    if (node->value.is_number_unsigned()) {
        const auto port = node->value.get<std::uint64_t>();
        if (port >= 1 && port <= kHighestPort) return static_cast<int>(port);
    }
    const std::string found =
        node->value.is_number() ? node->value.dump() : std::string(node->value.type_name());
    Fail(node->path, "must be a whole number from 1 to 65535 (found: " + found + ")");
}

void RequireAddress(const Node& node, const std::string& host, int port,
                    const std::string& reason) {
    if (host.empty()) Fail(PathOf(node, "host"), "is missing: " + reason + " needs a host");
    if (port == 0) Fail(PathOf(node, "port"), "is missing: " + reason + " needs a port");
}

std::string WorkingDirectoryMember(const Node& top, const std::string& base) {
    if (!Member(top, "workingDirectory")) return "";
    const std::string text = TextMember(top, "workingDirectory");
    std::string directory = ExistingDirectory(text, base);
    if (directory.empty()) {
        Fail("workingDirectory", "must name an existing directory (found: " + Quoted(text) + ")");
    }
    return directory;
}

Proxy ReadProxy(const Node& node) {
    RequireObjectWithKeys(node, kProxyKeys);
    Proxy proxy;
    proxy.host = TextMember(node, "host");
    proxy.username = TextMember(node, "username");
    proxy.password = TextMember(node, "password");
    proxy.domain = TextMember(node, "domain");
    proxy.port = PortMember(node, "port");
    RequireAddress(node, proxy.host, proxy.port, "a proxy");
    return proxy;
}

Channel ReadChannel(const Node& node) {
    RequireObjectWithKeys(node, kChannelKeys);
    Channel channel;
    channel.type = ChoiceMember(node, "type", kChannelTypes, channel.type);
    channel.host = TextMember(node, "host");
    channel.runtimePath = TextMember(node, "runtimePath");
    channel.port = PortMember(node, "port");
    if (channel.type != "inMemory") {
        RequireAddress(node, channel.host, channel.port, "a channel of type " + channel.type);
    }
    return channel;
}

Runtime ReadRuntime(const Node& node, const std::string& key) {
    RequireObjectWithKeys(node, kRuntimeKeys);
    Runtime runtime;
    runtime.name = TextMember(node, "name");
    if (runtime.name.empty()) runtime.name = key;
    if (const std::optional<Node> channels = Member(node, "channels")) {
        RequireObject(*channels);
        for (const auto& [name, value] : channels->value.items()) {
            runtime.channels.emplace(name, ReadChannel({value, PathOf(*channels, name)}));
        }
    }
    return runtime;
}

Configuration ReadDocument(const Node& top, const std::string& base) {
    RequireObjectWithKeys(top, kTopLevelKeys);
    Configuration configuration;
    configuration.loggingLevel =
        ChoiceMember(top, "loggingLevel", kLoggingLevels, configuration.loggingLevel);
    configuration.workingDirectory = WorkingDirectoryMember(top, base);
    if (const std::optional<Node> proxy = Member(top, "proxy")) {
        configuration.proxy = ReadProxy(*proxy);
    }
    if (const std::optional<Node> runtimes = Member(top, "runtimes")) {
        RequireObjectWithKeys(*runtimes, kRuntimeNames);
        for (const auto& [name, value] : runtimes->value.items()) {
            configuration.runtimes.emplace(name,
                                           ReadRuntime({value, PathOf(*runtimes, name)}, name));
        }
    }
    return configuration;
}

// Opening a pipe would wait for its writer, so only regular files are opened.
std::string ReadWholeFile(const fs::path& file) {
    const std::string expected = ". Expected a file with one JSON object.";
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
        throw ConfigurationError(
            "Cannot be read: " + (error ? error.message() : "Not a regular file") + expected);
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw ConfigurationError("Cannot be read: " + std::generic_category().message(errno) +
                                 expected);
    }
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

Configuration ReadText(const std::string& text, const std::string& base) {
    const Json document = ParseStrictly(text);
    return ReadDocument({document, ""}, base);
}

}  // namespace

std::string ExistingDirectory(const std::string& path, const std::string& base) {
    std::error_code error;
    if (path.empty()) return "";
    const fs::path directory = fs::canonical(fs::path(base) / path, error);
    return !error && fs::is_directory(directory, error) ? directory.string() : "";
}

Configuration ReadConfiguration(const std::string& source) {
    const std::size_t start = source.find_first_not_of(" \t\r\n");
    if (start == std::string::npos) {
        throw ConfigurationError(
            "The configuration source is empty. Expected a file name or JSON text.");
    }
    const bool isInline = source[start] == '{';
    std::string name = "inline configuration";
    std::string subject = "Inline configuration";
    try {
        if (!isInline) {
            name = fs::absolute(source).string();
            subject = "Configuration file " + name;
        }
        const std::string base = isInline ? "" : fs::path(name).parent_path().string();
        Configuration configuration = ReadText(isInline ? source : ReadWholeFile(name), base);
        configuration.source = std::move(name);
        return configuration;
    } catch (const ConfigurationError& error) {
        throw ConfigurationError(subject + ": " + error.what());
    }
}

}  // namespace Quorvalen::Companions
