// The settings of a channel, read from the environment at its first command.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_SETTINGS_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_SETTINGS_H

#include <cstddef>
#include <optional>
#include <string>

#include "Companions/Network/Frame.h"
#include "Companions/NetworkClient/Deadline.h"

namespace Quorvalen::Companions::Network {

struct Settings {
    Seconds connectTimeout{5};
    std::optional<Seconds> replyTimeout;
    std::size_t maxFrame = kDefaultMaxFrame;  // bytes
};

// Throws NetworkError for a value that cannot be used. `peer` is for the text.
Settings ReadSettings(const std::string& peer);

// The value of a variable, nothing when it is not set. An empty value is a wrong one: throws
// NetworkError, with what was expected.
std::optional<std::string> Setting(const std::string& peer, const char* variable,
                                   const char* expected);

}  // namespace Quorvalen::Companions::Network

#endif
