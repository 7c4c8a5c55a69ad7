// What the tests of the companion libraries share. Every class undoes in its destructor what it did
// to the process.

#ifndef QUORVALEN_TESTS_COMPANIONSUPPORT_H
#define QUORVALEN_TESTS_COMPANIONSUPPORT_H

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace CompanionSupport {

namespace fs = std::filesystem;

inline std::string ReadFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void WriteFile(const fs::path& file, const std::string& content) {
    std::ofstream(file, std::ios::binary) << content;
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern = (fs::temp_directory_path() / "companion-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = fs::canonical(pattern);
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const fs::path& Path() const { return path_; }

  private:
    fs::path path_;
};

class ScopedWorkingDirectory {
  public:
    explicit ScopedWorkingDirectory(const fs::path& path) : previous_(fs::current_path()) {
        fs::current_path(path);
    }
    ~ScopedWorkingDirectory() {
        std::error_code ignored;
        fs::current_path(previous_, ignored);
    }
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

  private:
    fs::path previous_;
};

// Sets a variable, or removes it when no value is given.
class ScopedEnvironment {
  public:
    explicit ScopedEnvironment(const char* name, const std::optional<std::string>& value = {})
        : name_(name) {
        if (const char* previous = std::getenv(name)) previous_ = previous;
        Apply(value);
    }
    ~ScopedEnvironment() { Apply(previous_); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  private:
    void Apply(const std::optional<std::string>& value) {
        if (value) {
            ::setenv(name_.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }

    std::string name_;
    std::optional<std::string> previous_;
};

// Both output streams of the process, collected below the level of any library's buffering.
class CapturedOutput {
  public:
    CapturedOutput() {
        Flush();
        for (int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
            saved_.push_back(::dup(descriptor));
            ::dup2(::fileno(file_), descriptor);
        }
    }
    ~CapturedOutput() {
        Restore();
        std::fclose(file_);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::string Stop() {
        Restore();
        std::string text;
        std::rewind(file_);
        for (int byte = std::fgetc(file_); byte != EOF; byte = std::fgetc(file_)) {
            text += static_cast<char>(byte);
        }
        return text;
    }

  private:
    static void Flush() {
        std::cout.flush();
        std::fflush(stdout);
        std::fflush(stderr);
    }

    void Restore() {
        Flush();
        int descriptor = STDOUT_FILENO;
        for (int saved : saved_) {
            ::dup2(saved, descriptor++);
            ::close(saved);
        }
        saved_.clear();
    }

    std::FILE* file_ = std::tmpfile();
    std::vector<int> saved_;
};

// A function of the companion under test, which is opened the way the bridge opens it and never
// closed.
template <typename Function>
Function* Find(const char* name) {
    static void* const library = ::dlopen(COMPANION_LIBRARY, RTLD_NOW);
    if (library == nullptr) throw std::runtime_error(::dlerror());
    void* const symbol = ::dlsym(library, name);
    if (symbol == nullptr) throw std::runtime_error(std::string(name) + " is not exported");
    return reinterpret_cast<Function*>(symbol);
}

inline std::string OutputOf(const std::string& command) {
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("Cannot run " + command);
    std::string output;
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
        output += static_cast<char>(byte);
    }
    if (::pclose(pipe) != 0) throw std::runtime_error("Failed: " + command);
    return output;
}

// What others can bind to in the companion under test, in alphabetical order.
inline std::vector<std::string> ExportedNames() {
    std::vector<std::string> names;
    const std::string command =
        "LC_ALL=C '" NM_PROGRAM "' -D --defined-only --format=posix '" COMPANION_LIBRARY "'";
    for (const std::string& line : Lines(OutputOf(command))) {
        names.push_back(line.substr(0, line.find(' ')));
    }
    return names;
}

}  // namespace CompanionSupport

#endif
