// quorvalen-host over TLS: who is let in, and what the log says of those who are not.
#include <gtest/gtest.h>

#include <csignal>

#include "Tests/Companions/Network/HostClient.h"
#include "Tests/Companions/Network/HostProcess.h"

namespace NetworkTests {
namespace {

class HostTlsTest : public testing::Test {
  protected:
    TemporaryDirectory directory;
    Certificates files{directory.Path()};
    HostProcess host{WithEcho({"--tls-port", "0", "--port", "0", "--tls-certificate",
                               files.server.certificate, "--tls-key", files.server.key,
                               "--tls-client-ca", files.ca, "--max-frame", "1000000"})};

    TlsOptions Good() const { return {files.client, files.ca, TLS1_3_VERSION}; }

    // A client is refused: nothing of its command is executed, and the log has `why`.
    void ExpectRefused(const TlsOptions& options, const std::string& alert,
                       const std::string& why) {
        TlsClient client(host.TlsPort(), options);
        std::string failure = client.HandshakeFailure();
        if (failure.empty()) {
            client.Send(Framed(Command("not for you")));
            EXPECT_EQ("lost", client.Receive());
            failure = client.ReadFailure();
        }
        EXPECT_EQ(alert, failure);
        host.WaitForLog(": TLS handshake failed: " + why + "\n");
        EXPECT_EQ(0, Stop());
        EXPECT_EQ("quorvalen-host stopped: 0 commands, 1 connections", host.LastLine());
    }

    int Stop() {
        host.Signal(SIGTERM);
        return host.Wait();
    }
};

TEST_F(HostTlsTest, AClientWithACertificateIsServed) {
    TlsClient client(host.TlsPort(), Good());
    EXPECT_EQ("", client.HandshakeFailure());
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
    EXPECT_EQ(HeartbeatAnswer("x"), client.Ask(Heartbeat("x")));
    EXPECT_EQ("", host.Log());
}

TEST_F(HostTlsTest, Tls12IsServed) {
    TlsClient client(host.TlsPort(), {files.client, files.ca, TLS1_2_VERSION});
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
}

TEST_F(HostTlsTest, LongAndPipelinedCommandsAreServed) {
    TlsClient client(host.TlsPort(), Good());
    const std::string longest = Command(std::string(1000000 - 11, 'x'));
    EXPECT_EQ(longest, client.Ask(longest));
    for (int i = 0; i < 300; ++i) client.Send(Framed(Command(std::to_string(i))));
    for (int i = 0; i < 300; ++i) ASSERT_EQ(Command(std::to_string(i)), client.Receive());
}

// A client that finds its idle socket readable then knows that it is closed.
TEST_F(HostTlsTest, NothingIsSentUnasked) {
    TlsClient client(host.TlsPort(), Good());
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
    EXPECT_FALSE(client.IsReadable());
}

TEST_F(HostTlsTest, ACertificateOfAnotherAuthorityIsRefused) {
    ExpectRefused({files.untrustedClient, files.ca, TLS1_3_VERSION}, "tlsv1 alert unknown ca",
                  "certificate verify failed: unable to get local issuer certificate");
}

TEST_F(HostTlsTest, AClientWithoutCertificateIsRefused) {
    ExpectRefused({std::nullopt, files.ca, TLS1_3_VERSION}, "tlsv13 alert certificate required",
                  "peer did not return a certificate");
}

TEST_F(HostTlsTest, AClientWithoutCertificateIsRefusedWithTls12) {
    ExpectRefused({std::nullopt, files.ca, TLS1_2_VERSION}, "sslv3 alert handshake failure",
                  "peer did not return a certificate");
}

TEST_F(HostTlsTest, AnExpiredCertificateIsRefused) {
    ExpectRefused({files.expired, files.ca, TLS1_3_VERSION}, "sslv3 alert certificate expired",
                  "certificate verify failed: certificate has expired");
}

TEST_F(HostTlsTest, AnOldProtocolIsRefused) {
    ExpectRefused({files.client, files.ca, TLS1_1_VERSION}, "tlsv1 alert protocol version",
                  "unsupported protocol");
}

TEST_F(HostTlsTest, AClientThatDoesNotTrustTheHostIsLogged) {
    const TlsClient client(host.TlsPort(), {files.client, files.otherCa, TLS1_3_VERSION});
    EXPECT_EQ("certificate verify failed", client.HandshakeFailure());
    host.WaitForLog(": TLS handshake failed: tlsv1 alert unknown ca\n");
}

TEST_F(HostTlsTest, APlainClientOnTheTlsPortIsRefused) {
    TcpClient client(host.TlsPort());
    client.Send(Framed(Command("hello")));
    host.WaitForLog(": TLS handshake failed: ");
    // The answer is TLS's own alert, which is no frame.
    EXPECT_NE(Command("hello"), client.Receive());
    EXPECT_EQ(0, Stop());
    EXPECT_EQ("quorvalen-host stopped: 0 commands, 1 connections", host.LastLine());
}

TEST_F(HostTlsTest, ATlsClientOnThePlainPortIsRefused) {
    const TlsClient client(host.TcpPort(), Good());
    EXPECT_EQ("wrong version number", client.HandshakeFailure());
    host.WaitForLog(" bytes is announced, at most 1000000 are accepted\n");
}

TEST_F(HostTlsTest, ACheckThatConnectsAndLeavesIsNotLogged) {
    { const TcpClient check(host.TlsPort()); }
    TlsClient client(host.TlsPort(), Good());
    EXPECT_EQ(HeartbeatAnswer(""), client.Ask(Heartbeat("")));
    EXPECT_EQ(0, Stop());
    EXPECT_EQ("[info] signal 15: finishing 0 commands\n", host.Log());
}

TEST_F(HostTlsTest, TheDrainEndsTlsConnectionsInOrder) {
    TlsClient client(host.TlsPort(), Good());
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
    EXPECT_EQ(0, Stop());
    EXPECT_EQ("closed", client.Receive());
}

TEST(HostTlsWithoutClientCaTest, NoCertificateIsAskedFor) {
    const TemporaryDirectory directory;
    const Certificates files(directory.Path());
    HostProcess host(WithEcho({"--tls-port", "0", "--tls-certificate", files.server.certificate,
                               "--tls-key", files.server.key}));
    EXPECT_EQ("quorvalen-host ready: tls 127.0.0.1:" + std::to_string(host.TlsPort()) +
                  ", 4 threads, Python unknown, pid " + std::to_string(host.Id()),
              host.ReadyLine());
    TlsClient client(host.TlsPort(), {std::nullopt, files.ca, TLS1_3_VERSION});
    EXPECT_EQ(Command("hello"), client.Ask(Command("hello")));
}

}  // namespace
}  // namespace NetworkTests
