#include "Tests/Runtimes/Python/Real/RealPython.h"

#include <fstream>

#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Paths.h"

namespace fs = std::filesystem;

RealPython::RealPython()
    : home("PYTHONHOME", GetParam().home),
      library("QUORVALEN_PYTHON_RUNTIME_PATH", GetParam().library),
      telemetry("QUORVALEN_TELEMETRY_FILE", (layout.Root() / "telemetry.jsonl").string()),
      level("QUORVALEN_LOGGING_LEVEL", "off"),
      noBytecode("PYTHONDONTWRITEBYTECODE", "1"),
      workingDirectory(layout.Root()) {
    layout.WithRealServices();
}

void RealPython::UseTestReceiver() {
    UseReceiver(
        ContentsOf(fs::path(Paths::kSource) / "Tests/Runtimes/Python/Real/ExecReceiver.py"));
}

void RealPython::UseReceiver(const std::string& source) {
    const fs::path package = layout.PythonDirectory() / "quorvalen";
    fs::create_directories(package / "core/receiver");
    for (const char* directory : {"", "core", "core/receiver"}) {
        std::ofstream(package / directory / "__init__.py") << "";
    }
    std::ofstream(package / "core/receiver/Receiver.py") << source;
}

void RealPython::UsePackage() {
    layout.WithPythonPackage();
}

void RealPython::Open() {
    bridge = std::make_unique<Bridge>(layout);
    receiver = bridge->CreateReceiver(1);
}

void RealPython::Initialize() {
    Open();
    ASSERT_EQ(0, receiver->Initialize(8, 5, 0));
}

std::string RealPython::Command(const std::string& body, unsigned char kind) {
    std::string command(11, '\0');
    command[0] = 5;
    command[9] = 8;
    command[10] = static_cast<char>(kind);
    return command + body;
}

std::string RealPython::SendTo(IReceiver& target, const std::string& command) {
    std::string message = command;
    const int length = target.SendCommand(reinterpret_cast<unsigned char*>(message.data()),
                                          static_cast<int>(message.size()));
    std::string response(static_cast<std::size_t>(length), '\0');
    target.ReadResponse(reinterpret_cast<unsigned char*>(response.data()), length);
    return response;
}

std::string RealPython::Run(const std::string& python) {
    return SendTo(*receiver, Command(python));
}

std::string RealPython::FailureOfRun(const std::string& python) {
    return FailureOf([&] { Run(python); });
}
