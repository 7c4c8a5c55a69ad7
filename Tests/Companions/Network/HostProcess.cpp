#include "Tests/Companions/Network/HostProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <thread>

namespace NetworkTests {

namespace fs = std::filesystem;

namespace {

std::string ContentsOf(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

// The suite can be run against another build of the host, to see a test fail without a fix.
std::string HostUnderTest() {
    const char* other = std::getenv("QUORVALEN_TEST_HOST");
    return other != nullptr ? other : HOST_PROGRAM;
}

void Redirect(const std::string& file, int descriptor) {
    dup2(open(file.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600), descriptor);
}

std::vector<char*> Pointers(Texts& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

void GiveUp(const std::string& what) {
    throw std::runtime_error("waited in vain for " + what);
}

void ShortPause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

TemporaryDirectory::TemporaryDirectory() {
    std::string name = (fs::temp_directory_path() / "quorvalen-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot create " + name);
    path = fs::canonical(name);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

HostProcess::HostProcess(const Texts& arguments, const Texts& environment,
                         unsigned descriptorLimit) {
    id = fork();
    if (id < 0) throw std::runtime_error("cannot fork");
    if (id == 0) BecomeHost(arguments, environment, descriptorLimit);
}

void HostProcess::BecomeHost(const Texts& arguments, const Texts& environment,
                             unsigned descriptorLimit) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Redirect(directory.File("out"), STDOUT_FILENO);
    Redirect(directory.File("err"), STDERR_FILENO);
    if (descriptorLimit > 0) {
        const rlimit limit = {descriptorLimit, descriptorLimit};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    for (const char* variable :
         {"QUORVALEN_PYTHON_RUNTIME_PATH", "QUORVALEN_PYTHON_VERSION", "QUORVALEN_PYTHON_LIFETIME",
          "PYTHONPATH", "PYTHONHOME", "PYTHONSTARTUP"}) {
        unsetenv(variable);
    }
    setenv("QUORVALEN_LOGGING_LEVEL", "off", 1);
    setenv("QUORVALEN_TELEMETRY_FILE", "off", 1);
    for (const std::string& setting : environment) {
        const std::size_t equals = setting.find('=');
        setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
    }
    Texts words = {HostUnderTest()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    execv(words.front().c_str(), Pointers(words).data());
    _exit(127);
}

HostProcess::~HostProcess() {
    if (!isRunning) return;
    kill(id, SIGKILL);
    waitpid(id, nullptr, 0);
}

std::string HostProcess::ReadyLine() {
    static const std::regex line("(^|\n)(quorvalen-host ready: [^\n]*)\n");
    std::smatch found;
    std::string output;
    WaitUntil(
        [&] {
            output = Output();
            if (std::regex_search(output, found, line)) return true;
            if (waitpid(id, &status, WNOHANG) != id) return false;
            isRunning = false;
            throw std::runtime_error("the host ended: " + Errors());
        },
        "the ready line");
    return found[2];
}

unsigned short HostProcess::PortBehind(const std::string& kind) {
    const std::string line = ReadyLine();
    const std::size_t begin = line.find(':', line.find(kind)) + 1;
    return static_cast<unsigned short>(std::stoi(line.substr(begin)));
}

void HostProcess::Signal(int number) const {
    kill(id, number);
}

int HostProcess::Wait() {
    WaitUntil([&] { return !isRunning || waitpid(id, &status, WNOHANG) == id; }, "the host's end");
    isRunning = false;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string HostProcess::Output() const {
    return ContentsOf(directory.File("out"));
}

std::string HostProcess::Errors() const {
    return ContentsOf(directory.File("err"));
}

std::string HostProcess::Log() const {
    static const std::regex time("(^|\n)\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} ");
    return std::regex_replace(Errors(), time, "$1");
}

void HostProcess::WaitForLog(const std::string& part) const {
    WaitUntil([&] { return Log().find(part) != std::string::npos; }, "'" + part + "' in " + Log());
}

std::string HostProcess::LastLine() const {
    std::string output = Output();
    if (!output.empty()) output.pop_back();
    return output.substr(output.rfind('\n') + 1);
}

std::size_t HostProcess::Descriptors() const {
    const fs::directory_iterator entries("/proc/" + std::to_string(id) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t HostProcess::ResidentBytes() const {
    std::ifstream memory("/proc/" + std::to_string(id) + "/statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    memory >> all >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

Texts WithEcho(Texts arguments) {
    arguments.insert(arguments.end(), {"--bridge", ECHO_BRIDGE});
    return arguments;
}

}  // namespace NetworkTests
