// A temporary copy of the directory layout that the bridge expects around itself, with the
// libraries a test chooses. The bridge is copied into it at construction; everything is removed at
// destruction, though a library that is open stays usable.
#pragma once

#include <filesystem>
#include <string>

class Layout {
  public:
    Layout();
    ~Layout();
    Layout(const Layout&) = delete;
    Layout& operator=(const Layout&) = delete;

    // Puts the fake library `fake` ("FakeConfigs") beside the bridge under `fileName`.
    Layout& WithFake(const std::string& fake, const std::string& fileName);

    // Fakes of the configuration and the utilities library. Errors are logged to Root().
    Layout& WithServices();

    // A file that is no library, under the name of one.
    Layout& WithScrapOfText(const std::string& fileName);

    // A receiver file for launchers whose Python is a fake: it only has to exist.
    Layout& WithReceiverFile();

    // The real companions and the real Python package, as staged by the build.
    Layout& WithRealServices();
    Layout& WithPythonPackage();

    // Copies a staged library ("libQuorvalenCppRuntimeNative.so") beside the bridge.
    Layout& WithStaged(const std::string& fileName);

    void Remove(const std::string& fileName);

    std::filesystem::path Root() const { return root; }
    std::filesystem::path NativeDirectory() const;
    std::filesystem::path PythonDirectory() const;
    std::filesystem::path BridgePath() const;

    // The path by which the bridge names its own directory: its own, with "/" at the end.
    std::string NativePrefix() const { return NativeDirectory().string() + "/"; }

  private:
    std::filesystem::path root;
};
