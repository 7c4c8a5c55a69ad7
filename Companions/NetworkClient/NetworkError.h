// What every failing call of a channel throws. The bridge, which knows std::exception only, turns
// it into a status and a text.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_NETWORKERROR_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_NETWORKERROR_H

#include <stdexcept>

namespace Quorvalen::Companions::Network {

// what() is one of the texts of Messages.h, whole.
class NetworkError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace Quorvalen::Companions::Network

#endif
