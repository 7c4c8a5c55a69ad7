// The command line and the configuration file of quorvalen-host, and starts that fail: whole texts
// and exit statuses.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

#include "Tests/Companions/Network/HostClient.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {
namespace {

// How a host with these arguments ends: exit status and everything it wrote.
std::string Ending(const Texts& arguments, const Texts& environment = {}) {
    HostProcess host(arguments, environment);
    const int status = host.Wait();
    return std::to_string(status) + "\n" + host.Output() + host.Errors();
}

std::string Refusal(const std::string& why) {
    return "2\nquorvalen-host: " + why + "\nRun with --help for more information.\n";
}

struct Mistake {
    Texts arguments;
    std::string why;
};

const Mistake kMistakes[] = {
    {{}, "there is nothing to serve: give --port, --tls-port or both"},
    {{"--port", "0", "--frob"}, "The following argument was not expected: --frob"},
    {{"--port", "0", "extra"}, "The following argument was not expected: extra"},
    {{"--port"}, "--port: 1 required UINT:INT in [0 - 65535] missing"},
    {{"--port", "65536"}, "--port: Value 65536 not in range 0 to 65535"},
    {{"--tls-port", "-1"}, "--tls-port: Value -1 not in range 0 to 65535"},
    {{"--port", "x"}, "--port: Value x not in range 0 to 65535"},
    {{"--port", "0", "--address", "localhost"}, "--address: 'localhost' is no IP address"},
    {{"--port", "0", "--threads", "0"}, "--threads: Value 0 not in range 1 to 1024"},
    {{"--port", "0", "--threads", "1025"}, "--threads: Value 1025 not in range 1 to 1024"},
    {{"--port", "0", "--max-frame", "1023"},
     "--max-frame: Value 1023 not in range 1024 to 2147483647"},
    {{"--port", "0", "--max-frame", "2147483648"},
     "--max-frame: Value 2147483648 not in range 1024 to 2147483647"},
    {{"--port", "0", "--max-connections", "0"},
     "--max-connections: Value 0 not in range 1 to 1000000"},
    {{"--port", "0", "--idle-timeout", "0"},
     "--idle-timeout: Value 0 not in range 0.001000 to 86400.000000"},
    {{"--port", "0", "--drain-timeout", "86401"},
     "--drain-timeout: Value 86401 not in range 0.001000 to 86400.000000"},
    {{"--port", "0", "--log-level", "loud"},
     "--log-level: loud not in {debug,info,warning,error,off}"},
    {{"--port", "0", "--python-version", "2.7"},
     "--python-version: 2.7 not in {3.10,3.11,3.12,3.13,3.14,3.6,3.7,3.8,3.9,any}"},
    {{"--port", "05000"}, "--port: Value 05000 is no decimal number"},
    {{"--tls-port", "0x10"}, "--tls-port: Value 0x10 is no decimal number"},
    {{"--port", "0", "--threads", "010"}, "--threads: Value 010 is no decimal number"},
    {{"--port", "0", "--max-frame", "0x1000"}, "--max-frame: Value 0x1000 is no decimal number"},
    {{"--port", "0", "--max-connections", "010"},
     "--max-connections: Value 010 is no decimal number"},
    {{"--port", "0", "--idle-timeout", "nan"}, "--idle-timeout: Value nan is no decimal number"},
    {{"--port", "0", "--drain-timeout", "nan"}, "--drain-timeout: Value nan is no decimal number"},
    {{"--tls-port", "0", "--tls-certificate", ""},
     "--tls-certificate: the name of the file is empty"},
    {{"--tls-port", "0", "--tls-key", ""}, "--tls-key: the name of the file is empty"},
    {{"--tls-port", "0", "--tls-client-ca", ""}, "--tls-client-ca: the name of the file is empty"},
    {{"--port", "0", "--config", ""}, "--config: the name of the file is empty"},
    {{"--port", "0", "--config", "/nowhere.toml"}, "/nowhere.toml was not readable (missing?)"},
    {{"--tls-port", "0"}, "--tls-port needs --tls-certificate and --tls-key"},
    {{"--tls-port", "0", "--tls-key", "k"}, "--tls-port needs --tls-certificate and --tls-key"},
    {{"--port", "0", "--tls-key", "k"},
     "--tls-certificate, --tls-key and --tls-client-ca need --tls-port"},
    {{"--port", "0", "--tls-client-ca", "c"},
     "--tls-certificate, --tls-key and --tls-client-ca need --tls-port"},
};

// The name of the test in lists.
void PrintTo(const Mistake& mistake, std::ostream* stream) {
    for (const std::string& argument : mistake.arguments) *stream << argument << " ";
}

class HostMistakeTest : public testing::TestWithParam<Mistake> {};

TEST_P(HostMistakeTest, IsToldAndEndsWithStatusTwo) {
    EXPECT_EQ(Refusal(GetParam().why), Ending(GetParam().arguments));
}

INSTANTIATE_TEST_SUITE_P(All, HostMistakeTest, testing::ValuesIn(kMistakes));

struct Exposure {
    std::string address;
    Texts arguments;
};

const Exposure kExposures[] = {
    {"0.0.0.0", {"--port", "0"}},
    {"::", {"--port", "0"}},
    {"192.0.2.1", {"--port", "0"}},
    {"0.0.0.0", {"--tls-port", "0", "--tls-certificate", "c", "--tls-key", "k"}},
    {"0.0.0.0",
     {"--port", "0", "--tls-port", "0", "--tls-certificate", "c", "--tls-key", "k",
      "--tls-client-ca", "a"}},
};

void PrintTo(const Exposure& exposure, std::ostream* stream) {
    for (const std::string& argument : exposure.arguments) *stream << argument << " ";
    *stream << exposure.address;
}

class HostExposureTest : public testing::TestWithParam<Exposure> {};

TEST_P(HostExposureTest, IsRefusedWithoutTlsAndClientCertificates) {
    Texts arguments = GetParam().arguments;
    arguments.insert(arguments.end(), {"--address", GetParam().address});
    EXPECT_EQ(Refusal("--address " + GetParam().address +
                      " can be reached from other machines, and whoever can send a command can run "
                      "code: give --tls-port with --tls-client-ca, and no --port"),
              Ending(WithEcho(arguments)));
}

INSTANTIATE_TEST_SUITE_P(All, HostExposureTest, testing::ValuesIn(kExposures));

TEST(HostCommandLineTest, EveryAddressIsServedToClientsWithCertificates) {
    const TemporaryDirectory directory;
    const Certificates certificates(directory.Path());
    HostProcess host(WithEcho({"--address", "0.0.0.0", "--tls-port", "0", "--tls-certificate",
                               certificates.server.certificate, "--tls-key",
                               certificates.server.key, "--tls-client-ca", certificates.ca}));
    EXPECT_EQ(0U, host.ReadyLine().find("quorvalen-host ready: tls 0.0.0.0:"));
}

TEST(HostCommandLineTest, TheLoopbackAddressOfIpv6IsServed) {
    HostProcess host(WithEcho({"--address", "::1", "--port", "0"}));
    EXPECT_EQ(0U, host.ReadyLine().find("quorvalen-host ready: tcp [::1]:"));
}

TEST(HostCommandLineTest, OptionsStandInAFileToo) {
    const TemporaryDirectory directory;
    const std::string file = directory.File("host.toml");
    std::ofstream(file) << "# comment\nport = 0\nthreads = 7\nbridge = \"" ECHO_BRIDGE "\"\n";
    HostProcess host({"--config", file});
    EXPECT_EQ("quorvalen-host ready: tcp 127.0.0.1:" + std::to_string(host.TcpPort()) +
                  ", 7 threads, Python unknown, pid " + std::to_string(host.Id()),
              host.ReadyLine());
}

TEST(HostCommandLineTest, TheCommandLineWinsOverTheFile) {
    const TemporaryDirectory directory;
    const std::string file = directory.File("host.toml");
    std::ofstream(file) << "port = 0\nthreads = 7\n";
    HostProcess host(WithEcho({"--config", file, "--threads", "3"}));
    EXPECT_NE(std::string::npos, host.ReadyLine().find(", 3 threads, "));
}

TEST(HostCommandLineTest, AnUnknownNameInTheFileIsRefused) {
    const TemporaryDirectory directory;
    const std::string file = directory.File("host.toml");
    std::ofstream(file) << "port = 0\ncolour = 3\n";
    EXPECT_EQ(Refusal("--config: 'colour' is no option"), Ending({"--config", file}));
}

TEST(HostCommandLineTest, AWrongValueInTheFileIsRefused) {
    const TemporaryDirectory directory;
    const std::string file = directory.File("host.toml");
    std::ofstream(file) << "port = \"many\"\n";
    EXPECT_EQ(Refusal("--port: Value many not in range 0 to 65535"), Ending({"--config", file}));
}

TEST(HostCommandLineTest, AnEmptyClientAuthorityInTheFileIsRefused) {
    const TemporaryDirectory directory;
    const std::string file = directory.File("host.toml");
    std::ofstream(file) << "tls-port = 0\ntls-client-ca = \"\"\n";
    EXPECT_EQ(Refusal("--tls-client-ca: the name of the file is empty"),
              Ending({"--config", file}));
}

TEST(HostCommandLineTest, TheSampleFileIsAccepted) {
    HostProcess host(WithEcho({"--config", SAMPLE_CONFIGURATION, "--port", "0"}));
    EXPECT_NE(std::string::npos, host.ReadyLine().find(", 4 threads, "));
}

TEST(HostCommandLineTest, TlsFilesThatCannotBeUsedAreNamed) {
    const TemporaryDirectory directory;
    const Certificates files(directory.Path());
    const auto ending = [](const std::string& certificate, const std::string& key,
                           const std::string& ca) {
        return Ending(WithEcho({"--tls-port", "0", "--tls-certificate", certificate, "--tls-key",
                                key, "--tls-client-ca", ca}));
    };
    const std::string good = files.server.certificate;
    EXPECT_EQ("2\nquorvalen-host: --tls-certificate /nowhere: No such file or directory\n",
              ending("/nowhere", files.server.key, files.ca));
    EXPECT_EQ("2\nquorvalen-host: --tls-key /nowhere: No such file or directory\n",
              ending(good, "/nowhere", files.ca));
    EXPECT_EQ("2\nquorvalen-host: --tls-key " + files.client.key + ": key values mismatch\n",
              ending(good, files.client.key, files.ca));
    EXPECT_EQ("2\nquorvalen-host: --tls-client-ca /nowhere: No such file or directory\n",
              ending(good, files.server.key, "/nowhere"));
    EXPECT_EQ("2\nquorvalen-host: --tls-client-ca " + files.server.key + ": no start line\n",
              ending(good, files.server.key, files.server.key));
}

TEST(HostCommandLineTest, HelpNamesEveryOption) {
    HostProcess host({"--help"});
    EXPECT_EQ(0, host.Wait());
    for (const char* option :
         {"--config", "--address", "--port", "--tls-port", "--tls-certificate", "--tls-key",
          "--tls-client-ca", "--threads", "--max-frame", "--max-connections", "--idle-timeout",
          "--drain-timeout", "--log-level", "--bridge", "--python-version"}) {
        EXPECT_NE(std::string::npos, host.Output().find("\n  " + std::string(option) + " "))
            << option;
    }
}

TEST(HostStartTest, APortThatIsTakenIsNamed) {
    HostProcess first(WithEcho({"--port", "0"}));
    const std::string port = std::to_string(first.TcpPort());
    EXPECT_EQ(
        "1\nquorvalen-host: cannot listen on 127.0.0.1:" + port + ": Address already in use\n",
        Ending(WithEcho({"--port", port})));
}

TEST(HostStartTest, ABridgeThatIsMissingIsNamed) {
    EXPECT_EQ(
        "1\nquorvalen-host: /nowhere.so: cannot open shared object file: No such file or "
        "directory\n",
        Ending({"--port", "0", "--bridge", "/nowhere.so"}));
}

TEST(HostStartTest, AFailureOfTheBridgeIsTold) {
    EXPECT_EQ("1\nquorvalen-host: no Python: 8 5 6\n",
              Ending(WithEcho({"--port", "0", "--python-version", "3.11"}),
                     {"FAKE_ECHO_INITIALIZE=no Python"}));
    EXPECT_EQ("1\nquorvalen-host: no Python: 8 5 0\n",
              Ending(WithEcho({"--port", "0"}), {"FAKE_ECHO_INITIALIZE=no Python"}));
}

}  // namespace
}  // namespace NetworkTests
