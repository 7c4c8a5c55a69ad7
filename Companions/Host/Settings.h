// What the command line and the configuration file of quorvalen-host say. Filled in by CommandLine
// once, read by everything else from any thread.
#ifndef QUORVALEN_COMPANIONS_HOST_SETTINGS_H
#define QUORVALEN_COMPANIONS_HOST_SETTINGS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Companions/Network/Frame.h"

namespace Quorvalen::Companions::Network::Host {

struct TlsSettings {
    std::string certificate;  // PEM files
    std::string key;
    std::string clientCa;  // empty: clients need no certificate
};

struct Settings {
    std::string address = "127.0.0.1";
    std::optional<std::uint16_t> port;  // 0 stands for any free one
    std::optional<std::uint16_t> tlsPort;
    TlsSettings tls;
    std::size_t threads = 4;
    std::size_t maxFrame = kDefaultMaxFrame;  // bytes
    std::size_t maxConnections = 1000;
    double idleTimeout = 300;  // seconds
    double drainTimeout = 30;  // seconds
    std::string logLevel = "info";
    std::string bridge;               // the bridge library
    unsigned char pythonVersion = 0;  // the bridge's number for it, 0 for any
};

// `seconds` are at most a day.
inline std::chrono::nanoseconds Duration(double seconds) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(seconds));
}

}  // namespace Quorvalen::Companions::Network::Host

#endif
