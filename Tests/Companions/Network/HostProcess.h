// The program quorvalen-host as a child process, started from the stage that the build made, and
// what a test wants to know of it. The child is killed at the end of the scope, whatever happened,
// and with the test program. Everything that waits gives up after kPatience and fails by exception.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace NetworkTests {

using Texts = std::vector<std::string>;

inline constexpr std::chrono::seconds kPatience(60);

// Waits until `condition` holds; throws std::runtime_error with `what` when it never does.
template <typename Condition>
void WaitUntil(Condition condition, const std::string& what);

[[noreturn]] void GiveUp(const std::string& what);
void ShortPause();

template <typename Condition>
void WaitUntil(Condition condition, const std::string& what) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) GiveUp(what);
        ShortPause();
    }
}

// A folder of the test's own.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::filesystem::path Path() const { return path; }
    std::string File(const std::string& name) const { return path / name; }

  private:
    std::filesystem::path path;
};

class HostProcess {
  public:
    // `environment` as "NAME=value"; `descriptorLimit` 0 for the test's own.
    explicit HostProcess(const Texts& arguments, const Texts& environment = {},
                         unsigned descriptorLimit = 0);
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Waits for the ready line.
    std::string ReadyLine();
    unsigned short TcpPort() { return PortBehind("tcp "); }
    unsigned short TlsPort() { return PortBehind("tls "); }

    void Signal(int number) const;

    // The exit status, or minus the signal that ended it.
    int Wait();

    // What it wrote to standard output and to standard error until now; the log without the times.
    std::string Output() const;
    std::string Errors() const;
    std::string Log() const;

    // Waits until the log has `part`.
    void WaitForLog(const std::string& part) const;

    // The last line of standard output, without its end.
    std::string LastLine() const;

    std::size_t Descriptors() const;
    std::size_t ResidentBytes() const;
    pid_t Id() const { return id; }

  private:
    unsigned short PortBehind(const std::string& kind);
    [[noreturn]] void BecomeHost(const Texts& arguments, const Texts& environment,
                                 unsigned descriptorLimit) const;

    TemporaryDirectory directory;
    pid_t id = -1;
    bool isRunning = true;
    int status = 0;
};

// Arguments for a host whose receiver is the fake that answers with the command.
Texts WithEcho(Texts arguments);

}  // namespace NetworkTests
