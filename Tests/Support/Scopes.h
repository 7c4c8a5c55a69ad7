// What a test changes in its process and puts back at the end of the scope.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

// Sets an environment variable, or removes it when there is no value.
class EnvironmentVariable {
  public:
    EnvironmentVariable(const std::string& variable, std::optional<std::string> value);
    ~EnvironmentVariable();
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  private:
    static void Set(const std::string& variable, const std::optional<std::string>& value);

    const std::string name;
    std::optional<std::string> previous;
};

class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::filesystem::path& directory);
    ~WorkingDirectory();
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

  private:
    const std::filesystem::path previous;
};

// Takes everything that is written to a file descriptor (1 or 2), whoever writes it.
class Capture {
  public:
    explicit Capture(int captured);
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // What was written until now.
    std::string Text() const;

  private:
    const int descriptor;
    int saved;
    std::string fileName;
};
