// From the name of a host to a connected socket.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_TCPCONNECT_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_TCPCONNECT_H

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "Companions/NetworkClient/Deadline.h"

namespace Quorvalen::Companions::Network {

// The addresses of a host in the order of the system's resolver, which waits as long as it is set
// up to. Never empty unless there is an error.
std::vector<asio::ip::tcp::endpoint> Resolve(asio::io_context& io, const std::string& host,
                                             unsigned short port, std::error_code& error);

// Connects to the first address that lets us; the error is the last one's. The socket is in
// non-blocking mode, is closed by exec, sends small messages at once and notices on its own, within
// a minute or so, that the other side is gone.
asio::ip::tcp::socket Connect(asio::io_context& io,
                              const std::vector<asio::ip::tcp::endpoint>& addresses,
                              const Deadline& deadline, std::error_code& error);

}  // namespace Quorvalen::Companions::Network

#endif
