// The certificates that the network tests use, made anew for every test by the program openssl, so
// that none can expire in the source tree.
#pragma once

#include <filesystem>
#include <string>

namespace NetworkTests {

// The files of a certificate and of its private key, both PEM.
struct Identity {
    std::string certificate;
    std::string key;
};

struct Certificates {
    // Writes the files into `directory`, which exists and outlives their use. Throws
    // std::runtime_error with what openssl wrote when it fails.
    explicit Certificates(const std::filesystem::path& directory);

    // Two authorities that do not know each other.
    std::string ca;
    std::string otherCa;

    // Servers: for 127.0.0.1 and localhost, signed by `ca` unless the name says otherwise.
    Identity server;
    Identity untrustedServer;  // signed by `otherCa`
    Identity expired;
    Identity notYetValid;
    Identity wrongName;      // for elsewhere.test and 127.0.0.99
    Identity nameAsSubject;  // its subject is localhost, but no name is

    // Clients.
    Identity client;
    Identity untrustedClient;  // signed by `otherCa`
};

}  // namespace NetworkTests
