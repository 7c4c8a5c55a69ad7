#include "Companions/Host/CommandLine.h"

#include <CLI/CLI.hpp>
#include <asio/ip/address.hpp>
#include <filesystem>
#include <iostream>
#include <map>

namespace Quorvalen::Companions::Network::Host {

namespace {

// The bridge's numbers for the versions of Python.
const std::map<std::string, unsigned char> kPythonVersions = {
    {"any", 0},  {"3.6", 1},  {"3.7", 2},  {"3.8", 3},  {"3.9", 4},
    {"3.10", 5}, {"3.11", 6}, {"3.12", 7}, {"3.13", 8}, {"3.14", 9},
};

constexpr double kLongestTimeout = 86400;  // seconds

// Room for an exception response that tells that a message is too long.
constexpr std::size_t kSmallestMaxFrame = 1024;

// This program's place in the directory layout is <root>/Binaries/Host/quorvalen-host.
std::string DefaultBridge() {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    return program.parent_path().parent_path() /
           "Native/Linux/X64/libQuorvalenPythonRuntimeNative.so";
}

// The parser takes 010 for 8 and 0x10 for 16, and nan is outside of no range.
const CLI::Validator kDecimal(
    [](std::string& text) {
        const bool hasBase = text.size() > 1 && text[0] == '0' && text[1] != '.';
        const bool isDecimal = text.find_first_not_of("0123456789.") == std::string::npos;
        return isDecimal && !hasBase ? "" : "Value " + text + " is no decimal number";
    },
    "");

// An empty name, that of a variable which is not set perhaps, must not mean that there is no file:
// clients would not need a certificate then.
const CLI::Validator kFileName(
    [](std::string& text) {
        return std::string(text.empty() ? "the name of the file is empty" : "");
    },
    "");

void DescribeNetwork(CLI::App& app, Settings& settings) {
    app.add_option("--address", settings.address, "The IP address to serve")
        ->check(CLI::Validator(
            [](std::string& text) {
                asio::error_code error;
                asio::ip::make_address(text, error);
                return error ? "'" + text + "' is no IP address" : "";
            },
            "IP ADDRESS"))
        ->capture_default_str();
    const CLI::Range ports(0, 65535);
    app.add_option("--port", settings.port, "The port for plain TCP, 0 for any free one")
        ->check(ports)
        ->check(kDecimal);
    app.add_option("--tls-port", settings.tlsPort, "The port for TLS, 0 for any free one")
        ->check(ports)
        ->check(kDecimal);
    app.add_option("--tls-certificate", settings.tls.certificate,
                   "The host's certificate and what follows it in its chain, PEM")
        ->check(kFileName);
    app.add_option("--tls-key", settings.tls.key, "The key of that certificate, PEM")
        ->check(kFileName);
    app.add_option("--tls-client-ca", settings.tls.clientCa,
                   "Whose client certificates are accepted, PEM; clients need one then")
        ->check(kFileName);
}

void DescribeLimits(CLI::App& app, Settings& settings) {
    const CLI::Range seconds(0.001, kLongestTimeout);
    app.add_option("--threads", settings.threads, "Commands executed at the same time")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1024}))
        ->check(kDecimal)
        ->capture_default_str();
    app.add_option("--max-frame", settings.maxFrame, "The longest command and response, in bytes")
        ->check(CLI::Range(kSmallestMaxFrame, kLargestMaxFrame))
        ->check(kDecimal)
        ->capture_default_str();
    app.add_option("--max-connections", settings.maxConnections, "Connections at the same time")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000000}))
        ->check(kDecimal)
        ->capture_default_str();
    app.add_option("--idle-timeout", settings.idleTimeout,
                   "Seconds after which a connection without progress is ended")
        ->check(seconds)
        ->check(kDecimal)
        ->capture_default_str();
    app.add_option("--drain-timeout", settings.drainTimeout,
                   "Seconds that commands may still take after SIGTERM or SIGINT")
        ->check(seconds)
        ->check(kDecimal)
        ->capture_default_str();
}

void Describe(CLI::App& app, Settings& settings) {
    app.set_config("--config", "", "A file with options, name = value, without the dashes")
        ->check(kFileName);
    app.allow_config_extras(CLI::config_extras_mode::error);
    DescribeNetwork(app, settings);
    DescribeLimits(app, settings);
    app.add_option("--log-level", settings.logLevel, "What is told on standard error")
        ->check(CLI::IsMember({"debug", "info", "warning", "error", "off"}))
        ->capture_default_str();
    app.add_option("--bridge", settings.bridge, "The bridge library")->default_val(DefaultBridge());
    app.add_option_function<std::string>(
           "--python-version",
           [&settings](const std::string& version) {
               settings.pythonVersion = kPythonVersions.at(version);
           },
           "The newest Python to take")
        ->check(CLI::IsMember(kPythonVersions));
}

// The text of the first rule that the options together break, "" when they keep all of them.
std::string Contradiction(const Settings& settings) {
    const TlsSettings& tls = settings.tls;
    const bool hasTlsFile = !tls.certificate.empty() || !tls.key.empty() || !tls.clientCa.empty();
    if (!settings.port && !settings.tlsPort) {
        return "there is nothing to serve: give --port, --tls-port or both";
    }
    if (settings.tlsPort && (tls.certificate.empty() || tls.key.empty())) {
        return "--tls-port needs --tls-certificate and --tls-key";
    }
    if (!settings.tlsPort && hasTlsFile) {
        return "--tls-certificate, --tls-key and --tls-client-ca need --tls-port";
    }
    const bool demandsCertificates = settings.tlsPort && !tls.clientCa.empty();
    const bool isGuarded = !settings.port && demandsCertificates;
    if (!isGuarded && !asio::ip::make_address(settings.address).is_loopback()) {
        return "--address " + settings.address +
               " can be reached from other machines, and whoever can send a command can run code: "
               "give --tls-port with --tls-client-ca, and no --port";
    }
    return "";
}

// The parser calls every configuration file an INI file, and does not say what is wrong with a
// name.
std::string WhyConfigurationIsRefused(const CLI::ConfigError& error) {
    const std::string text = error.what();
    const std::string unknown = "INI was not able to parse ";
    if (!text.starts_with(unknown)) return "--config: " + text;
    return "--config: '" + text.substr(unknown.size()) + "' is no option";
}

int Refuse(const std::string& why) {
    std::cerr << "quorvalen-host: " << why << "\nRun with --help for more information.\n";
    return kWrongUsage;
}

}  // namespace

bool ReadCommandLine(int argc, char** argv, Settings& settings, int& status) {
    CLI::App app("Executes commands that come over the network, in a Python inside this process.",
                 "quorvalen-host");
    Describe(app, settings);
    try {
        app.parse(argc, argv);
        const std::string contradiction = Contradiction(settings);
        if (contradiction.empty()) return true;
        status = Refuse(contradiction);
    } catch (const CLI::Success& help) {
        status = app.exit(help);
    } catch (const CLI::ConfigError& error) {
        status = Refuse(WhyConfigurationIsRefused(error));
    } catch (const CLI::ParseError& error) {
        status = Refuse(error.what());
    }
    return false;
}

}  // namespace Quorvalen::Companions::Network::Host
