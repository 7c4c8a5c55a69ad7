#include "Companions/Host/Session.h"

#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <array>
#include <sstream>

namespace Quorvalen::Companions::Network::Host {

namespace {

constexpr Clock::duration kHandshakeTime = std::chrono::seconds(10);

// How long an answer is protected after which nothing is read: closing a socket with unread bytes
// in it resets the connection, and the client might lose the answer.
constexpr Clock::duration kDroppingTime = std::chrono::seconds(1);

// A client that never lets its session wait has to let others have the thread.
constexpr int kStepsInARow = 64;

using Event = SocketEvents::Event;

}  // namespace

template <typename Stream>
void Session<Stream>::Start() {
    SetDeadline(Stream::kHasHandshake ? kHandshakeTime : Duration(services.settings.idleTimeout));
    Wait(Event::Read);
}

template <typename Stream>
bool Session<Stream>::Execute() {
    services.runtime.Execute(input.Command(), response);
    input.ForgetCommand();
    ++services.executed;
    phase = Phase::Sending;
    return Proceed();
}

template <typename Stream>
void Session<Stream>::Continue() {
    if (Proceed()) services.slots.Run(this->shared_from_this());
}

// True when a command is to be executed. Otherwise the session waits or has ended: it may be at
// work on another thread already, so nothing of it may be touched any more.
template <typename Stream>
bool Session<Stream>::Proceed() {
    try {
        return Advance();
    } catch (const std::exception& error) {
        spdlog::error("{}: {}", Peer(), error.what());
        End();
        return false;
    }
}

template <typename Stream>
bool Session<Stream>::Advance() {
    for (int step = 0; step < kStepsInARow; ++step) {
        bool goesOn = false;
        switch (phase) {
            case Phase::Handshake:
                goesOn = ShakeHands();
                break;
            case Phase::Receiving:
                goesOn = TakeMessage();
                break;
            case Phase::Sending:
                goesOn = Send();
                break;
            case Phase::Dropping:
                goesOn = Drop();
                break;
        }
        if (!goesOn) return false;
        if (hasCommand && phase == Phase::Receiving) return true;
    }
    // A client that sends lets it be read, and one that receives lets it be written.
    Wait(Event::Any);
    return false;
}

template <typename Stream>
bool Session<Stream>::ShakeHands() {
    const IoResult result = stream.Handshake();
    if (result.outcome == Io::Failed) {
        TellFailure();
        BeginDropping();
        return true;
    }
    if (!Settle(result)) return false;
    phase = Phase::Receiving;
    return true;
}

template <typename Stream>
bool Session<Stream>::TakeMessage() {
    switch (input.Next(response)) {
        case CommandStream::Found::Nothing:
            return Receive();
        case CommandStream::Found::Command:
            hasCommand = true;
            ++services.unanswered;
            ClearDeadline();
            return true;
        case CommandStream::Found::LastAnswer:
            spdlog::warn("{}: a frame of {} bytes is announced, at most {} are accepted", Peer(),
                         input.AnnouncedLength(), services.settings.maxFrame);
            isLast = true;
            break;
        case CommandStream::Found::Answer:
            break;
    }
    phase = Phase::Sending;
    return true;
}

template <typename Stream>
bool Session<Stream>::Receive() {
    if (isDry && !stream.MayHoldBytes()) {
        isDry = false;
        return Settle({Io::WantsRead});
    }
    const std::span<unsigned char> space = input.Space();
    const IoResult result = stream.Read(space);
    if (!Settle(result)) return false;
    input.Commit(result.count);
    isDry = result.count < space.size();
    return true;
}

template <typename Stream>
bool Session<Stream>::Send() {
    const std::span<const unsigned char> rest = response.Frame().subspan(sent);
    const IoResult result = stream.Write(rest);
    if (!Settle(result)) return false;
    sent += result.count;
    if (result.count < rest.size()) return true;
    CountAnswer();
    sent = 0;
    response.Forget();
    phase = Phase::Receiving;
    if (isLast) BeginDropping();
    return true;
}

template <typename Stream>
void Session<Stream>::BeginDropping() {
    phase = Phase::Dropping;
    SetDeadline(kDroppingTime);
    stream.SayEnd();
    shutdown(stream.Descriptor(), SHUT_WR);
}

template <typename Stream>
bool Session<Stream>::Drop() {
    std::array<unsigned char, 4096> dropped;
    const ssize_t count = recv(stream.Descriptor(), dropped.data(), dropped.size(), 0);
    if (count > 0) return true;
    return Settle({count == 0 || errno != EAGAIN ? Io::Ended : Io::WantsRead});
}

// True when the operation is done. Otherwise the session waits or has ended, as after Proceed.
template <typename Stream>
bool Session<Stream>::Settle(IoResult result) {
    switch (result.outcome) {
        case Io::Done:
            return true;
        case Io::WantsRead:
            Wait(Event::Read);
            return false;
        case Io::WantsWrite:
            Wait(Event::Write);
            return false;
        case Io::Ended:
            TellEnd();
            break;
        case Io::Failed:
            TellFailure();
            break;
    }
    End();
    return false;
}

template <typename Stream>
void Session<Stream>::Wait(Event what) {
    RenewDeadline();
    services.events.Await(Descriptor(), what, this->shared_from_this());
}

// The times for handshake and dropping are not extended by what the client sends.
template <typename Stream>
void Session<Stream>::RenewDeadline() {
    const Phase now = phase;
    if (now == Phase::Handshake || now == Phase::Dropping) return;
    SetDeadline(Duration(services.settings.idleTimeout));
}

template <typename Stream>
void Session<Stream>::CountAnswer() {
    if (!hasCommand) return;
    hasCommand = false;
    --services.unanswered;
}

template <typename Stream>
void Session<Stream>::End() {
    if (phase != Phase::Dropping) stream.SayEnd();
    CountAnswer();
    services.connections.Remove(*this);
}

template <typename Stream>
std::string Session<Stream>::Peer() const {
    std::ostringstream text;
    text << peer;
    return text.str();
}

template <typename Stream>
std::string Session<Stream>::Lateness() const {
    switch (phase) {
        case Phase::Handshake:
            return Peer() + ": no TLS handshake within 10 s";
        case Phase::Dropping:
            return "";
        default:
            return fmt::format("{}: no progress for {} s (--idle-timeout)", Peer(),
                               services.settings.idleTimeout);
    }
}

template <typename Stream>
void Session<Stream>::TellFailure() const {
    if (WasEndedHere()) return;
    const char* what = phase == Phase::Handshake ? "TLS handshake failed" : "connection lost";
    spdlog::warn("{}: {}: {}", Peer(), what, stream.Failure());
}

// A check of a balancer that connects and goes away is no event.
template <typename Stream>
void Session<Stream>::TellEnd() const {
    if (WasEndedHere()) return;
    const bool isCut = phase == Phase::Receiving && !input.IsBetweenFrames();
    spdlog::log(isCut ? spdlog::level::info : spdlog::level::debug, "{}: closed by the client{}",
                Peer(), isCut ? " in the middle of a frame" : "");
}

template class Session<PlainStream>;
template class Session<TlsStream>;

}  // namespace Quorvalen::Companions::Network::Host
