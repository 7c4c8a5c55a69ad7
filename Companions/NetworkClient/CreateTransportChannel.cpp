// The one function that the bridge looks up in this library.
#include <exception>

#include "Companions/NetworkClient/Channel.h"

// A channel to `port` of `host`, a name or an address; the caller deletes it. Opens nothing. Null
// when there is no memory for it. Any thread may call it.
extern "C" __attribute__((visibility("default"))) Quorvalen::Native::Interfaces::ITransport*
CreateTransportChannel(const char* host, unsigned short port) {
    try {
        return new Quorvalen::Companions::Network::Channel(host == nullptr ? "" : host, port);
    } catch (const std::exception&) {
        return nullptr;
    }
}
