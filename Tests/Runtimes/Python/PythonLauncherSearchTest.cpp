// The search for a Python library: the places and their order, what each of them prints, what is
// handed to the dynamic loader, and the path that is carried from stage to stage.
//
// The launchers are in mode 0, whose start is the search and the binding of the functions alone.
#include "Tests/Runtimes/Python/PythonLauncherFixture.h"

namespace {

class PythonLauncherSearchTest : public PythonLauncherFixture {
  protected:
    // A library that the loader finds under the bare name `file`.
    void Provide(const std::string& file) {
        layout.WithFake("FakePython", file);
        DlopenShim::Map(file, layout.NativePrefix() + file);
    }
    // A library that is found by its whole path only; returns the path.
    std::string ProvideByPath(const std::string& file) {
        layout.WithFake("FakePython", file);
        return layout.NativePrefix() + file;
    }
    void Configure(const std::string& path) { Fakes::SetText("GetChannelRuntimePath", path); }

    // Searches from `version` on; returns the exception's text, or "found <path>".
    std::string Search(unsigned char version) {
        const Capture output(1);
        const std::string failure = InitializeFailure(launcher, version);
        printed = output.Text();
        return failure == "no exception" ? "found " + Path() : failure;
    }

    // The library path, as the runtime information tells it.
    std::string Path() {
        const std::string info = launcher.NativeInfo();
        const std::string label = "Library Location: ";
        const std::size_t start = info.find(label) + label.size();
        return info.substr(start, info.find('\n', start) - start);
    }

    // What was opened, without the bridge's own neighbours.
    static std::string Opened() {
        Calls opened;
        for (const std::string& call : DlopenShim::Calls()) {
            const bool isNeighbour = call.find("/libConfigs.so") != std::string::npos ||
                                     call.find("/libUtils.so") != std::string::npos ||
                                     call.find("libQuorvalenPython") != std::string::npos;
            if (!isNeighbour) opened.push_back(call);
        }
        return Lines(opened);
    }

    Launcher launcher{bridge, 0};
    std::string printed;
};

// --- The configuration --------------------------------------------------------------------------

TEST_F(PythonLauncherSearchTest, TheConfiguredLibraryIsFoundFirst) {
    Provide("libpython3.14.so");
    const std::string path = ProvideByPath("libconfigured.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_RUNTIME_PATH", "/nowhere/other.so");
    Configure(path);
    EXPECT_EQ("found " + path, Search(0));
    EXPECT_EQ(Lines({path + " 257"}), Opened());
    EXPECT_EQ(Lines({"Looking for Python runtime in fake configuration: " + path,
                     "Python runtime found in fake configuration: " + path}),
              printed);
}

TEST_F(PythonLauncherSearchTest, TheConfigurationIsAskedForTheDefaultChannelOfPython) {
    Provide("libpython3.14.so");
    Fakes::ClearTrace();
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"GetChannelRuntimePath(\"python\", \"default\")"}),
              Lines({Fakes::Trace().at(0)}));
}

TEST_F(PythonLauncherSearchTest, AConfiguredPathThatDoesNotLoadIsTriedThreeTimes) {
    Provide("libpython3.14.so");
    layout.WithScrapOfText("scrap.so");
    const std::string path = layout.NativePrefix() + "scrap.so";
    Configure(path);
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({path + " 257", path + " 257", path + " 257", "libpython3.14.so 257"}),
              Opened());
    EXPECT_EQ(
        Lines({"Looking for Python runtime in fake configuration: " + path,
               "Python runtime not found in path: " + path + ".",
               " Set runtimePath in fake configuration config file to libpython*.so file from "
               "Python installation directory.",
               "Python runtime not found in path: " + path + ".",
               " Set QUORVALEN_PYTHON_RUNTIME_PATH to libpython*.so file from Python installation "
               "directory.",
               "Python runtime " + path +
                   " not found. Set QUORVALEN_PYTHON_VERSION as f. e. 3.13, and make sure it is "
                   "installed on your machine"}),
        printed);
}

TEST_F(PythonLauncherSearchTest, AMissingConfigurationLibraryIsNoFailureOfTheSearch) {
    Provide("libpython3.14.so");
    layout.Remove("libConfigs.so");
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ("", printed);
}

TEST_F(PythonLauncherSearchTest, AFailingPathOfTheConfigurationIsNoFailureOfTheSearch) {
    Provide("libpython3.14.so");
    Fakes::Fail("GetChannelRuntimePath", 1, true);
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"libpython3.14.so 257"}), Opened());
    EXPECT_EQ("", printed);
}

TEST_F(PythonLauncherSearchTest, AnExceptionBeforeTheAttemptEmptiesThePath) {
    Provide("libpython3.14.so");
    Configure("/nowhere/configured.so");
    Fakes::Fail("GetConfigSource");
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"libpython3.14.so 257"}), Opened());
    EXPECT_EQ("", printed);
}

TEST_F(PythonLauncherSearchTest, AnExceptionAfterAFailedAttemptEmptiesThePath) {
    Provide("libpython3.14.so");
    Configure("/nowhere/configured.so");
    Fakes::Fail("GetConfigSource", 2);
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"/nowhere/configured.so 257", "libpython3.14.so 257"}), Opened());
    EXPECT_EQ("Looking for Python runtime in fake configuration: /nowhere/configured.so\n",
              printed);
}

// An exception anywhere in the stage sends the search on, that of the last message included.
TEST_F(PythonLauncherSearchTest, AnExceptionAfterASuccessfulAttemptEmptiesThePathToo) {
    Provide("libpython3.14.so");
    const std::string path = ProvideByPath("libconfigured.so");
    Configure(path);
    Fakes::Fail("GetConfigSource", 2);
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({path + " 257", "libpython3.14.so 257"}), Opened());
    EXPECT_EQ("Looking for Python runtime in fake configuration: " + path + "\n", printed);
}

TEST_F(PythonLauncherSearchTest, AnExceptionOfAnotherTypeIsSwallowedToo) {
    Provide("libpython3.14.so");
    Configure("/nowhere/configured.so");
    Fakes::SetNumber("configs throw", 1);
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"libpython3.14.so 257"}), Opened());
    EXPECT_EQ("", printed);
}

// --- The environment ----------------------------------------------------------------------------

TEST_F(PythonLauncherSearchTest, ThePathVariableIsTriedBeforeTheVersionVariable) {
    Provide("libpython3.11.so");
    const std::string path = ProvideByPath("libchosen.so");
    const EnvironmentVariable pathVariable("QUORVALEN_PYTHON_RUNTIME_PATH", path);
    const EnvironmentVariable versionVariable("QUORVALEN_PYTHON_VERSION", "3.11");
    EXPECT_EQ("found " + path, Search(0));
    EXPECT_EQ(Lines({path + " 257"}), Opened());
    EXPECT_EQ(
        Lines({"Looking for Python runtime in QUORVALEN_PYTHON_RUNTIME_PATH environment "
               "variable: " +
                   path,
               "Python runtime found in QUORVALEN_PYTHON_RUNTIME_PATH environment variable: " +
                   path}),
        printed);
}

TEST_F(PythonLauncherSearchTest, ThePathVariableReplacesAConfiguredPath) {
    const std::string path = ProvideByPath("libchosen.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_RUNTIME_PATH", path);
    Configure("/nowhere/configured.so");
    EXPECT_EQ("found " + path, Search(0));
    EXPECT_EQ(Lines({"/nowhere/configured.so 257", path + " 257"}), Opened());
}

TEST_F(PythonLauncherSearchTest, APathVariableThatDoesNotLoadIsTriedAgainByTheVersionStage) {
    Provide("libpython3.14.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_RUNTIME_PATH", "/nowhere/chosen.so");
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"/nowhere/chosen.so 257", "/nowhere/chosen.so 257", "libpython3.14.so 257"}),
              Opened());
    EXPECT_EQ(
        Lines({"Looking for Python runtime in QUORVALEN_PYTHON_RUNTIME_PATH environment "
               "variable: /nowhere/chosen.so",
               "Python runtime not found in path: /nowhere/chosen.so.",
               " Set QUORVALEN_PYTHON_RUNTIME_PATH to libpython*.so file from Python installation "
               "directory.",
               "Python runtime /nowhere/chosen.so not found. Set QUORVALEN_PYTHON_VERSION as f. e. "
               "3.13, and make sure it is installed on your machine"}),
        printed);
}

TEST_F(PythonLauncherSearchTest, AConfiguredPathIsReportedAsFoundByTheStageThatLoadsIt) {
    const std::string path = layout.NativePrefix() + "appears.so";
    Configure(path);
    // The file appears after the first attempt.
    WithinNext("GetConfigSource()", [&] {
        WithinNext("GetConfigSource()", [&] { layout.WithFake("FakePython", "appears.so"); });
    });
    EXPECT_EQ("found " + path, Search(0));
    EXPECT_EQ(
        Lines({"Looking for Python runtime in fake configuration: " + path,
               "Python runtime not found in path: " + path + ".",
               " Set runtimePath in fake configuration config file to libpython*.so file from "
               "Python installation directory.",
               "Python runtime found in QUORVALEN_PYTHON_RUNTIME_PATH environment variable: " +
                   path}),
        printed);
}

TEST_F(PythonLauncherSearchTest, AnEmptyPathVariableTakesTheConfiguredPathAway) {
    Provide("libpython3.14.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_RUNTIME_PATH", "");
    Configure("/nowhere/configured.so");
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"/nowhere/configured.so 257", "libpython3.14.so 257"}), Opened());
    EXPECT_EQ(
        Lines({"Looking for Python runtime in fake configuration: /nowhere/configured.so",
               "Python runtime not found in path: /nowhere/configured.so.",
               " Set runtimePath in fake configuration config file to libpython*.so file from "
               "Python installation directory.",
               "Looking for Python runtime in QUORVALEN_PYTHON_RUNTIME_PATH environment "
               "variable: "}),
        printed);
}

TEST_F(PythonLauncherSearchTest, TheVersionVariableIsTriedBeforeAnyProbe) {
    Provide("libpython3.14.so");
    Provide("libpython3.11.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_VERSION", "3.11");
    EXPECT_EQ("found libpython3.11.so", Search(0));
    EXPECT_EQ(Lines({"libpython3.11.so 257"}), Opened());
    EXPECT_EQ(
        Lines({"Looking for Python runtime in QUORVALEN_PYTHON_VERSION environment variable: 3.11",
               "Python runtime libpython3.11.so found in QUORVALEN_PYTHON_VERSION environment "
               "variable."}),
        printed);
}

TEST_F(PythonLauncherSearchTest, AVersionVariableThatDoesNotLoadSendsTheSearchOn) {
    Provide("libpython3.14.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_VERSION", "9.9");
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"libpython9.9.so 257", "libpython3.14.so 257"}), Opened());
    EXPECT_EQ(
        Lines({"Looking for Python runtime in QUORVALEN_PYTHON_VERSION environment variable: 9.9",
               "Python runtime libpython9.9.so not found. Set QUORVALEN_PYTHON_VERSION as f. e. "
               "3.13, and make sure it is installed on your machine"}),
        printed);
}

TEST_F(PythonLauncherSearchTest, AnEmptyVersionVariableIsTakenAsItIs) {
    Provide("libpython3.14.so");
    const EnvironmentVariable variable("QUORVALEN_PYTHON_VERSION", "");
    EXPECT_EQ("found libpython3.14.so", Search(0));
    EXPECT_EQ(Lines({"libpython.so 257", "libpython3.14.so 257"}), Opened());
}

}  // namespace
