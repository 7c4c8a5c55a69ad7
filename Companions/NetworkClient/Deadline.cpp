#include "Companions/NetworkClient/Deadline.h"

#include <array>
#include <cstdio>

namespace Quorvalen::Companions::Network {

std::string TextOf(Seconds time) {
    std::array<char, 32> digits{};
    std::snprintf(digits.data(), digits.size(), "%.3f", time.count());
    std::string text = digits.data();
    while (text.ends_with("00") || (text.ends_with('0') && !text.ends_with(".0"))) text.pop_back();
    return text;
}

}  // namespace Quorvalen::Companions::Network
