// What a test says to the fake Python bridge.
#pragma once

#include <functional>
#include <vector>

namespace FakePython {

using Bytes = std::vector<unsigned char>;
using Handler = std::function<Bytes(Bytes command)>;

// Set before the first command; called on any thread, many at once.
void SetHandler(Handler function);

extern int readStatus;  // what ReadResponse returns

}  // namespace FakePython
