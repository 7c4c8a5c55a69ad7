// A network client library without a network: every channel answers a command with a value that
// tells which kind of client it is and which header bytes the command had.
#include <cstring>
#include <string>

#include "Tests/Fakes/SlotOrder.h"

namespace {

class EchoChannel : public SlotOrder::ITransport {
  public:
    explicit EchoChannel(const std::string& channelAddress) : address(channelAddress) {}

    int Initialize(unsigned char, unsigned char, unsigned char) override { return 0; }

    int SendCommand(unsigned char* message, int) override {
        std::string bytes;
        for (int i = 0; i < 11; ++i) bytes += (i == 0 ? "" : ",") + std::to_string(message[i]);
        response.assign(11, '\0');
        response[10] = 2;
        response += R"({"value":{"client":")" ECHO_NAME R"(","address":")" + address +
                    R"(","header":[)" + bytes + "]}}";
        return static_cast<int>(response.size());
    }

    int ReadResponse(unsigned char* buffer, int length) override {
        std::memcpy(buffer, response.data(), static_cast<std::size_t>(length));
        return 0;
    }

    int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) override {
        return 0;
    }
    int DeployRuntime(unsigned char*, int, std::string, unsigned char) override { return 0; }

  private:
    const std::string address;
    std::string response;
};

}  // namespace

extern "C" SlotOrder::ITransport* CreateTransportChannel(const char* host, unsigned short port) {
    return new EchoChannel(std::string(host) + ":" + std::to_string(port));
}
