// The fixture of the tests with a real interpreter: a layout with the real services, a Python
// chosen by the parameter, and either the real Python package or the test receiver that runs the
// body of a command as Python.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Native/Interfaces/IReceiver.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Layout.h"
#include "Tests/Support/Pythons.h"
#include "Tests/Support/Scopes.h"

class RealPython : public testing::TestWithParam<Python> {
  protected:
    using IReceiver = Quorvalen::Native::Interfaces::IReceiver;

    RealPython();

    // Which receiver module the interpreter imports. Call one of them before Open().
    void UseTestReceiver();
    void UseReceiver(const std::string& source);
    void UsePackage();

    // Opens the bridge and creates its receiver, in mode 1.
    void Open();
    void Initialize();

    // A command of the test receiver: the text is Python. Returns the whole response.
    std::string Run(const std::string& python);

    // The text of the failure of such a command.
    std::string FailureOfRun(const std::string& python);

    static std::string Command(const std::string& body, unsigned char kind = 1);
    static std::string SendTo(IReceiver& receiver, const std::string& command);

    Layout layout;
    EnvironmentVariable home;
    EnvironmentVariable library;
    EnvironmentVariable telemetry;
    EnvironmentVariable level;
    EnvironmentVariable noBytecode;
    WorkingDirectory workingDirectory;
    std::unique_ptr<Bridge> bridge;
    IReceiver* receiver = nullptr;
};

#define QUORVALEN_ON_EVERY_PYTHON(suite)                                              \
    INSTANTIATE_TEST_SUITE_P(Installed, suite, testing::ValuesIn(InstalledPythons()), \
                             [](const auto& test) { return NameOf(test.param); })
