// Tests of libConfigs.so through its sixteen C functions, found by name as the bridge finds them.

#include "Configs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "CompanionSupport.h"

#define FIND(name) Find<decltype(::name)>(#name)

namespace {

using namespace CompanionSupport;

struct Answer {
    int length = 0;
    std::string text;

    bool operator==(const Answer&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Answer& answer) {
    return stream << answer.length << " \"" << answer.text << '"';
}

Answer Good(const std::string& text) {
    return {static_cast<int>(text.size()), text};
}
Answer Bad(const std::string& sentence) {
    return {-1, sentence};
}

using Getter = int(char*, unsigned long);
using ChannelGetter = int(const char*, const char*, char*, unsigned long);

Answer Ask(const char* name, unsigned long size = 8192) {
    std::vector<char> buffer(size + 1, '#');
    const int length = Find<Getter>(name)(buffer.data(), size);
    EXPECT_EQ(buffer[size], '#') << name << " wrote beyond its buffer";
    return {length, buffer.data()};
}

Answer AskChannel(const char* name, const char* runtime, const char* channel) {
    std::vector<char> buffer(8192, '#');
    const int length = Find<ChannelGetter>(name)(runtime, channel, buffer.data(), buffer.size());
    return {length, buffer.data()};
}

int SetSource(const std::string& source) {
    return FIND(SetConfigSource)(source.c_str());
}

const std::vector<const char*> kSourceGetters = {
    "GetConfigSource", "GetProxyHost", "GetProxyUsername", "GetProxyPassword", "GetProxyDomain"};
const std::vector<const char*> kChannelGetters = {"GetRuntimeName", "GetChannelType",
                                                  "GetChannelHost", "GetChannelRuntimePath"};

// ---- What is exported ----

TEST(Configs, ExportsTheSixteenFunctionsAndNothingElse) {
    const std::vector<std::string> expected = {
        "GetChannelHost",      "GetChannelPort",  "GetChannelRuntimePath", "GetChannelType",
        "GetConfigSource",     "GetLoggingLevel", "GetProxyDomain",        "GetProxyHost",
        "GetProxyPassword",    "GetProxyPort",    "GetProxyUsername",      "GetRuntimeName",
        "GetWorkingDirectory", "ProxyExists",     "SetConfigSource",       "SetWorkingDirectory"};
    EXPECT_EQ(ExportedNames(), expected);
}

// ---- Values ----

TEST(Configs, ServesDefaultsWithoutASource) {
    EXPECT_EQ(Ask("GetConfigSource"), Good("defaults"));
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("RuntimeInfo"));
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good(fs::current_path().string()));
    for (const char* name :
         {"GetProxyHost", "GetProxyUsername", "GetProxyPassword", "GetProxyDomain"}) {
        EXPECT_EQ(Ask(name), Good("")) << name;
    }
    for (const char* name : kChannelGetters) {
        EXPECT_EQ(AskChannel(name, "python", "default"), Good("")) << name;
    }
    EXPECT_EQ(FIND(ProxyExists)(), 0);
    EXPECT_EQ(FIND(GetProxyPort)(), 0);
    EXPECT_EQ(FIND(GetChannelPort)("python", "default"), 0);
}

TEST(Configs, TheDocumentedExampleIsServedAsItStands) {
    const std::string page = ReadFile(DOCUMENTATION_DIRECTORY "/configuration.md");
    const std::string opening = "```json\n";
    const std::size_t start = page.find(opening) + opening.size();
    const std::string example = page.substr(start, page.find("```", start) - start);

    ASSERT_EQ(SetSource(example), 0) << Ask("GetConfigSource");
    EXPECT_EQ(Ask("GetConfigSource"), Good("inline configuration"));
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("All"));
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good("/var/log"));
    EXPECT_EQ(FIND(ProxyExists)(), 1);
    EXPECT_EQ(Ask("GetProxyHost"), Good("proxy.example.org"));
    EXPECT_EQ(FIND(GetProxyPort)(), 3128);
    EXPECT_EQ(Ask("GetProxyUsername"), Good("user"));
    EXPECT_EQ(Ask("GetProxyPassword"), Good("secret"));
    EXPECT_EQ(Ask("GetProxyDomain"), Good("EXAMPLE"));
    const std::string name = "Python of the reporting service";
    EXPECT_EQ(AskChannel("GetRuntimeName", "python", "default"), Good(name));
    EXPECT_EQ(AskChannel("GetChannelType", "python", "default"), Good("inMemory"));
    EXPECT_EQ(AskChannel("GetChannelHost", "python", "default"), Good(""));
    EXPECT_EQ(FIND(GetChannelPort)("python", "default"), 0);
    EXPECT_EQ(AskChannel("GetChannelRuntimePath", "python", "default"),
              Good("/usr/lib/x86_64-linux-gnu/libpython3.11.so.1.0"));
    EXPECT_EQ(AskChannel("GetRuntimeName", "python", "reports"), Good(name));
    EXPECT_EQ(AskChannel("GetChannelType", "python", "reports"), Good("tls"));
    EXPECT_EQ(AskChannel("GetChannelHost", "python", "reports"), Good("reports.example.org"));
    EXPECT_EQ(FIND(GetChannelPort)("python", "reports"), 5050);
    EXPECT_EQ(AskChannel("GetChannelRuntimePath", "python", "reports"), Good(""));
}

TEST(Configs, AChannelWithoutMembersIsInMemoryAndNamedAfterItsRuntime) {
    ASSERT_EQ(SetSource(R"({"runtimes": {"netcore": {"channels": {"default": {}}}}})"), 0);
    EXPECT_EQ(AskChannel("GetChannelType", "netcore", "default"), Good("inMemory"));
    EXPECT_EQ(AskChannel("GetRuntimeName", "netcore", "default"), Good("netcore"));
}

TEST(Configs, UnknownRuntimesAndChannelsAreEmpty) {
    ASSERT_EQ(SetSource(R"({"runtimes": {"python": {"name": "P", "channels": {"default":
                {"type": "tcp", "host": "h", "port": 1, "runtimePath": "p"}}}}})"),
              0);
    for (const char* name : kChannelGetters) {
        EXPECT_EQ(AskChannel(name, "python", "other"), Good("")) << name;
        EXPECT_EQ(AskChannel(name, "perl", "default"), Good("")) << name;
        EXPECT_EQ(AskChannel(name, "Python", "default"), Good("")) << name;
    }
    EXPECT_EQ(FIND(GetChannelPort)("python", "other"), 0);
    EXPECT_EQ(FIND(GetChannelPort)("perl", "default"), 0);
}

TEST(Configs, EveryLoggingLevelChannelTypeAndRuntimeNameIsAccepted) {
    for (const std::string level : {"Off", "RuntimeInfo", "All"}) {
        ASSERT_EQ(SetSource("{\"loggingLevel\": \"" + level + "\"}"), 0);
        EXPECT_EQ(Ask("GetLoggingLevel"), Good(level));
    }
    for (const std::string runtime : {"clr", "go", "jvm", "netcore", "perl", "python", "ruby",
                                      "nodejs", "cpp", "php", "python2"}) {
        for (const std::string type : {"inMemory", "tcp", "tls"}) {
            ASSERT_EQ(SetSource("{\"runtimes\": {\"" + runtime +
                                "\": {\"channels\": {\"c\": {\"type\": \"" + type +
                                "\", \"host\": \"h\", \"port\": 65535}}}}}"),
                      0);
            EXPECT_EQ(AskChannel("GetChannelType", runtime.c_str(), "c"), Good(type));
            EXPECT_EQ(FIND(GetChannelPort)(runtime.c_str(), "c"), 65535);
        }
    }
}

// ---- Sources ----

TEST(Configs, ReadsAFileWhoseRelativeNameIsResolvedAtOnce) {
    const TemporaryDirectory directory;
    WriteFile(directory.Path() / "bridge.json", R"({"proxy": {"host": "h", "port": 1}})");
    {
        const ScopedWorkingDirectory inside(directory.Path());
        ASSERT_EQ(SetSource("bridge.json"), 0);
    }
    EXPECT_EQ(Ask("GetConfigSource"), Good((directory.Path() / "bridge.json").string()));
    EXPECT_EQ(Ask("GetProxyHost"), Good("h"));
}

TEST(Configs, InlineTextMayBeginWithBlanks) {
    ASSERT_EQ(SetSource(" \t\r\n{\"loggingLevel\": \"Off\"}"), 0);
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("Off"));
}

TEST(Configs, ANewSourceReplacesTheWholeOldOne) {
    ASSERT_EQ(SetSource(R"({"loggingLevel": "All", "proxy": {"host": "h", "port": 1}})"), 0);
    ASSERT_EQ(SetSource("{}"), 0);
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("RuntimeInfo"));
    EXPECT_EQ(FIND(ProxyExists)(), 0);
    EXPECT_EQ(Ask("GetProxyHost"), Good(""));
}

TEST(Configs, AFileIsReadAgainOnlyByTheNextSetConfigSource) {
    const TemporaryDirectory directory;
    const fs::path file = directory.Path() / "bridge.json";
    WriteFile(file, R"({"loggingLevel": "Off"})");
    ASSERT_EQ(SetSource(file), 0);
    WriteFile(file, R"({"loggingLevel": "All"})");
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("Off"));
    ASSERT_EQ(SetSource(file), 0);
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("All"));
}

// ---- Working directory ----

TEST(Configs, ARelativeWorkingDirectoryOfAFileIsSeenFromTheFile) {
    const TemporaryDirectory directory;
    fs::create_directory(directory.Path() / "logs");
    WriteFile(directory.Path() / "bridge.json", R"({"workingDirectory": "logs"})");
    ASSERT_EQ(SetSource(directory.Path() / "bridge.json"), 0);
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good((directory.Path() / "logs").string()));
}

TEST(Configs, ARelativeWorkingDirectoryOfInlineTextIsSeenFromTheCurrentDirectory) {
    const TemporaryDirectory directory;
    fs::create_directory(directory.Path() / "logs");
    {
        const ScopedWorkingDirectory inside(directory.Path());
        ASSERT_EQ(SetSource(R"({"workingDirectory": "logs/."})"), 0);
    }
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good((directory.Path() / "logs").string()));
}

TEST(Configs, SetWorkingDirectoryWinsOverEverySource) {
    const TemporaryDirectory directory;
    {
        const ScopedWorkingDirectory inside(directory.Path());
        ASSERT_EQ(FIND(SetWorkingDirectory)("."), 0);
    }
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good(directory.Path().string()));
    ASSERT_EQ(SetSource(R"({"workingDirectory": "/"})"), 0);
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good(directory.Path().string()));
    ASSERT_EQ(FIND(SetWorkingDirectory)("/"), 0);
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good("/"));
}

TEST(Configs, SetWorkingDirectoryRefusesWhatIsNoDirectoryAndChangesNothing) {
    const TemporaryDirectory directory;
    const fs::path file = directory.Path() / "file";
    WriteFile(file, "");
    ASSERT_EQ(FIND(SetWorkingDirectory)(directory.Path().c_str()), 0);
    EXPECT_EQ(FIND(SetWorkingDirectory)(nullptr), -1);
    EXPECT_EQ(FIND(SetWorkingDirectory)(""), -1);
    EXPECT_EQ(FIND(SetWorkingDirectory)(file.c_str()), -1);
    EXPECT_EQ(FIND(SetWorkingDirectory)((directory.Path() / "missing").c_str()), -1);
    EXPECT_EQ(FIND(SetWorkingDirectory)(std::string(10000, 'd').c_str()), -1);
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good(directory.Path().string()));
    EXPECT_EQ(Ask("GetConfigSource"), Good("defaults"));
}

TEST(Configs, ARemovedCurrentDirectoryIsStillTheWorkingDirectory) {
    const TemporaryDirectory directory;
    const ScopedWorkingDirectory inside(directory.Path());
    fs::remove_all(directory.Path());
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good("."));
}

// ---- Refused sources ----

TEST(Configs, EveryMistakeInTheDocumentIsNamedInOneSentence) {
    const std::string channel = R"({"runtimes": {"python": {"channels": {"default": )";
    const std::string longText(8192, 'v');
    const std::vector<std::pair<std::string, std::string>> mistakes = {
        {R"({"logingLevel": "All"})",
         R"("logingLevel" is unknown (expected one of: "loggingLevel", "workingDirectory", "proxy", "runtimes").)"},
        {R"({"proxy": {"host": "h", "prot": 1}})",
         R"("proxy.prot" is unknown (expected one of: "host", "port", "username", "password", "domain").)"},
        {R"({"runtimes": {"pyton": {}}})",
         R"("runtimes.pyton" is unknown (expected one of: "clr", "go", "jvm", "netcore", "perl", "python", "ruby", "nodejs", "cpp", "php", "python2").)"},
        {R"({"runtimes": {"python": {"chanels": {}}}})",
         R"("runtimes.python.chanels" is unknown (expected one of: "name", "channels").)"},
        {channel + R"({"path": "x"}}}}})",
         R"("runtimes.python.channels.default.path" is unknown (expected one of: "type", "host", "port", "runtimePath").)"},
        {R"({"loggingLevel": "all"})",
         R"("loggingLevel" must be one of: "Off", "RuntimeInfo", "All" (found: "all").)"},
        {channel + R"({"type": "udp"}}}}})",
         R"("runtimes.python.channels.default.type" must be one of: "inMemory", "tcp", "tls" (found: "udp").)"},
        {R"({"loggingLevel": 2})", R"("loggingLevel" must be a string (found: number).)"},
        {R"({"loggingLevel": null})", R"("loggingLevel" must be a string (found: null).)"},
        {R"({"workingDirectory": []})", R"("workingDirectory" must be a string (found: array).)"},
        {R"({"workingDirectory": "/no/such/directory"})",
         R"("workingDirectory" must name an existing directory (found: "/no/such/directory").)"},
        {R"({"workingDirectory": ""})",
         R"("workingDirectory" must name an existing directory (found: "").)"},
        {R"({"proxy": "h:1"})", R"("proxy" must be an object (found: string).)"},
        {R"({"proxy": {"host": "h", "port": 1, "password": 4711}})",
         R"("proxy.password" must be a string (found: number).)"},
        {R"({"proxy": {"host": "h", "port": 0}})",
         R"("proxy.port" must be a whole number from 1 to 65535 (found: 0).)"},
        {R"({"proxy": {"host": "h", "port": 65536}})",
         R"("proxy.port" must be a whole number from 1 to 65535 (found: 65536).)"},
        {R"({"proxy": {"host": "h", "port": -1}})",
         R"("proxy.port" must be a whole number from 1 to 65535 (found: -1).)"},
        {R"({"proxy": {"host": "h", "port": 80.0}})",
         R"("proxy.port" must be a whole number from 1 to 65535 (found: 80.0).)"},
        {R"({"proxy": {"host": "h", "port": "80"}})",
         R"("proxy.port" must be a whole number from 1 to 65535 (found: string).)"},
        {R"({"proxy": {"host": "h", "port": 18446744073709551617}})",
         R"("proxy.port" must be a whole number from 1 to 65535 (found: 1.8446744073709552e+19).)"},
        {R"({"proxy": {"port": 1}})", R"("proxy.host" is missing: a proxy needs a host.)"},
        {R"({"proxy": {"host": "h"}})", R"("proxy.port" is missing: a proxy needs a port.)"},
        {R"({"runtimes": []})", R"("runtimes" must be an object (found: array).)"},
        {R"({"runtimes": {"python": 1}})",
         R"("runtimes.python" must be an object (found: number).)"},
        {R"({"runtimes": {"python": {"name": true}}})",
         R"("runtimes.python.name" must be a string (found: boolean).)"},
        {R"({"runtimes": {"python": {"channels": null}}})",
         R"("runtimes.python.channels" must be an object (found: null).)"},
        {channel + R"("x"}}}})",
         R"("runtimes.python.channels.default" must be an object (found: string).)"},
        {channel + R"({"port": 70000}}}}})",
         R"("runtimes.python.channels.default.port" must be a whole number from 1 to 65535 (found: 70000).)"},
        {channel + R"({"runtimePath": 3.11}}}}})",
         R"("runtimes.python.channels.default.runtimePath" must be a string (found: number).)"},
        {channel + R"({"type": "tcp", "port": 1}}}}})",
         R"("runtimes.python.channels.default.host" is missing: a channel of type tcp needs a host.)"},
        {channel + R"({"type": "tls", "host": "h"}}}}})",
         R"("runtimes.python.channels.default.port" is missing: a channel of type tls needs a port.)"},
        {R"({"proxy": {"host": "h", "port": 1, "domain": ")" + longText + "\"}}",
         R"("proxy.domain" must have at most 8191 bytes (found: 8192).)"},
        {R"({"proxy": {"host": "a\u0000b", "port": 1}})",
         R"("proxy.host" must not contain a NUL character.)"},
        {R"({"proxy": {"host": "h", "port": 1, "port": 2}})", R"("proxy.port" stands twice.)"},
        {R"({"runtimes": {"python": {}, "perl": {}, "python": {}}})",
         R"("runtimes.python" stands twice.)"},
        {"{\"a\\\"b\\n\": 1}",
         R"("a\"b\n" is unknown (expected one of: "loggingLevel", "workingDirectory", "proxy", "runtimes").)"},
    };
    for (const auto& [document, sentence] : mistakes) {
        EXPECT_EQ(SetSource(document), -1) << sentence;
        EXPECT_EQ(Ask("GetConfigSource"), Bad("Inline configuration: " + sentence));
    }
}

TEST(Configs, BrokenJsonIsReportedWithLineAndColumnAndWithoutItsText) {
    const std::vector<std::pair<std::string, std::string>> mistakes = {
        {"{\n  \"proxy\": {\n",
         "Line 3, column 1: syntax error while parsing object key - unexpected end of input; "
         "expected string literal."},
        {"{\n \"proxy\": {\"password\": \"secret\nrest\"}}",
         "Line 3, column 0: syntax error while parsing value - invalid string: control character "
         "U+000A (LF) must be escaped to \\u000A or \\n."},
        {"{\"loggingLevel\": \"All\",}",
         "Line 1, column 24: syntax error while parsing object key - unexpected '}'; expected "
         "string literal."},
        {"{\"loggingLevel\": \"secret\xFF\"}",
         "Line 1, column 25: syntax error while parsing value - invalid string: ill-formed UTF-8 "
         "byte."},
        {"{} {}",
         "Line 1, column 4: syntax error while parsing value - unexpected '{'; expected end of "
         "input."},
        {"{\"proxy\": 1e999}", "number overflow parsing '1e999'."},
    };
    for (const auto& [document, sentence] : mistakes) {
        EXPECT_EQ(SetSource(document), -1) << sentence;
        EXPECT_EQ(Ask("GetConfigSource"), Bad("Inline configuration: " + sentence));
    }
}

TEST(Configs, AFileThatCannotBeReadIsNamedWithTheReason) {
    const TemporaryDirectory directory;
    const std::string expected = ". Expected a file with one JSON object.";
    const std::string missing = directory.Path() / "missing.json";
    EXPECT_EQ(SetSource(missing), -1);
    EXPECT_EQ(Ask("GetConfigSource"),
              Bad("Configuration file " + missing + ": Cannot be read: No such file or directory" +
                  expected));

    const std::string noFile = directory.Path();
    EXPECT_EQ(SetSource(noFile), -1);
    EXPECT_EQ(Ask("GetConfigSource"), Bad("Configuration file " + noFile +
                                          ": Cannot be read: Not a regular file" + expected));

    const std::string pipe = directory.Path() / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(SetSource(pipe), -1);
    EXPECT_EQ(Ask("GetConfigSource"), Bad("Configuration file " + pipe +
                                          ": Cannot be read: Not a regular file" + expected));

    const ScopedWorkingDirectory inside(directory.Path());
    EXPECT_EQ(SetSource("bridge.jsn"), -1);
    EXPECT_EQ(Ask("GetConfigSource"),
              Bad("Configuration file " + noFile +
                  "/bridge.jsn: Cannot be read: No such file or directory" + expected));
}

TEST(Configs, TheContentOfAFileIsJudgedLikeInlineText) {
    const TemporaryDirectory directory;
    const std::string file = directory.Path() / "bridge.json";
    const std::string subject = "Configuration file " + file + ": ";
    WriteFile(file, "[1]");
    EXPECT_EQ(SetSource(file), -1);
    EXPECT_EQ(Ask("GetConfigSource"),
              Bad(subject + "The document must be an object (found: array)."));
    WriteFile(file, "");
    EXPECT_EQ(SetSource(file), -1);
    EXPECT_EQ(Ask("GetConfigSource"),
              Bad(subject +
                  "Line 1, column 1: syntax error while parsing value - unexpected end of input; "
                  "expected '[', '{', or a literal."));
    WriteFile(file, R"({"proxy": {"host": "h", "port": 70000}})");
    EXPECT_EQ(SetSource(file), -1);
    EXPECT_EQ(
        Ask("GetConfigSource"),
        Bad(subject + R"("proxy.port" must be a whole number from 1 to 65535 (found: 70000).)"));
}

TEST(Configs, NullAndBlankSourcesAreRefused) {
    EXPECT_EQ(FIND(SetConfigSource)(nullptr), -1);
    EXPECT_EQ(
        Ask("GetConfigSource"),
        Bad("The configuration source is a null pointer. Expected a file name or JSON text."));
    for (const char* blank : {"", " \t\r\n"}) {
        EXPECT_EQ(SetSource(blank), -1);
        EXPECT_EQ(Ask("GetConfigSource"),
                  Bad("The configuration source is empty. Expected a file name or JSON text."));
    }
}

TEST(Configs, AfterARefusedSourceNothingButLevelAndDirectoryIsServed) {
    ASSERT_EQ(SetSource(R"({"loggingLevel": "All", "workingDirectory": "/",
                            "proxy": {"host": "h", "port": 1},
                            "runtimes": {"python": {"channels": {"default": {"port": 1}}}}})"),
              0);
    ASSERT_EQ(SetSource(R"({"loggingLevel": "Loud"})"), -1);
    const Answer sentence = Bad(
        R"(Inline configuration: "loggingLevel" must be one of: "Off", "RuntimeInfo", "All" (found: "Loud").)");
    for (const char* name : kSourceGetters) EXPECT_EQ(Ask(name), sentence) << name;
    for (const char* name : kChannelGetters) {
        EXPECT_EQ(AskChannel(name, "python", "default"), sentence) << name;
    }
    EXPECT_EQ(FIND(ProxyExists)(), 0);
    EXPECT_EQ(FIND(GetProxyPort)(), 0);
    EXPECT_EQ(FIND(GetChannelPort)("python", "default"), 0);
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("All"));
    EXPECT_EQ(Ask("GetWorkingDirectory"), Good("/"));

    ASSERT_EQ(SetSource("{}"), 0);
    EXPECT_EQ(Ask("GetConfigSource"), Good("inline configuration"));
    EXPECT_EQ(Ask("GetLoggingLevel"), Good("RuntimeInfo"));
}

TEST(Configs, NullNamesOfRuntimeAndChannelAreRefused) {
    for (const char* name : kChannelGetters) {
        EXPECT_EQ(AskChannel(name, nullptr, "default"), Bad("The runtime name is a null pointer."));
        EXPECT_EQ(AskChannel(name, "python", nullptr), Bad("The channel name is a null pointer."));
    }
    EXPECT_EQ(FIND(GetChannelPort)(nullptr, "default"), 0);
    EXPECT_EQ(FIND(GetChannelPort)("python", nullptr), 0);
}

TEST(Configs, NothingIsPrintedByAFailure) {
    const TemporaryDirectory directory;
    CapturedOutput output;
    SetSource(directory.Path() / "missing.json");
    SetSource("{");
    Ask("GetConfigSource");
    FIND(SetWorkingDirectory)("/no/such/directory");
    EXPECT_EQ(output.Stop(), "");
}

// ---- Buffers ----

TEST(Configs, AValueNeedsRoomForItselfAndItsNul) {
    ASSERT_EQ(SetSource(R"({"proxy": {"host": "12345", "port": 1}})"), 0);
    EXPECT_EQ(Ask("GetProxyHost", 6), Good("12345"));
    const std::string sentence =
        "The buffer of 5 bytes is too small for a value of 5 bytes and its terminating NUL.";
    EXPECT_EQ(Ask("GetProxyHost", 5), Bad(sentence.substr(0, 4)));
    EXPECT_EQ(Ask("GetProxyHost", 1), Bad(""));
    EXPECT_EQ(Ask("GetProxyDomain", 1), Good(""));
}

TEST(Configs, ABufferThatIsTooSmallIsNamedAsFarAsItGoes) {
    ASSERT_EQ(SetSource(R"({"proxy": {"port": 1, "host": ")" + std::string(200, 'h') + "\"}}"), 0);
    EXPECT_EQ(Ask("GetProxyHost", 100), Bad("The buffer of 100 bytes is too small for a value of "
                                            "200 bytes and its terminating NUL."));
}

TEST(Configs, WithoutABufferTheAnswerIsFailure) {
    char untouched = '#';
    for (const char* name : kSourceGetters) {
        EXPECT_EQ(Find<Getter>(name)(nullptr, 8192), -1) << name;
        EXPECT_EQ(Find<Getter>(name)(nullptr, 0), -1) << name;
        EXPECT_EQ(Find<Getter>(name)(&untouched, 0), -1) << name;
    }
    for (const char* name : kChannelGetters) {
        EXPECT_EQ(Find<ChannelGetter>(name)("python", "default", nullptr, 8192), -1) << name;
        EXPECT_EQ(Find<ChannelGetter>(name)("python", "default", &untouched, 0), -1) << name;
    }
    EXPECT_EQ(untouched, '#');
}

TEST(Configs, TheLongestValueFillsTheBufferOfTheBridge) {
    const std::string longest(8191, 'p');
    ASSERT_EQ(SetSource(R"({"proxy": {"host": "h", "port": 1, "password": ")" + longest + "\"}}"),
              0);
    EXPECT_EQ(Ask("GetProxyPassword", 8192), Good(longest));
}

TEST(Configs, ASentenceIsCutBetweenWholeCharacters) {
    ASSERT_EQ(SetSource("{\"\u00e9\u20ac\U0001f40d\": 1}"), -1);
    const std::string whole = Ask("GetConfigSource").text;
    ASSERT_NE(whole.find("\"\u00e9\u20ac\U0001f40d\" is unknown"), std::string::npos);
    std::set<std::string> seen;
    for (unsigned long size = 1; size <= whole.size() + 1; ++size) {
        const Answer answer = Ask("GetConfigSource", size);
        EXPECT_EQ(answer.length, -1);
        ASSERT_LT(answer.text.size(), size);
        EXPECT_EQ(answer.text, whole.substr(0, answer.text.size()));
        seen.insert(answer.text);
        const auto next = static_cast<unsigned char>(whole.c_str()[answer.text.size()]);
        EXPECT_NE(next & 0xC0U, 0x80U) << "cut inside a character at " << answer.text.size();
    }
    // Every boundary between characters occurs: six bytes of this sentence continue a character.
    EXPECT_EQ(seen.size(), whole.size() + 1 - 6);
}

// ---- Threads ----

TEST(Configs, ManyThreadsSeeWholeConfigurations) {
    const std::string one = R"({"loggingLevel": "All", "proxy": {"host": "one", "port": 1}})";
    const std::string two = R"({"loggingLevel": "Off", "proxy": {"host": "two", "port": 2}})";
    const std::string sentence =
        R"(Inline configuration: "proxy.host" is missing: a proxy needs a host.)";
    ASSERT_EQ(SetSource(one), 0);

    std::atomic<bool> done = false;
    std::atomic<int> wrong = 0;
    const auto read = [&] {
        while (!done) {
            const Answer host = Ask("GetProxyHost");
            const Answer level = Ask("GetLoggingLevel");
            const int port = FIND(GetProxyPort)();
            if (host != Good("one") && host != Good("two") && host != Bad(sentence)) ++wrong;
            if (level != Good("All") && level != Good("Off")) ++wrong;
            if (port < 0 || port > 2) ++wrong;
        }
    };
    const auto write = [&] {
        for (int round = 0; round < 300; ++round) {
            if (SetSource(one) != 0 || SetSource(R"({"proxy": {}})") != -1) ++wrong;
            if (SetSource(two) != 0 || FIND(SetWorkingDirectory)("/") != 0) ++wrong;
            if (Ask("GetWorkingDirectory") != Good("/")) ++wrong;
        }
    };
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) readers.emplace_back(read);
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) writers.emplace_back(write);
    for (std::thread& writer : writers) writer.join();
    done = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(wrong, 0);
}

TEST(Configs, AChildForkedWhileAnotherThreadReadsCanReadToo) {
    // Looked up at once: a child forked in the middle of another thread's dlsym could not call
    // dlsym any more.
    const auto getLevel = FIND(GetLoggingLevel);
    std::atomic<bool> done = false;
    std::thread busy([&] {
        std::array<char, 64> buffer{};
        while (!done) getLevel(buffer.data(), buffer.size());
    });
    int answered = 0;
    for (int i = 0; i < 100; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            std::array<char, 64> buffer{};
            ::_exit(getLevel(buffer.data(), buffer.size()) == 11 ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) ++answered;
    }
    done = true;
    busy.join();
    EXPECT_EQ(answered, 100);
}

}  // namespace
