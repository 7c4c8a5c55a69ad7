// The Python inside the host: opens the bridge library and passes commands to its receiver. The
// main thread makes the one object, which lives as long as the process; then any thread executes.
#ifndef QUORVALEN_COMPANIONS_HOST_RUNTIME_H
#define QUORVALEN_COMPANIONS_HOST_RUNTIME_H

#include <span>
#include <string>

#include "Companions/Host/Response.h"
#include "Companions/Host/Settings.h"
#include "Native/Interfaces/IReceiver.h"

namespace Quorvalen::Companions::Network::Host {

class Runtime {
  public:
    // Opens the bridge and starts Python. Throws an exception whose text says what failed.
    explicit Runtime(const Settings& settings);

    // Executes `command` on the calling thread. Every failure becomes an exception response.
    void Execute(std::span<unsigned char> command, Response& response) const;

    // "3.11.2", or "unknown" when the bridge's Python answers in another way than ours.
    std::string PythonVersion() const;

    // Python is never finalised: what it printed may still be in its buffer.
    void FlushOutput() const;

  private:
    void ExecuteOrThrow(std::span<unsigned char> command, Response& response) const;

    const std::size_t maxFrame;
    Native::Interfaces::IReceiver& receiver;
};

}  // namespace Quorvalen::Companions::Network::Host

#endif
