#include "Tests/Support/Layout.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Paths.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kBridge = "libQuorvalenPythonRuntimeNative.so";

// The suite can be run against another build of the bridge, to see a test fail without a fix.
fs::path BridgeUnderTest() {
    const char* other = std::getenv("QUORVALEN_TEST_BRIDGE");
    return other != nullptr ? fs::path(other) : fs::path(Paths::kStageNative) / kBridge;
}

fs::path NewTemporaryDirectory() {
    std::string name = (fs::temp_directory_path() / "quorvalen-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot create " + name);
    return fs::canonical(name);
}

}  // namespace

Layout::Layout() : root(NewTemporaryDirectory()) {
    fs::create_directories(NativeDirectory());
    fs::create_directories(PythonDirectory());
    fs::copy_file(BridgeUnderTest(), BridgePath());
}

Layout::~Layout() {
    std::error_code ignored;
    fs::remove_all(root, ignored);
}

fs::path Layout::NativeDirectory() const {
    return root / "Binaries/Native/Linux/X64";
}

fs::path Layout::PythonDirectory() const {
    return root / "Binaries/Python";
}

fs::path Layout::BridgePath() const {
    return NativeDirectory() / kBridge;
}

Layout& Layout::WithFake(const std::string& fake, const std::string& fileName) {
    const fs::path target = NativeDirectory() / fileName;
    fs::create_directories(target.parent_path());
    fs::copy_file(fs::path(Paths::kFakes) / ("lib" + fake + ".so"), target,
                  fs::copy_options::overwrite_existing);
    return *this;
}

Layout& Layout::WithServices() {
    Fakes::SetText("GetWorkingDirectory", root.string());
    Fakes::SetText("GetConfigSource", "fake configuration");
    return WithFake("FakeConfigs", "libConfigs.so").WithFake("FakeUtils", "libUtils.so");
}

Layout& Layout::WithScrapOfText(const std::string& fileName) {
    std::ofstream(NativeDirectory() / fileName) << "This is no library.\n";
    return *this;
}

Layout& Layout::WithReceiverFile() {
    const fs::path directory = PythonDirectory() / "quorvalen/core/receiver";
    fs::create_directories(directory);
    std::ofstream(directory / "Receiver.py") << "# found by its name alone\n";
    return *this;
}

Layout& Layout::WithRealServices() {
    return WithStaged("libConfigs.so").WithStaged("libUtils.so");
}

Layout& Layout::WithPythonPackage() {
    fs::copy(fs::path(Paths::kStagePython) / "quorvalen", PythonDirectory() / "quorvalen",
             fs::copy_options::recursive);
    return *this;
}

Layout& Layout::WithStaged(const std::string& fileName) {
    fs::copy_file(fs::path(Paths::kStageNative) / fileName, NativeDirectory() / fileName);
    return *this;
}

void Layout::Remove(const std::string& fileName) {
    fs::remove(NativeDirectory() / fileName);
}
