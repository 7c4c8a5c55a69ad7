#include "Tests/Support/Files.h"

#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>

std::string ContentsOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

std::filesystem::path ErrorLogFile(const std::filesystem::path& directory) {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    char date[16];
    std::strftime(date, sizeof date, "%Y-%m-%d", &local);
    return directory / ("_QuorvalenNativeErrorLogger_" + std::string(date) + ".txt");
}

std::string WithoutTimeAndThread(const std::string& log) {
    static const std::regex stamp("\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\tThread ID: \\d+\\t");
    return std::regex_replace(log, stamp, "<time>\tThread ID: <id>\t");
}

std::string Lines(const std::vector<std::string>& lines) {
    std::string joined;
    for (const std::string& line : lines) joined += line + "\n";
    return joined;
}
