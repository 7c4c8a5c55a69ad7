#include "Tests/Support/Scopes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "Tests/Support/Files.h"

namespace fs = std::filesystem;

EnvironmentVariable::EnvironmentVariable(const std::string& variable,
                                         std::optional<std::string> value)
    : name(variable) {
    if (const char* set = std::getenv(name.c_str())) previous = set;
    Set(name, value);
}

EnvironmentVariable::~EnvironmentVariable() {
    Set(name, previous);
}

void EnvironmentVariable::Set(const std::string& variable,
                              const std::optional<std::string>& value) {
    if (value) {
        setenv(variable.c_str(), value->c_str(), 1);
    } else {
        unsetenv(variable.c_str());
    }
}

WorkingDirectory::WorkingDirectory(const fs::path& directory) : previous(fs::current_path()) {
    fs::current_path(directory);
}

WorkingDirectory::~WorkingDirectory() {
    fs::current_path(previous);
}

Capture::Capture(int captured)
    : descriptor(captured), fileName((fs::temp_directory_path() / "quorvalen-capture-XXXXXX")) {
    std::cout.flush();
    std::fflush(nullptr);
    const int file = mkstemp(fileName.data());
    if (file < 0) throw std::runtime_error("cannot create " + fileName);
    saved = dup(descriptor);
    dup2(file, descriptor);
    close(file);
}

Capture::~Capture() {
    std::cout.flush();
    std::fflush(nullptr);
    dup2(saved, descriptor);
    close(saved);
    // The reasons of a failure may be among what was taken.
    if (testing::Test::HasFailure()) std::cerr << ContentsOf(fileName);
    std::remove(fileName.c_str());
}

std::string Capture::Text() const {
    std::cout.flush();
    std::fflush(nullptr);
    return ContentsOf(fileName);
}
