// A channel to one host. The bridge gets it from CreateTransportChannel and deletes it through the
// virtual destructor, when no thread is in it any more; until then any number of threads may send
// commands at the same time. The callers' threads do all the work.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_CHANNEL_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_CHANNEL_H

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "Companions/NetworkClient/ConnectionOpener.h"
#include "Companions/NetworkClient/ConnectionPool.h"
#include "Companions/NetworkClient/Responses.h"
#include "Native/Interfaces/ITransport.h"

namespace Quorvalen::Companions::Network {

class Channel final : public Native::Interfaces::ITransport {
  public:
    // Opens nothing and reads no setting.
    Channel(std::string hostName, unsigned short portNumber);

    // Nothing is left to do: returns 0.
    int Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                   unsigned char runtimeVersion) override;

    // Sends the command once, waits for its response and returns the response's length in bytes.
    // Throws NetworkError, which says whether the command may have been executed.
    int SendCommand(unsigned char* message, int length) override;

    // Copies the response of the calling thread's last command, at most `length` bytes of it, and
    // forgets it. Throws NetworkError when there is none.
    int ReadResponse(unsigned char* buffer, int length) override;

    // The host sets its own runtimes up: both do nothing and return 0.
    int SetEmbeddedRuntime(unsigned char callingRuntime, unsigned char targetRuntime,
                           unsigned char version, std::string path) override;
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

  private:
    // The same one always, once the settings were good.
    ConnectionOpener& Opener();
    std::span<const unsigned char> Command(const unsigned char* message, int length,
                                           std::size_t longest) const;

    const std::string host;
    const unsigned short port;
    const std::string peer;

    std::mutex creatingOpener;
    std::unique_ptr<ConnectionOpener> ownedOpener;
    std::atomic<ConnectionOpener*> opener{nullptr};
    ConnectionPool pool;  // after the opener: its connections go first
    Responses responses;
};

}  // namespace Quorvalen::Companions::Network

#endif
