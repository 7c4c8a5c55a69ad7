// Tests of libUtils.so through its one C function, found by name as the bridge finds it. The
// library reads the environment once, so every test sets it first and runs in a process of its own.

#include "Utils.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <thread>

#include "CompanionSupport.h"

namespace {

using namespace CompanionSupport;
using Json = nlohmann::json;

// Looked up at once: a child forked in the middle of another thread's dlsym could not call dlsym
// any more.
const auto Log = Find<decltype(::LogMessage)>("LogMessage");

void LogText(const std::string& text) {
    Log("Event", text.c_str(), "Python");
}

std::vector<Json> Events(const fs::path& file) {
    std::vector<Json> events;
    for (const std::string& line : Lines(ReadFile(file))) events.push_back(Json::parse(line));
    return events;
}

std::vector<std::string> Texts(const fs::path& file) {
    std::vector<std::string> texts;
    for (const Json& event : Events(file)) texts.push_back(event["text"]);
    return texts;
}

std::vector<std::string> NamesIn(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

fs::perms Permissions(const fs::path& file) {
    return fs::status(file).permissions();
}

std::string UtcSecond() {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    return text.data();
}

// Runs the body in a child process that then ends at once, without the exit code of the framework.
template <typename Body>
pid_t Fork(Body body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(0);
    }
    return child;
}

bool EndedWell(pid_t child) {
    int status = -1;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Files grow to `bytes` only, as on a full disk.
class ScopedFileSizeLimit {
  public:
    explicit ScopedFileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &previous_);
        const rlimit limited{bytes, previous_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~ScopedFileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, handler_);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

  private:
    rlimit previous_{};
    void (*handler_)(int);
};

// Nothing of the user's own environment reaches a test.
class Utils : public testing::Test {
  protected:
    fs::path File() const { return directory_.Path() / "events.jsonl"; }
    const fs::path& Directory() const { return directory_.Path(); }

  private:
    TemporaryDirectory directory_;
    ScopedEnvironment file_{"QUORVALEN_TELEMETRY_FILE", File().string()};
    ScopedEnvironment maxBytes_{"QUORVALEN_TELEMETRY_MAX_BYTES"};
    ScopedEnvironment state_{"XDG_STATE_HOME"};
    ScopedEnvironment home_{"HOME"};
};

// ---- What is exported and needed ----

TEST_F(Utils, ExportsLogMessageAndNothingElse) {
    EXPECT_EQ(ExportedNames(), std::vector<std::string>{"LogMessage"});
}

TEST_F(Utils, BringsItsLoggingLibrariesAlong) {
    const std::string needed = OutputOf("'" READELF_PROGRAM "' -d '" COMPANION_LIBRARY "'");
    EXPECT_NE(needed.find("libc.so.6"), std::string::npos);
    EXPECT_EQ(needed.find("libspdlog"), std::string::npos);
    EXPECT_EQ(needed.find("libfmt"), std::string::npos);
}

// ---- Events ----

TEST_F(Utils, AnEventIsOneWholeLineWithItsMembersInOrder) {
    const ScopedEnvironment zone("TZ", "EAST-11");
    ::tzset();
    const std::string before = UtcSecond();
    Log("Native message", "Python initialized", "Cpp");
    const std::string after = UtcSecond() + ".999Z";

    const std::string number = std::to_string(::getpid());
    const std::regex form(
        R"re(\{"time":"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)","process":)re" + number +
        R"re(,"thread":)re" + number +
        R"re(,"event":"Native message","text":"Python initialized","runtime":"Cpp"\}\n)re");
    const std::string content = ReadFile(File());
    std::smatch match;
    ASSERT_TRUE(std::regex_match(content, match, form)) << content;
    EXPECT_LE(before, match[1].str());
    EXPECT_LE(match[1].str(), after);
}

TEST_F(Utils, AnyTextStaysOneLine) {
    const std::string text = "a \"quote\"\nline\r\t\\ \x01 \u00e9\U0001f40d";
    LogText(text);
    LogText(text);
    EXPECT_EQ(Lines(ReadFile(File())).size(), 2U);
    EXPECT_EQ(Texts(File()), (std::vector<std::string>{text, text}));
}

TEST_F(Utils, InvalidUtf8IsReplaced) {
    Log("a\xFFz", "\xC3", "\xE2\x82");
    const Json event = Events(File()).at(0);
    EXPECT_EQ(event["event"], "a\ufffdz");
    EXPECT_EQ(event["text"], "\ufffd");
    EXPECT_EQ(event["runtime"], "\ufffd");
}

TEST_F(Utils, NullTextsAreWrittenAsNull) {
    Log(nullptr, nullptr, nullptr);
    const Json event = Events(File()).at(0);
    EXPECT_TRUE(event["event"].is_null());
    EXPECT_TRUE(event["text"].is_null());
    EXPECT_TRUE(event["runtime"].is_null());
}

TEST_F(Utils, EveryEventIsInTheFileWhenTheCallReturns) {
    const pid_t child = Fork([] {
        LogText("last words");
        ::kill(::getpid(), SIGKILL);
    });
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(Texts(File()), std::vector<std::string>{"last words"});
}

TEST_F(Utils, AForkedChildIsNamedByItsOwnNumbers) {
    LogText("parent");
    const pid_t child = Fork([] { LogText("child"); });
    ASSERT_TRUE(EndedWell(child));
    const std::vector<Json> events = Events(File());
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]["process"], ::getpid());
    EXPECT_EQ(events[1]["process"], child);
    EXPECT_EQ(events[1]["thread"], child);
}

// ---- Where the file lies ----

TEST_F(Utils, TheFileIsReadableByItsOwnerAloneAlsoAfterARotation) {
    const ScopedEnvironment size("QUORVALEN_TELEMETRY_MAX_BYTES", "1024");
    for (int i = 0; i < 20; ++i) LogText("event");
    const fs::perms owner = fs::perms::owner_read | fs::perms::owner_write;
    EXPECT_EQ(Permissions(File()), owner);
    EXPECT_EQ(Permissions(Directory() / "events.1.jsonl"), owner);
}

TEST_F(Utils, TheStateDirectoryIsTheDefaultPlace) {
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", "");
    const ScopedEnvironment state("XDG_STATE_HOME", (Directory() / "state").string());
    const ScopedEnvironment home("HOME", (Directory() / "home").string());
    LogText("here");
    EXPECT_EQ(Texts(Directory() / "state/quorvalen/telemetry.jsonl"),
              std::vector<std::string>{"here"});
    EXPECT_FALSE(fs::exists(Directory() / "home"));
}

TEST_F(Utils, TheHomeDirectoryIsTheSecondDefaultPlace) {
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE");
    const ScopedEnvironment state("XDG_STATE_HOME", "relative/state");
    const ScopedEnvironment home("HOME", (Directory() / "home").string());
    const ScopedWorkingDirectory inside(Directory());
    LogText("here");
    EXPECT_EQ(Texts(Directory() / "home/.local/state/quorvalen/telemetry.jsonl"),
              std::vector<std::string>{"here"});
    EXPECT_EQ(NamesIn(Directory()), std::vector<std::string>{"home"});
}

TEST_F(Utils, WithoutAnyPlaceNothingIsWritten) {
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE");
    const ScopedWorkingDirectory inside(Directory());
    LogText("nowhere");
    EXPECT_TRUE(fs::is_empty(Directory()));
}

TEST_F(Utils, OffWritesNothing) {
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", "off");
    const ScopedEnvironment home("HOME", Directory().string());
    const ScopedWorkingDirectory inside(Directory());
    LogText("nowhere");
    EXPECT_TRUE(fs::is_empty(Directory()));
}

TEST_F(Utils, ARelativeFileIsResolvedAtTheFirstEventAndTheEnvironmentReadOnce) {
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", "logs/events.jsonl");
    {
        const ScopedWorkingDirectory inside(Directory());
        LogText("first");
    }
    const ScopedEnvironment later("QUORVALEN_TELEMETRY_FILE", (Directory() / "other").string());
    LogText("second");
    EXPECT_EQ(Texts(Directory() / "logs/events.jsonl"),
              (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(NamesIn(Directory()), std::vector<std::string>{"logs"});
}

TEST_F(Utils, TheFileIsNotHandedToStartedPrograms) {
    LogText("event");
    int found = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (fs::read_symlink(entry, ignored) != File()) continue;
        ++found;
        const int descriptor = std::stoi(entry.path().filename());
        EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_EQ(found, 1);
}

// ---- Rotation ----

TEST_F(Utils, ThreeFilesOfLimitedSizeKeepTheLatestEvents) {
    const ScopedEnvironment size("QUORVALEN_TELEMETRY_MAX_BYTES", "1024");
    for (int i = 0; i < 60; ++i) LogText(std::to_string(i));

    EXPECT_EQ(NamesIn(Directory()),
              (std::vector<std::string>{"events.1.jsonl", "events.2.jsonl", "events.jsonl"}));
    std::vector<int> kept;
    for (const char* name : {"events.2.jsonl", "events.1.jsonl", "events.jsonl"}) {
        EXPECT_LE(fs::file_size(Directory() / name), 1024U) << name;
        for (const std::string& text : Texts(Directory() / name)) kept.push_back(std::stoi(text));
    }
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept.back(), 59);
    EXPECT_EQ(kept.front(), 60 - static_cast<int>(kept.size()));
    EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end()));
}

TEST_F(Utils, AnEventLongerThanTheLimitIsStillWritten) {
    const ScopedEnvironment size("QUORVALEN_TELEMETRY_MAX_BYTES", "1024");
    const std::string text(5000, 't');
    LogText("short");
    LogText(text);
    EXPECT_EQ(Texts(File()), std::vector<std::string>{text});
    EXPECT_EQ(Texts(Directory() / "events.1.jsonl"), std::vector<std::string>{"short"});
}

TEST_F(Utils, AFileOfAnEarlierProcessIsContinued) {
    ASSERT_TRUE(EndedWell(Fork([] { LogText("earlier"); })));
    LogText("later");
    EXPECT_EQ(Texts(File()), (std::vector<std::string>{"earlier", "later"}));
}

class UtilsSizeLimit : public Utils, public testing::WithParamInterface<const char*> {};

TEST_P(UtilsSizeLimit, ThatCannotBeUsedIsReportedInTheFile) {
    const ScopedEnvironment size("QUORVALEN_TELEMETRY_MAX_BYTES", GetParam());
    LogText("first");
    LogText("second");
    const std::vector<Json> events = Events(File());
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0]["event"], "Telemetry");
    EXPECT_EQ(events[0]["runtime"], "");
    EXPECT_EQ(events[0]["text"],
              "QUORVALEN_TELEMETRY_MAX_BYTES must be a whole number from 1024 to 1099511627776 "
              "(found: " +
                  std::string(GetParam()) + "); 10485760 is used.");
    EXPECT_EQ(events[1]["text"], "first");
    EXPECT_EQ(events[2]["text"], "second");
}

INSTANTIATE_TEST_SUITE_P(Values, UtilsSizeLimit,
                         testing::Values("1023", "1099511627777", "-1", "10 MiB", "1e6", "0",
                                         "99999999999999999999"));

// ---- Failures ----

TEST_F(Utils, AFullDeviceDisturbsNobody) {
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", "/dev/full");
    CapturedOutput output;
    errno = 77;
    for (int i = 0; i < 3; ++i) LogText(std::string(100000, 'x'));
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(output.Stop(), "");
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(Utils, AfterAFullDiskTheLostEventsAreCountedOnALineOfTheirOwn) {
    CapturedOutput output;
    LogText("written");
    const std::string before = ReadFile(File());
    {
        const ScopedFileSizeLimit full(before.size() + 20);
        LogText("lost");
        LogText("lost too");
    }
    LogText("written again");
    EXPECT_EQ(output.Stop(), "");

    const std::string content = ReadFile(File());
    ASSERT_EQ(content.substr(0, before.size()), before);
    const std::vector<std::string> added = Lines(content.substr(before.size()));
    ASSERT_EQ(added.size(), 3U) << content;
    EXPECT_EQ(added[0].size(), 20U) << "the half line that the full disk left";
    EXPECT_EQ(Json::parse(added[1])["event"], "Telemetry");
    EXPECT_EQ(Json::parse(added[1])["text"], "Events that could not be written: 2");
    EXPECT_EQ(Json::parse(added[2])["text"], "written again");
}

TEST_F(Utils, MissingDirectoriesAreMade) {
    const fs::path nested = Directory() / "a/b/events.jsonl";
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", nested.string());
    LogText("event");
    EXPECT_EQ(Texts(nested), std::vector<std::string>{"event"});
}

TEST_F(Utils, ADirectoryThatCannotBeMadeIsTriedAgainByTheNextEvent) {
    const fs::path obstacle = Directory() / "logs";
    WriteFile(obstacle, "not a directory");
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", (obstacle / "e.jsonl").string());
    CapturedOutput output;
    errno = 77;
    LogText("lost");
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(ReadFile(obstacle), "not a directory");
    fs::remove(obstacle);
    LogText("written");
    EXPECT_EQ(output.Stop(), "");
    EXPECT_EQ(Texts(obstacle / "e.jsonl"),
              (std::vector<std::string>{"Events that could not be written: 1", "written"}));
}

TEST_F(Utils, ADirectoryRemovedBetweenEventsIsMadeAgain) {
    const fs::path nested = Directory() / "logs/events.jsonl";
    const ScopedEnvironment file("QUORVALEN_TELEMETRY_FILE", nested.string());
    LogText("gone with the directory");
    fs::remove_all(nested.parent_path());
    LogText("here");
    EXPECT_EQ(Texts(nested), std::vector<std::string>{"here"});
}

TEST_F(Utils, AFileRotatedBySomebodyElseIsNotWrittenAnyMore) {
    LogText("old");
    fs::rename(File(), Directory() / "moved");
    LogText("new");
    EXPECT_EQ(Texts(Directory() / "moved"), std::vector<std::string>{"old"});
    EXPECT_EQ(Texts(File()), std::vector<std::string>{"new"});
}

TEST_F(Utils, ARotationThatFailsIsCounted) {
    const ScopedEnvironment size("QUORVALEN_TELEMETRY_MAX_BYTES", "1024");
    fs::create_directories(Directory() / "events.2.jsonl/occupied");
    CapturedOutput output;
    for (const char name : {'a', 'b', 'c'}) LogText(std::string(900, name));
    LogText("after");
    EXPECT_EQ(output.Stop(), "");
    EXPECT_EQ(Texts(Directory() / "events.1.jsonl"),
              std::vector<std::string>{std::string(900, 'a')});
    EXPECT_EQ(Texts(File()),
              (std::vector<std::string>{"Events that could not be written: 1", "after"}));
}

TEST_F(Utils, APipeIsNoTelemetryFile) {
    ASSERT_EQ(::mkfifo(File().c_str(), 0600), 0);
    LogText("without a reader");
    const int reader = ::open(File().c_str(), O_RDONLY | O_NONBLOCK);
    LogText("with a reader");
    char byte = '#';
    EXPECT_EQ(::read(reader, &byte, 1), 0);
    ::close(reader);
}

// ---- Threads and processes ----

TEST_F(Utils, EventsOfManyThreadsNeitherMixNorGetLost) {
    constexpr int kThreads = 8;
    constexpr int kEvents = 200;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (int event = 0; event < kEvents; ++event) {
                LogText(std::to_string(thread) + "." + std::to_string(event));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::set<std::string> texts;
    std::set<int> threadNumbers;
    for (const Json& event : Events(File())) {
        texts.insert(event["text"].get<std::string>());
        threadNumbers.insert(event["thread"].get<int>());
    }
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kEvents));
    EXPECT_EQ(threadNumbers.size(), static_cast<std::size_t>(kThreads));
}

TEST_F(Utils, LongLinesOfManyProcessesDoNotMix) {
    std::vector<pid_t> children;
    for (char name = 'a'; name < 'e'; ++name) {
        children.push_back(Fork([name] {
            for (int event = 0; event < 50; ++event) LogText(std::string(20000, name));
        }));
    }
    for (const pid_t child : children) EXPECT_TRUE(EndedWell(child));
    std::vector<std::string> texts;
    for (const std::string& line : Lines(ReadFile(File()))) {
        // A process that opens the file during another's write leaves an empty line.
        if (!line.empty()) texts.push_back(Json::parse(line)["text"]);
    }
    std::sort(texts.begin(), texts.end());
    std::vector<std::string> expected;
    for (char name = 'a'; name < 'e'; ++name)
        expected.insert(expected.end(), 50, std::string(20000, name));
    EXPECT_TRUE(texts == expected);
}

TEST_F(Utils, AChildForkedWhileAnotherThreadWritesCanWriteToo) {
    // The other thread writes as much as the machine is slow; nothing may rotate away.
    const ScopedEnvironment size("QUORVALEN_TELEMETRY_MAX_BYTES", "1099511627776");
    std::atomic<bool> done = false;
    std::thread busy([&done] {
        while (!done) LogText("busy");
    });
    int children = 0;
    for (int i = 0; i < 100; ++i) {
        if (EndedWell(Fork([] { LogText("child"); }))) ++children;
    }
    done = true;
    busy.join();
    const std::vector<std::string> texts = Texts(File());
    EXPECT_EQ(children, 100);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "child"), 100);
}

}  // namespace
