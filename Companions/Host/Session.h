// One client: its frames are read, executed or answered, and the answers written, one after the
// other. A session does one thing at a time: it waits for its socket, waits for a slot, or is at
// work on a thread. So it needs no lock, although each step may run on another thread.
//
// Made by a listener; kept alive by whatever it waits for; gone after its end.
#ifndef QUORVALEN_COMPANIONS_HOST_SESSION_H
#define QUORVALEN_COMPANIONS_HOST_SESSION_H

#include <asio/ip/tcp.hpp>
#include <atomic>
#include <memory>
#include <utility>

#include "Companions/Host/CommandStream.h"
#include "Companions/Host/Connections.h"
#include "Companions/Host/Runtime.h"
#include "Companions/Host/SocketEvents.h"
#include "Companions/Host/Stream.h"
#include "Companions/Host/TlsStream.h"
#include "Companions/Host/WorkerSlots.h"

namespace Quorvalen::Companions::Network::Host {

// What all sessions share; outlives them.
struct Services {
    SocketEvents& events;
    const Settings& settings;
    const Runtime& runtime;
    WorkerSlots& slots;
    Connections& connections;
    std::atomic<std::size_t> executed = 0;    // commands
    std::atomic<std::size_t> unanswered = 0;  // commands that are here as a whole
};

template <typename Stream>
class Session final : public Connection,
                      public Job,
                      public SocketUser,
                      public std::enable_shared_from_this<Session<Stream>> {
  public:
    // `streamArguments` make the stream, which owns the socket from here on.
    template <typename... Arguments>
    Session(Services& shared, asio::ip::tcp::endpoint client, Arguments&&... streamArguments)
        : services(shared),
          peer(std::move(client)),
          stream(std::forward<Arguments>(streamArguments)...),
          input(shared.settings.maxFrame) {}

    void Start() override;
    void Ready() override { Continue(); }
    bool Execute() override;

  private:
    enum class Phase { Handshake, Receiving, Sending, Dropping };

    int Descriptor() const override { return stream.Descriptor(); }
    std::string Lateness() const override;
    std::string Peer() const;

    void Continue();
    bool Proceed();
    bool Advance();
    bool ShakeHands();
    bool TakeMessage();
    bool Receive();
    bool Send();
    bool Drop();
    void BeginDropping();

    bool Settle(IoResult result);
    void Wait(SocketEvents::Event what);
    void TellFailure() const;
    void TellEnd() const;
    void RenewDeadline();
    void CountAnswer();
    void End();

    Services& services;
    const asio::ip::tcp::endpoint peer;
    Stream stream;
    CommandStream input;
    Response response;
    std::size_t sent = 0;  // bytes of the response's frame
    std::atomic<Phase> phase = Stream::kHasHandshake ? Phase::Handshake : Phase::Receiving;
    bool hasCommand = false;  // it is here as a whole and not answered yet
    bool isLast = false;      // nothing is read after the response that is being sent
    bool isDry = false;       // the last read took all that the socket had
};

extern template class Session<PlainStream>;
extern template class Session<TlsStream>;

}  // namespace Quorvalen::Companions::Network::Host

#endif
