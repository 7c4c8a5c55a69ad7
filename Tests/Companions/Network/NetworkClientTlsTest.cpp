// The TLS client library: which certificates it accepts, how it shows its own, what it says about a
// connection that did not come to be, and its settings.
#include <fstream>

#include "Tests/Companions/Network/ClientFixture.h"

namespace {

using namespace NetworkTests;

class TlsClientTest : public ClientFixture {
  protected:
    // A server with this certificate, and the client trusts the first authority.
    std::unique_ptr<Peer> ServeAs(const Identity& identity) { return ServeBy(TlsServer(identity)); }
    std::unique_ptr<Peer> ServeBy(TlsServer server, Peer::Script script = Echo) {
        Set("QUORVALEN_TLS_CA_FILE", Files().ca);
        return std::make_unique<Peer>(std::move(script),
                                      std::make_shared<TlsServer>(std::move(server)));
    }
    std::unique_ptr<Peer> ServePlain(Peer::Script script) {
        Set("QUORVALEN_TLS_CA_FILE", Files().ca);
        return std::make_unique<Peer>(std::move(script));
    }
    void ShowCertificate(const Identity& identity) {
        Set("QUORVALEN_TLS_CERTIFICATE_FILE", identity.certificate);
        Set("QUORVALEN_TLS_KEY_FILE", identity.key);
    }
    static Channel ChannelTo(const Peer& peer, const char* host = "127.0.0.1") {
        return Channel(Kind::Tls, host, peer.Port());
    }
    static std::string Refusal(const std::string& peer, const std::string& reason) {
        return kPrefix + std::string("105. \nNo TLS connection to ") + peer + ": " + reason;
    }
    static std::string Unusable(const std::string& file, const std::string& variable,
                                const std::string& reason) {
        return kPrefix + std::string("106. \nNo command is sent to 127.0.0.1:9: the file \"") +
               file + "\" of " + variable + " is unusable: " + reason;
    }
    static std::string FailureWithoutServer() {
        return Channel(Kind::Tls, "127.0.0.1", 9).Failure("abc");
    }
    std::string Scrap() {
        const std::string file = Directory() + "scrap.pem";
        std::ofstream(file) << "this is no PEM file\n";
        return file;
    }
};

TEST_F(TlsClientTest, AnAuthorityThatIsNotOurs) {
    const auto peer = ServeAs(Files().untrustedServer);
    EXPECT_EQ(Refusal(peer->Name(), "its certificate comes from no authority that is trusted here"),
              ChannelTo(*peer).Failure("abc"));
    EXPECT_EQ(0, peer->Frames());
}

TEST_F(TlsClientTest, WithoutASettingTheSystemsAuthoritiesAreTrustedAndNotOurs) {
    const auto peer = ServeAs(Files().server);
    const EnvironmentVariable unset("QUORVALEN_TLS_CA_FILE", std::nullopt);
    EXPECT_EQ(Refusal(peer->Name(), "its certificate comes from no authority that is trusted here"),
              ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, ThePlaceOfTheSystemsAuthoritiesIsThatOfOpenSsl) {
    const auto peer = ServeAs(Files().server);
    const EnvironmentVariable unset("QUORVALEN_TLS_CA_FILE", std::nullopt);
    Set("SSL_CERT_FILE", Files().ca);
    EXPECT_EQ("abc", ChannelTo(*peer).Exchange("abc"));
}

TEST_F(TlsClientTest, ACertificateThatHasExpired) {
    const auto peer = ServeAs(Files().expired);
    EXPECT_EQ(Refusal(peer->Name(), "its certificate has expired"),
              ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, ACertificateThatIsNotYetValid) {
    const auto peer = ServeAs(Files().notYetValid);
    EXPECT_EQ(Refusal(peer->Name(), "its certificate is not yet valid"),
              ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, ACertificateForAnotherName) {
    const auto peer = ServeAs(Files().wrongName);
    EXPECT_EQ(Refusal(peer->Name(), "its certificate is not for \"127.0.0.1\""),
              ChannelTo(*peer).Failure("abc"));
    EXPECT_EQ(Refusal("localhost:" + std::to_string(peer->Port()),
                      "its certificate is not for \"localhost\""),
              ChannelTo(*peer, "localhost").Failure("abc"));
}

TEST_F(TlsClientTest, TheSubjectOfACertificateIsNoNameOfIt) {
    const auto peer = ServeAs(Files().nameAsSubject);
    EXPECT_EQ(Refusal("localhost:" + std::to_string(peer->Port()),
                      "its certificate is not for \"localhost\""),
              ChannelTo(*peer, "localhost").Failure("abc"));
}

TEST_F(TlsClientTest, TheServerNameStandsForTheHost) {
    const auto peer = ServeAs(Files().wrongName);
    for (const char* name : {"elsewhere.test", "127.0.0.99"}) {
        Set("QUORVALEN_TLS_SERVER_NAME", name);
        EXPECT_EQ("abc", ChannelTo(*peer).Exchange("abc")) << name;
    }
}

TEST_F(TlsClientTest, TheServerNameIsTheOnlyNameThatCounts) {
    const auto peer = ServeAs(Files().server);
    Set("QUORVALEN_TLS_SERVER_NAME", "elsewhere.test");
    EXPECT_EQ(Refusal(peer->Name(), "its certificate is not for \"elsewhere.test\""),
              ChannelTo(*peer).Failure("abc"));
}

// OpenSSL knows no zones: an address with one must not end as no expectation at all.
TEST_F(TlsClientTest, AnAddressWithAZoneIsNoNameOfTheCertificate) {
    const auto peer = ServeAs(Files().server);
    Set("QUORVALEN_TLS_SERVER_NAME", "fe80::1%lo");
    EXPECT_EQ(Refusal(peer->Name(), "its certificate is not for \"fe80::1%lo\""),
              ChannelTo(*peer).Failure("abc"));
    EXPECT_EQ(0, peer->Frames());
}

TEST_F(TlsClientTest, TheServerIsAskedForNamesAndNotForAddresses) {
    const auto peer = ServeBy(TlsServer(Files().server), [](PeerConnection& connection) {
        connection.ReadFrame();
        connection.Send(Frame("<" + connection.RequestedName() + ">"));
    });
    EXPECT_EQ("<>", ChannelTo(*peer).Exchange("abc"));
    EXPECT_EQ("<localhost>", ChannelTo(*peer, "localhost").Exchange("abc"));
    Set("QUORVALEN_TLS_SERVER_NAME", "localhost");
    EXPECT_EQ("<localhost>", ChannelTo(*peer).Exchange("abc"));
}

TEST_F(TlsClientTest, BothVersionsAreSpoken) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto peer = ServeBy(TlsServer(Files().server).AtMost(version));
        const Channel channel = ChannelTo(*peer);
        for (int i = 0; i < 3; ++i) EXPECT_EQ("abc", channel.Exchange("abc"));
        EXPECT_EQ(1, peer->Connections());
    }
}

TEST_F(TlsClientTest, OlderVersionsAreNot) {
    const auto peer = ServeBy(TlsServer(Files().server).AtMost(TLS1_1_VERSION));
    EXPECT_EQ(Refusal(peer->Name(), "it speaks only TLS versions older than 1.2"),
              ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, TheCertificateThatTheServerDemandsIsShown) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto peer =
            ServeBy(TlsServer(Files().server).AtMost(version).DemandCertificateOf(Files().ca));
        ShowCertificate(Files().client);
        EXPECT_EQ("abc", ChannelTo(*peer).Exchange("abc")) << version;
    }
}

TEST_F(TlsClientTest, ACertificateIsDemandedAndThereIsNone) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto peer =
            ServeBy(TlsServer(Files().server).AtMost(version).DemandCertificateOf(Files().ca));
        EXPECT_EQ(Refusal(peer->Name(),
                          "it demands a client certificate (QUORVALEN_TLS_CERTIFICATE_FILE, "
                          "QUORVALEN_TLS_KEY_FILE)"),
                  ChannelTo(*peer).Failure("abc"))
            << version;
        EXPECT_EQ(0, peer->Frames());
    }
}

// In TLS 1.3 the refusal comes after the connection stands, maybe while the command is sent.
TEST_F(TlsClientTest, ACertificateIsDemandedWhileALongCommandIsSent) {
    const auto peer = ServeBy(TlsServer(Files().server).DemandCertificateOf(Files().ca));
    EXPECT_EQ(Refusal(peer->Name(),
                      "it demands a client certificate (QUORVALEN_TLS_CERTIFICATE_FILE, "
                      "QUORVALEN_TLS_KEY_FILE)"),
              ChannelTo(*peer).Failure(std::string(60'000'000, 'x')));
}

TEST_F(TlsClientTest, OurCertificateIsRefused) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto peer =
            ServeBy(TlsServer(Files().server).AtMost(version).DemandCertificateOf(Files().ca));
        ShowCertificate(Files().untrustedClient);
        EXPECT_EQ(Refusal(peer->Name(), "it refused the client certificate: unknown authority"),
                  ChannelTo(*peer).Failure("abc"))
            << version;
        ShowCertificate(Files().expired);
        EXPECT_EQ(Refusal(peer->Name(), "it refused the client certificate: certificate expired"),
                  ChannelTo(*peer).Failure("abc"))
            << version;
    }
}

TEST_F(TlsClientTest, APortWithoutTls) {
    const auto peer = ServePlain([](PeerConnection& connection) {
        connection.Read(5);
        connection.Send(Frame("what a malformed command is answered with"));
        connection.WaitForClient();
    });
    EXPECT_EQ(Refusal(peer->Name(), "it does not speak TLS"), ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, RandomBytesAreNoTls) {
    const auto peer = ServePlain([](PeerConnection& connection) {
        connection.Send(std::string(100, '\xA5'));
        connection.WaitForClient();
    });
    EXPECT_EQ(Refusal(peer->Name(), "it does not speak TLS"), ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, TheHostHangsUpInTheHandshake) {
    const auto peer = ServePlain([](PeerConnection& connection) { connection.Read(4096); });
    EXPECT_EQ(Refusal(peer->Name(), "it closed the connection during the handshake"),
              ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, TheHostResetsTheConnectionInTheHandshake) {
    const auto peer = ServePlain([](PeerConnection& connection) {
        connection.Read(1);
        connection.Reset();
    });
    EXPECT_EQ(Refusal(peer->Name(), "Connection reset by peer"), ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, TheConnectDeadlineCoversTheHandshake) {
    Set("QUORVALEN_NETWORK_CONNECT_TIMEOUT", "0.3");
    const auto peer = ServePlain(Silence);
    EXPECT_EQ(kPrefix + std::string("104. \nThe deadline of ") + peer->Name() +
                  " was missed after 0.3 s (phase: TLS handshake)",
              ChannelTo(*peer).Failure("abc"));
}

TEST_F(TlsClientTest, HalfAnIdentityIsRefused) {
    const std::string begin = kPrefix + std::string("101. \nNo command is sent to 127.0.0.1:9: ");
    const EnvironmentVariable ca("QUORVALEN_TLS_CA_FILE", Files().ca);
    {
        const EnvironmentVariable file("QUORVALEN_TLS_CERTIFICATE_FILE",
                                       Files().client.certificate);
        EXPECT_EQ(begin +
                      "QUORVALEN_TLS_CERTIFICATE_FILE is set without QUORVALEN_TLS_KEY_FILE, "
                      "expected both or none",
                  FailureWithoutServer());
    }
    const EnvironmentVariable file("QUORVALEN_TLS_KEY_FILE", Files().client.key);
    EXPECT_EQ(begin +
                  "QUORVALEN_TLS_KEY_FILE is set without QUORVALEN_TLS_CERTIFICATE_FILE, "
                  "expected both or none",
              FailureWithoutServer());
}

TEST_F(TlsClientTest, EmptySettingsAreRefused) {
    for (const auto& [variable, expected] :
         {std::pair("QUORVALEN_TLS_CA_FILE", "the name of a PEM file"),
          std::pair("QUORVALEN_TLS_CERTIFICATE_FILE", "the name of a PEM file"),
          std::pair("QUORVALEN_TLS_KEY_FILE", "the name of a PEM file"),
          std::pair("QUORVALEN_TLS_SERVER_NAME", "a host name or an address")}) {
        const EnvironmentVariable empty(variable, "");
        EXPECT_EQ(kPrefix + std::string("101. \nNo command is sent to 127.0.0.1:9: ") + variable +
                      " is \"\", expected " + expected,
                  FailureWithoutServer());
    }
}

TEST_F(TlsClientTest, FilesThatCannotBeRead) {
    const std::string missing = Directory() + "missing.pem";
    const std::string why = "No such file or directory";
    {
        const EnvironmentVariable ca("QUORVALEN_TLS_CA_FILE", missing);
        EXPECT_EQ(Unusable(missing, "QUORVALEN_TLS_CA_FILE", why), FailureWithoutServer());
    }
    ShowCertificate({missing, Files().client.key});
    EXPECT_EQ(Unusable(missing, "QUORVALEN_TLS_CERTIFICATE_FILE", why), FailureWithoutServer());
    ShowCertificate({Files().client.certificate, missing});
    EXPECT_EQ(Unusable(missing, "QUORVALEN_TLS_KEY_FILE", why), FailureWithoutServer());
    ShowCertificate({Files().client.certificate, Directory()});
    EXPECT_EQ(Unusable(Directory(), "QUORVALEN_TLS_KEY_FILE", "Is a directory"),
              FailureWithoutServer());
}

TEST_F(TlsClientTest, FilesWithoutWhatTheyAreFor) {
    const std::string scrap = Scrap();
    {
        const EnvironmentVariable ca("QUORVALEN_TLS_CA_FILE", scrap);
        EXPECT_EQ(Unusable(scrap, "QUORVALEN_TLS_CA_FILE", "there is no certificate in it"),
                  FailureWithoutServer());
    }
    ShowCertificate({scrap, Files().client.key});
    EXPECT_EQ(Unusable(scrap, "QUORVALEN_TLS_CERTIFICATE_FILE", "there is no certificate in it"),
              FailureWithoutServer());
    ShowCertificate({Files().client.certificate, scrap});
    EXPECT_EQ(Unusable(scrap, "QUORVALEN_TLS_KEY_FILE", "there is no private key in it"),
              FailureWithoutServer());
}

TEST_F(TlsClientTest, AKeyThatIsNotThatOfTheCertificate) {
    ShowCertificate({Files().client.certificate, Files().server.key});
    EXPECT_EQ(Unusable(Files().server.key, "QUORVALEN_TLS_KEY_FILE",
                       "the private key in it is not that of the certificate"),
              FailureWithoutServer());
}

TEST_F(TlsClientTest, NobodyIsAskedForThePassPhraseOfAKey) {
    const std::string file = Directory() + "encrypted.key";
    ASSERT_EQ(
        0, std::system((std::string(OPENSSL_PROGRAM) + " pkey -aes128 -passout pass:secret -in '" +
                        Files().client.key + "' -out '" + file + "'")
                           .c_str()));
    ShowCertificate({Files().client.certificate, file});
    EXPECT_EQ(Unusable(file, "QUORVALEN_TLS_KEY_FILE", "the private key in it is encrypted"),
              FailureWithoutServer());
}

TEST_F(TlsClientTest, UnusableFilesAreReadAgainUntilTheyAreGood) {
    const auto peer = ServeAs(Files().server);
    const Channel channel = ChannelTo(*peer);
    {
        const EnvironmentVariable ca("QUORVALEN_TLS_CA_FILE", Directory() + "missing.pem");
        for (int i = 0; i < 3; ++i) EXPECT_NE("no exception", channel.Failure("abc"));
    }
    EXPECT_EQ("abc", channel.Exchange("abc"));
}

}  // namespace
