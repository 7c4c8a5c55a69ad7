// Small helpers around files and failures that many tests need.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

// The whole file, or "" when it cannot be opened.
std::string ContentsOf(const std::filesystem::path& file);

// The path of the day's error log file in `directory`.
std::filesystem::path ErrorLogFile(const std::filesystem::path& directory);

// The entries of an error log or of standard error with the time stamp and the thread id replaced:
// "<time>\tThread ID: <id>\t...". Fails the calling test when an entry has another shape.
std::string WithoutTimeAndThread(const std::string& log);

// Lines for comparing whole traces: EXPECT_EQ(Lines({...}), Lines(Fakes::Trace())).
std::string Lines(const std::vector<std::string>& lines);

// The text of the exception that `operation` raises, "no exception" when it raises none.
template <typename Operation>
std::string FailureOf(Operation operation) {
    try {
        operation();
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return "no exception";
}
