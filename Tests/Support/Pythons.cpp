#include "Tests/Support/Pythons.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <regex>

namespace fs = std::filesystem;

namespace {

struct Place {
    fs::path libraries;  // a directory
    fs::path home;
    std::string suffix;
};

std::vector<Place> UsualPlaces() {
    std::vector<Place> places = {{"/usr/lib/x86_64-linux-gnu", "/usr", "_debian"},
                                 {"/usr/local/lib", "/usr/local", "_local"}};
    const char* root = std::getenv("PYENV_ROOT");
    const char* userHome = std::getenv("HOME");
    fs::path pyenv = root != nullptr ? fs::path(root) : fs::path();
    if (root == nullptr && userHome != nullptr) pyenv = fs::path(userHome) / ".pyenv";
    std::error_code missing;
    for (const auto& version : fs::directory_iterator(pyenv / "versions", missing)) {
        if (version.is_symlink()) continue;
        places.push_back({version.path() / "lib", version.path(), ""});
    }
    return places;
}

// "libpython3.7m.so" and "libpython3.11.so", with or without the trailing number of a package that
// has no development files; not the stable-interface "libpython3.so".
void AddPythonsOf(const Place& place, std::vector<Python>& pythons) {
    static const std::regex pattern(R"(libpython3\.(\d+)m?\.so(\.1\.0)?)");
    std::error_code missing;
    for (const auto& file : fs::directory_iterator(place.libraries, missing)) {
        std::smatch match;
        const std::string name = file.path().filename().string();
        if (!std::regex_match(name, match, pattern) || !match[2].matched) continue;
        const std::string version = "3." + match[1].str();
        if (!fs::exists(place.home / "lib" / ("python" + version) / "os.py")) continue;
        pythons.push_back({version, std::stoi(match[1].str()), file.path().string(),
                           place.home.string(), "3_" + match[1].str() + place.suffix});
    }
}

bool IsSupported(const Python& python) {
    return python.minor >= 6 && python.minor <= 14;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Python& python) {
    return stream << "CPython " << python.version << " (" << python.library << ")";
}

std::vector<Python> InstalledPythons() {
    std::vector<Python> pythons;
    for (const Place& place : UsualPlaces()) AddPythonsOf(place, pythons);
    std::erase_if(pythons, [](const Python& python) { return !IsSupported(python); });
    std::sort(pythons.begin(), pythons.end(), [](const Python& left, const Python& right) {
        return std::tie(left.minor, left.name) < std::tie(right.minor, right.name);
    });
    const auto sameName = [](const Python& left, const Python& right) {
        return left.name == right.name;
    };
    pythons.erase(std::unique(pythons.begin(), pythons.end(), sameName), pythons.end());
    return pythons;
}

std::string NameOf(const Python& python) {
    return "Python" + python.name;
}
