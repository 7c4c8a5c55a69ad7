// The layout in which the tests of network channels run: both client libraries are fakes.
#pragma once

#include <gtest/gtest.h>

#include "Tests/Native/Channels.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Scopes.h"

constexpr const char* kTcpFile = "libQuorvalenTcpClient.so";
constexpr const char* kTlsFile = "libQuorvalenTcpTlsClient.so";

class NetworkTest : public testing::Test {
  protected:
    NetworkTest() {
        layout.WithServices()
            .WithFake("FakeTcpClient", kTcpFile)
            .WithFake("FakeTlsClient", kTlsFile);
    }

    // The libraries of the layout that were opened since the last Clear, with their flags.
    std::string Opened() const {
        std::vector<std::string> opened;
        for (const std::string& call : DlopenShim::Calls()) {
            const bool service = call.find("libConfigs") != std::string::npos ||
                                 call.find("libUtils") != std::string::npos;
            if (call.rfind(layout.NativePrefix(), 0) == 0 && !service) {
                opened.push_back(call.substr(layout.NativePrefix().size()));
            }
        }
        return Lines(opened);
    }

    Layout layout;
    Bridge bridge{layout};
};
