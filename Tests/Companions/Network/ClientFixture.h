// What the tests of the network client libraries share: the library, opened as the bridge opens it,
// and a channel of it, called through the slots of the interface.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Tests/Companions/Network/Certificates.h"
#include "Tests/Companions/Network/Peer.h"
#include "Tests/Fakes/SlotOrder.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Scopes.h"

namespace NetworkTests {

enum class Kind { Plain, Tls };

std::string NameOf(const testing::TestParamInfo<Kind>& kind);

// For the list of tests.
void PrintTo(Kind kind, std::ostream* stream);

constexpr const char* kPrefix = "Quorvalen Network Client: Exception code ";

class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::filesystem::path& Path() const { return path; }

  private:
    std::filesystem::path path;
};

class Channel {
  public:
    Channel(Kind kind, const char* host, unsigned short port);

    SlotOrder::ITransport* operator->() const { return channel.get(); }

    // The slots with texts for bytes. ReadResponse gives a buffer of `length` bytes that was full
    // of dots before.
    int SendCommand(const std::string& command) const;
    std::string ReadResponse(int length) const;

    // The response of one command, whole.
    std::string Exchange(const std::string& command) const;

    // The text of the exception that the command fails with.
    std::string Failure(const std::string& command) const;

    void Delete() { channel.reset(); }

  private:
    std::unique_ptr<SlotOrder::ITransport> channel;
};

// The path of the built library, and the library itself.
std::string LibraryFile(Kind kind);
void* OpenLibrary(Kind kind);

// No variable of the network client is set at the beginning of a test.
class ClientFixture : public testing::Test {
  protected:
    ClientFixture();

    // Until the end of the test.
    void Set(const std::string& variable, const std::string& value);

    // A server of this kind, whose certificate the client trusts.
    std::unique_ptr<Peer> Serve(Kind kind, Peer::Script script, unsigned short port = 0);

    const Certificates& Files();
    std::string Directory() const { return directory.Path().string() + "/"; }

  private:
    TemporaryDirectory directory;
    std::optional<Certificates> certificates;
    std::vector<std::unique_ptr<EnvironmentVariable>> variables;
};

// The same tests for both libraries.
class NetworkClientTest : public ClientFixture, public testing::WithParamInterface<Kind> {
  protected:
    std::unique_ptr<Peer> Serve(Peer::Script script, unsigned short port = 0) {
        return ClientFixture::Serve(GetParam(), std::move(script), port);
    }
    Channel ChannelTo(const Peer& peer) const {
        return Channel(GetParam(), "127.0.0.1", peer.Port());
    }
};

// Of this process.
std::size_t OpenDescriptors();

// Waits until it holds; false when it does not within half a minute.
template <typename Condition>
bool Eventually(Condition holds) {
    for (int left = 3000; left > 0; --left) {
        if (holds()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace NetworkTests
