// Where the bridge finds itself and how it opens the libraries around it: whole messages, loader
// flags, what is cached, what is tried again, the TLS client's two places, a loader that does not
// know the bridge. The program's own dladdr stands before the C library's.
#include <gtest/gtest.h>

#include <filesystem>

#include "Tests/Fakes/Recorder.h"
#include "Tests/Native/Sanitizers.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/DlopenShim.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Scopes.h"

namespace {

int dladdrCalls = 0;
enum class Dladdr { Works, FailsSilently, FailsWithText, NamesNoDirectory } dladdrAnswer;

}  // namespace

extern "C" __attribute__((visibility("default"))) int dladdr(const void* address,
                                                             Dl_info* info) noexcept {
    using Function = int (*)(const void*, Dl_info*);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "dladdr"));
    ++dladdrCalls;
    if (dladdrAnswer == Dladdr::Works) return next(address, info);
    if (dladdrAnswer == Dladdr::NamesNoDirectory) {
        info->dli_fname = "bridge.so";
        return 1;
    }
    dlerror();
    if (dladdrAnswer == Dladdr::FailsWithText) dlopen("/nowhere/no.so", RTLD_NOW);
    return 0;
}

namespace {

using LoadOne = void*(bool);
const std::string kScope = "Quorvalen::Native::LibrariesFinder::LibrariesFinder::";

class LibrariesFinderTest : public testing::Test {
  protected:
    LibrariesFinderTest() {
        layout.WithServices();
        DlopenShim::Clear();
    }

    std::string Text(const std::string& operation) const {
        return bridge.Cpp<std::string()>(kScope + operation + "()")();
    }
    const std::string& Reference(const std::string& operation) const {
        return bridge.Cpp<const std::string&()>(kScope + operation + "()")();
    }
    void* Load(const std::string& path, bool throwOnError, bool printError) const {
        return bridge.Cpp<void*(std::string, bool, bool)>(
            kScope + "loadLibrary(std::string, bool, bool)")(path, throwOnError, printError);
    }
    void* LoadDeep(const std::string& path, bool throwOnError, bool printError) const {
        return bridge.Cpp<void*(std::string, bool, bool)>(
            kScope + "loadLibraryDeepBind(std::string, bool, bool)")(path, throwOnError,
                                                                     printError);
    }
    void* LoadTls(bool throwOnError) const {
        return bridge.Cpp<LoadOne>(kScope + "loadTcpTlsClientLibrary(bool)")(throwOnError);
    }
    static std::string Code001(const std::string& path, const std::string& reason) {
        return "Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
               ". \nError: " + reason;
    }
    static std::string LoaderErrorFor(const std::string& path) {
        EXPECT_EQ(nullptr, dlopen(path.c_str(), RTLD_NOW));
        const std::string text = dlerror();
        DlopenShim::Clear();
        return text;
    }

    Layout layout;
    Bridge bridge{layout};
    const std::string missing = layout.NativePrefix() + "libMissing.so";
    const std::string scrap = layout.NativePrefix() + "libScrap.so";
};

// --- Paths ---------------------------------------------------------------------------------------

TEST_F(LibrariesFinderTest, FindsItsOwnDirectoryAndTheBinariesRoot) {
    EXPECT_EQ(layout.NativePrefix(), Text("getThisLibraryPath"));
    EXPECT_EQ(layout.NativePrefix(), Reference("getPathToDir"));
    EXPECT_EQ(layout.NativePrefix() + "../../../../", Text("getBinariesRootPath"));
    EXPECT_EQ("/Binaries/Native/Linux/X64/", Reference("getNativeDirectoryRelativePath"));
    EXPECT_EQ(&Reference("getNativeDirectoryRelativePath"),
              &Reference("getNativeDirectoryRelativePath"));
}

TEST_F(LibrariesFinderTest, TheDirectoryIsKeptInOnePlaceAndComputedAfreshInTheOther) {
    const std::string* kept = &Reference("getPathToDir");
    dladdrCalls = 0;
    dladdrAnswer = Dladdr::NamesNoDirectory;
    EXPECT_EQ("bridge.so/", Text("getThisLibraryPath"));
    EXPECT_EQ("bridge.so/../../../../", Text("getBinariesRootPath"));
    EXPECT_EQ(2, dladdrCalls);
    EXPECT_EQ(kept, &Reference("getPathToDir"));
    EXPECT_EQ(layout.NativePrefix(), *kept);
    EXPECT_EQ(2, dladdrCalls);
    dladdrAnswer = Dladdr::Works;
}

TEST_F(LibrariesFinderTest, CurrentDirectoryEndsInOneSlashAndHasNoBackslash) {
    const std::filesystem::path odd = layout.Root() / "with\\back\\slashes";
    std::filesystem::create_directory(odd);
    {
        const WorkingDirectory scope(layout.Root());
        EXPECT_EQ(layout.Root().string() + "/", Text("getCurrentWorkingDirectory"));
    }
    {
        const WorkingDirectory scope(odd);
        EXPECT_EQ(layout.Root().string() + "/with/back/slashes/",
                  Text("getCurrentWorkingDirectory"));
    }
    {
        const WorkingDirectory scope("/");
        EXPECT_EQ("//", Text("getCurrentWorkingDirectory"));
    }
}

TEST_F(LibrariesFinderTest, RuntimeLibrariesLieBesideTheBridge) {
    const auto path = bridge.Cpp<std::string(int)>(kScope + "getRuntimeLibraryPath(int)");
    EXPECT_EQ(layout.NativePrefix() + "libQuorvalenClrRuntimeNative.so", path(0));
    EXPECT_EQ(layout.NativePrefix() + "libQuorvalenPython2RuntimeNative.so", path(10));
    for (const int unknown : {11, 200, -1}) {
        EXPECT_EQ(layout.NativePrefix() + "Unknown", path(unknown)) << unknown;
    }
}

// --- A loader that does not know the bridge ------------------------------------------------------

TEST_F(LibrariesFinderTest, AnUnknownOwnPathIsCode002WithTheLoadersText) {
    Reference("getPathToDir");  // so that the failure can be recorded
    const std::string prefix = "Quorvalen Native Exception: Exception code 002. \nError: ";
    const std::string reason =
        "/nowhere/no.so: cannot open shared object file: No such file or directory";
    dladdrAnswer = Dladdr::FailsWithText;
    EXPECT_EQ(prefix + reason, FailureOf([this] { Text("getThisLibraryPath"); }));
    EXPECT_EQ(prefix + reason, FailureOf([this] { Text("getBinariesRootPath"); }));
    dladdrAnswer = Dladdr::FailsSilently;
    EXPECT_EQ(prefix, FailureOf([this] { Text("getThisLibraryPath"); }));
    dladdrAnswer = Dladdr::Works;
    const std::string entry = "<time>\tThread ID: <id>\t" + prefix;
    EXPECT_EQ(Lines({entry + reason, entry + reason, entry}),
              WithoutTimeAndThread(ContentsOf(ErrorLogFile(layout.Root()))));
}

TEST_F(LibrariesFinderTest, AnOwnPathThatIsUnknownAtFirstIsSoughtAgain) {
    dladdrAnswer = Dladdr::FailsSilently;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ("Quorvalen Native Exception: Exception code 002. \nError: ",
                  FailureOf([this] { Reference("getPathToDir"); }));
    }
    dladdrAnswer = Dladdr::Works;
    EXPECT_EQ(layout.NativePrefix(), Reference("getPathToDir"));
}

// --- Opening one library -------------------------------------------------------------------------

TEST_F(LibrariesFinderTest, AMissingFileIsCode001WithoutAskingTheLoader) {
    Load(layout.NativePrefix() + "libConfigs.so", true, true);  // opened by the recording anyway
    DlopenShim::Clear();
    EXPECT_EQ(Code001(missing, "File not found."),
              FailureOf([this] { Load(missing, true, false); }));
    EXPECT_EQ(Code001(missing, "File not found."),
              FailureOf([this] { LoadDeep(missing, true, true); }));
    for (const std::string& call : DlopenShim::Calls()) {
        EXPECT_EQ(std::string::npos, call.find("libMissing")) << call;
    }
}

TEST_F(LibrariesFinderTest, AFileThatIsNoLibraryIsCode001WithTheLoadersText) {
    layout.WithScrapOfText("libScrap.so");
    const std::string message = Code001(scrap, LoaderErrorFor(scrap));
    EXPECT_EQ(message, FailureOf([this] { Load(scrap, true, true); }));
    EXPECT_EQ(scrap + " 2", DlopenShim::Calls().front());
    if (QUORVALEN_TEST_SANITIZED) return;  // it ends the process at RTLD_DEEPBIND
    EXPECT_EQ(message, FailureOf([this] { LoadDeep(scrap, true, true); }));
    EXPECT_EQ(scrap + " 10", DlopenShim::Calls().back());
}

TEST_F(LibrariesFinderTest, ADirectoryIsCode001WithTheLoadersText) {
    const std::string directory = layout.Root().string();
    const std::string message = Code001(directory, LoaderErrorFor(directory));
    EXPECT_EQ(message, FailureOf([&] { Load(directory, true, true); }));
}

TEST_F(LibrariesFinderTest, WithoutRaisingTheMessageIsOneLineOnStandardErrorAndNothingIsRecorded) {
    layout.WithScrapOfText("libScrap.so");
    const std::string reason = LoaderErrorFor(scrap);
    const Capture error(2);
    EXPECT_EQ(nullptr, Load(missing, false, true));
    EXPECT_EQ(nullptr, LoadDeep(missing, false, true));
    EXPECT_EQ(nullptr, Load(scrap, false, true));
    EXPECT_EQ(Lines({Code001(missing, "File not found."), Code001(missing, "File not found."),
                     Code001(scrap, reason)}),
              error.Text());
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(LibrariesFinderTest, WithoutRaisingAndPrintingAFailureIsSilent) {
    layout.WithScrapOfText("libScrap.so");
    const Capture error(2);
    const Capture output(1);
    EXPECT_EQ(nullptr, Load(missing, false, false));
    EXPECT_EQ(nullptr, Load(scrap, false, false));
    EXPECT_EQ(nullptr, LoadDeep(missing, false, false));
    EXPECT_EQ("", error.Text());
    EXPECT_EQ("", output.Text());
    EXPECT_EQ("", Lines(Fakes::Trace()));
}

TEST_F(LibrariesFinderTest, LoadLibraryOpensWithFlag2EveryTime) {
    const std::string path = layout.NativePrefix() + "libUtils.so";
    void* library = Load(path, true, true);
    EXPECT_NE(nullptr, library);
    EXPECT_EQ(library, Load(path, false, false));
    EXPECT_EQ(Lines({path + " 2", path + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(LibrariesFinderTest, LoadLibraryDeepBindOpensWithFlag10) {
    if (QUORVALEN_TEST_SANITIZED) {
        GTEST_SKIP() << "the sanitizer ends the process at RTLD_DEEPBIND";
    }
    const std::string path = layout.NativePrefix() + "libUtils.so";
    EXPECT_NE(nullptr, LoadDeep(path, true, true));
    EXPECT_EQ(Lines({path + " 10"}), Lines(DlopenShim::Calls()));
}

// --- The cached libraries ------------------------------------------------------------------------

struct Service {
    const char* name;
    const char* file;
    const char* load;
    const char* variable;
    bool printed;
};

void PrintTo(const Service& service, std::ostream* stream) {
    *stream << service.name;
}

std::string ShowService(const testing::TestParamInfo<Service>& info) {
    return info.param.name;
}

class ServiceLibraryTest : public LibrariesFinderTest, public testing::WithParamInterface<Service> {
  protected:
    void* LoadService(bool throwOnError) const {
        return bridge.Cpp<LoadOne>(kScope + GetParam().load)(throwOnError);
    }
    void*& Cached() const {
        return *static_cast<void**>(bridge.CppAddress(kScope + GetParam().variable));
    }
    std::string File() const { return GetParam().file; }
    std::string Path() const { return layout.NativePrefix() + File(); }
    void Provide() { layout.WithFake("FakeUtils", File()); }
    void TakeAway() {
        if (std::filesystem::exists(Path())) layout.Remove(File());
        if (File() == "libConfigs.so") return;
        bridge.Cpp<LoadOne>(kScope + "loadConfigsLibrary(bool)")(true);
        DlopenShim::Clear();
    }
};

INSTANTIATE_TEST_SUITE_P(
    Services, ServiceLibraryTest,
    testing::Values(Service{"Utils", "libUtils.so", "loadUtilsLibrary(bool)",
                            "utilsLibraryInstance", false},
                    Service{"Configs", "libConfigs.so", "loadConfigsLibrary(bool)",
                            "configsLibraryInstance", false},
                    Service{"Tcp", "libQuorvalenTcpClient.so", "loadTcpClientLibrary(bool)",
                            "tcpClientLibraryInstance", true},
                    Service{"Tls", "libQuorvalenTcpTlsClient.so", "loadTcpTlsClientLibrary(bool)",
                            "tcpTlsClientLibraryInstance", true}),
    ShowService);

TEST_P(ServiceLibraryTest, IsOpenedOnceWithFlag2AndKept) {
    Provide();
    void* library = LoadService(true);
    EXPECT_NE(nullptr, library);
    EXPECT_EQ(library, Cached());
    layout.Remove(File());
    EXPECT_EQ(library, LoadService(true));
    EXPECT_EQ(library, LoadService(false));
    EXPECT_EQ(Lines({Path() + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_P(ServiceLibraryTest, WhenMissingRaisesIfAskedTo) {
    TakeAway();
    const Capture error(2);
    EXPECT_EQ(Code001(Path(), "File not found."), FailureOf([this] { LoadService(true); }));
    EXPECT_EQ(nullptr, Cached());
}

TEST_P(ServiceLibraryTest, WhenMissingIsSoughtAgainAtTheNextCall) {
    TakeAway();
    const Capture error(2);
    EXPECT_EQ(nullptr, LoadService(false));
    EXPECT_EQ(nullptr, Cached());
    EXPECT_EQ("", Lines(DlopenShim::Calls()));
    Provide();
    EXPECT_NE(nullptr, LoadService(false));
    EXPECT_NE(nullptr, Cached());
}

TEST_P(ServiceLibraryTest, WhenItIsNoLibraryCarriesTheLoadersText) {
    TakeAway();
    layout.WithScrapOfText(File());
    const std::string message = Code001(Path(), LoaderErrorFor(Path()));
    EXPECT_EQ(message, FailureOf([this] { LoadService(true); }));
    EXPECT_EQ(nullptr, Cached());
}

TEST_P(ServiceLibraryTest, WhenMissingPrintsOnlyForTheNetworkClients) {
    TakeAway();
    const Capture error(2);
    const Capture output(1);
    EXPECT_EQ(nullptr, LoadService(false));
    std::vector<std::string> printed;
    if (GetParam().printed) printed.push_back(Code001(Path(), "File not found."));
    if (std::string(GetParam().name) == "Tls") {
        printed.push_back(
            Code001(layout.NativePrefix() + "/openssl3/" + File(), "File not found."));
    }
    EXPECT_EQ(Lines(printed), error.Text());
    EXPECT_EQ("", output.Text());
}

// --- The TLS client's second place ---------------------------------------------------------------

class TlsSecondPlaceTest : public LibrariesFinderTest {
  protected:
    const std::string file = "libQuorvalenTcpTlsClient.so";
    const std::string firstPath = layout.NativePrefix() + file;
    const std::string secondPath = layout.NativePrefix() + "/openssl3/" + file;
};

TEST_F(TlsSecondPlaceTest, IsTriedWhenTheFirstFailsWithoutRaising) {
    layout.WithFake("FakeTlsClient", "openssl3/" + file);
    const Capture error(2);
    void* library = LoadTls(false);
    EXPECT_NE(nullptr, library);
    EXPECT_EQ(library, LoadTls(false));
    EXPECT_EQ(library, LoadTls(true));
    EXPECT_EQ(Lines({Code001(firstPath, "File not found.")}), error.Text());
    EXPECT_EQ(Lines({secondPath + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(TlsSecondPlaceTest, IsNeverReachedByACallerThatAsksForAnException) {
    layout.WithFake("FakeTlsClient", "openssl3/" + file);
    EXPECT_EQ(Code001(firstPath, "File not found."), FailureOf([this] { LoadTls(true); }));
    for (const std::string& call : DlopenShim::Calls()) {
        EXPECT_EQ(std::string::npos, call.find("openssl3")) << call;
    }
}

TEST_F(TlsSecondPlaceTest, IsNotLookedAtWhenTheFirstHasTheLibrary) {
    layout.WithFake("FakeTlsClient", file).WithFake("FakeTlsClient", "openssl3/" + file);
    EXPECT_NE(nullptr, LoadTls(false));
    EXPECT_EQ(Lines({firstPath + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(TlsSecondPlaceTest, IsTriedWhenTheFirstIsNoLibrary) {
    layout.WithScrapOfText(file).WithFake("FakeTlsClient", "openssl3/" + file);
    const std::string reason = LoaderErrorFor(firstPath);
    const Capture error(2);
    EXPECT_NE(nullptr, LoadTls(false));
    EXPECT_EQ(Lines({Code001(firstPath, reason)}), error.Text());
    EXPECT_EQ(Lines({firstPath + " 2", secondPath + " 2"}), Lines(DlopenShim::Calls()));
}

TEST_F(TlsSecondPlaceTest, EveryPlaceThatFailsPrintsOnceAtEveryCall) {
    layout.WithFake("FakeTlsClient", "openssl3/other.so");
    layout.WithScrapOfText("openssl3/" + file);
    const std::string reason = LoaderErrorFor(secondPath);
    const Capture error(2);
    const std::string once =
        Lines({Code001(firstPath, "File not found."), Code001(secondPath, reason)});
    EXPECT_EQ(nullptr, LoadTls(false));
    EXPECT_EQ(once, error.Text());
    EXPECT_EQ(nullptr, LoadTls(false));
    EXPECT_EQ(once + once, error.Text());
}

}  // namespace
