// The last stage of the search for a Python library, from the requested version downwards, and the
// single attempt that every stage is made of.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherProbeTest : public PythonLauncherFixture {
  protected:
    void Provide(const std::string& file) {
        layout.WithFake("FakePython", file);
        DlopenShim::Map(file, layout.NativePrefix() + file);
    }

    // Everything that a search from `version` on opens; "found" or the exception comes last.
    std::string Probe(unsigned char version) {
        const Capture output(1);
        DlopenShim::Clear();
        const std::string failure = InitializeFailure(launcher, version);
        EXPECT_EQ("", output.Text());
        Calls opened;
        for (const std::string& call : DlopenShim::Calls()) {
            if (call.find("libpython") != std::string::npos) opened.push_back(call);
        }
        return Lines(opened) + (failure == "no exception" ? "found" : failure);
    }

    bool LoadInstanceFails() {
        return bridge.Cpp<bool(Quorvalen::Native::Interfaces::ILauncher*)>(
            "PythonLauncher::loadSharedLibraryInstance()")(launcher.operator->());
    }

    Launcher launcher{bridge, 0};
};

TEST_F(PythonLauncherProbeTest, WalksDownFromTheRequestedVersionInSilence) {
    Provide("libpython3.12.so");
    EXPECT_EQ("libpython3.13.so 257\nlibpython3.12.so 257\nfound", Probe(8));
    EXPECT_EQ(
        "Python Native Launcher Runtime Info:\nLibrary Location: libpython3.12.so\n"
        "Runtime Version: 3.fake\nRuntime Platform: fake-linux\n",
        launcher.NativeInfo());
}

TEST_F(PythonLauncherProbeTest, EveryVersionHasItsLibrary) {
    const std::string files[] = {"",
                                 "libpython3.6.so",
                                 "libpython3.7.so",
                                 "libpython3.8.so",
                                 "libpython3.9.so",
                                 "libpython3.10.so",
                                 "libpython3.11.so",
                                 "libpython3.12.so",
                                 "libpython3.13.so",
                                 "libpython3.14.so"};
    for (unsigned char version = 9; version >= 1; --version) {
        Provide(files[version]);
        EXPECT_EQ(files[version] + " 257\nfound", Probe(version));
    }
}

TEST_F(PythonLauncherProbeTest, NoParticularVersionBeginsWithTheNewest) {
    EXPECT_EQ(Lines({"libpython3.14.so 257", "libpython3.13.so 257", "libpython3.12.so 257",
                     "libpython3.11.so 257", "libpython3.10.so 257", "libpython3.9.so 257",
                     "libpython3.8.so 257", "libpython3.7.so 257", "libpython3.6.so 257"}) +
                  Texts::kPythonNotFound,
              Probe(0));
}

TEST_F(PythonLauncherProbeTest, TheOldestVersionTriesNoOther) {
    Provide("libpython3.7.so");
    EXPECT_EQ(std::string("libpython3.6.so 257\n") + Texts::kPythonNotFound, Probe(1));
}

TEST_F(PythonLauncherProbeTest, VersionsOutsideTheTableSkipTheProbe) {
    Provide("libpython3.14.so");
    EXPECT_EQ(Texts::kPythonNotFound, Probe(10));
    EXPECT_EQ(Texts::kPythonNotFound, Probe(255));
}

TEST_F(PythonLauncherProbeTest, AVersionOutsideTheTableStillHasTheOtherStages) {
    Provide("libpython3.11.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_VERSION", "3.11");
    const Capture output(1);
    EXPECT_EQ("no exception", InitializeFailure(launcher, 10));
}

TEST_F(PythonLauncherProbeTest, AFileThatIsNoLibraryIsPassedOver) {
    layout.WithScrapOfText("libpython3.14.so");
    DlopenShim::Map("libpython3.14.so", layout.NativePrefix() + "libpython3.14.so");
    Provide("libpython3.13.so");
    EXPECT_EQ("libpython3.14.so 257\nlibpython3.13.so 257\nfound", Probe(9));
}

TEST_F(PythonLauncherProbeTest, TheSearchCanBeRepeatedAfterItFailed) {
    EXPECT_EQ(std::string("libpython3.6.so 257\n") + Texts::kPythonNotFound, Probe(1));
    Provide("libpython3.6.so");
    EXPECT_EQ("libpython3.6.so 257\nfound", Probe(1));
}

TEST_F(PythonLauncherProbeTest, AFailedSearchIsRaisedWithoutRuntimeInformationAndReported) {
    Fakes::ClearTrace();
    EXPECT_EQ(Texts::kPythonNotFound, InitializeFailure(launcher, 1));
    EXPECT_EQ(
        "LogMessage(\"Native exception\", \"Python Launcher: Exception code 006. Cannot find "
        "Python installed on this machine. Install Python3 (on windows) or libpython3-dev (on "
        "linux or macOS)\", \"Unknown\")",
        Fakes::Trace().back());
}

// --- SetPath ------------------------------------------------------------------------------------

TEST_F(PythonLauncherProbeTest, ADirectoryOfAVersionIsAPlainPrefix) {
    layout.WithFake("FakePython", "directory/libpython3.14.so");
    const std::string directory = layout.NativePrefix() + "directory/";
    EXPECT_EQ(0, launcher->SetPath(9, directory));
    EXPECT_EQ(directory + "libpython3.14.so 257\nfound", Probe(9));
}

TEST_F(PythonLauncherProbeTest, APrefixWithoutASeparatorRunsIntoTheFileName) {
    Provide("libpython3.13.so");
    EXPECT_EQ(0, launcher->SetPath(9, "/nowhere"));
    EXPECT_EQ("/nowherelibpython3.14.so 257\nlibpython3.13.so 257\nfound", Probe(9));
}

TEST_F(PythonLauncherProbeTest, TheDirectoryOfOneVersionIsNoOthers) {
    EXPECT_EQ(0, launcher->SetPath(2, "/two/"));
    EXPECT_EQ(0, launcher->SetPath(2, "/replaced/"));
    EXPECT_EQ(std::string("libpython3.8.so 257\n/replaced/libpython3.7.so 257\n"
                          "libpython3.6.so 257\n") +
                  Texts::kPythonNotFound,
              Probe(3));
}

TEST_F(PythonLauncherProbeTest, DirectoriesOfVersionsThatAreNeverProbedHaveNoEffect) {
    EXPECT_EQ(0, launcher->SetPath(0, "/zero/"));
    EXPECT_EQ(0, launcher->SetPath(255, "/unknown/"));
    Provide("libpython3.14.so");
    EXPECT_EQ("libpython3.14.so 257\nfound", Probe(0));
}

// --- One attempt --------------------------------------------------------------------------------

TEST_F(PythonLauncherProbeTest, AnAttemptAnswersWhetherItFailed) {
    Probe(1);
    EXPECT_TRUE(LoadInstanceFails());
    Provide("libpython3.6.so");
    EXPECT_FALSE(LoadInstanceFails());
}

TEST_F(PythonLauncherProbeTest, AFailedAttemptLeavesNoErrorWithTheLoader) {
    Probe(1);
    EXPECT_TRUE(LoadInstanceFails());
    EXPECT_EQ(nullptr, dlerror());
}

TEST_F(PythonLauncherProbeTest, AnErrorTextIsAFailureEvenWithAHandle) {
    Provide("libpython3.14.so");
    Provide("libpython3.13.so");
    DlopenShim::LeaveErrorAfter("libpython3.14.so");
    EXPECT_EQ("libpython3.14.so 257\nlibpython3.13.so 257\nfound", Probe(9));
}

}  // namespace
