#include "Tests/Companions/Network/Certificates.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace NetworkTests {
namespace {

namespace fs = std::filesystem;
using Arguments = std::vector<std::string>;

// Elliptic curves: an RSA key takes longer to make than most tests run.
const Arguments kNewKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"};
constexpr const char* kHere = "IP:127.0.0.1,DNS:localhost";
constexpr const char* kElsewhere = "IP:127.0.0.99,DNS:elsewhere.test";

Arguments operator+(Arguments left, const Arguments& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// What openssl needs to sign with dates of our choice, which only its command `ca` can.
constexpr const char* kSigning = R"([ca]
default_ca = ours
[ours]
database = $ENV::QUORVALEN_TEST_DIRECTORY/index.txt
new_certs_dir = $ENV::QUORVALEN_TEST_DIRECTORY
rand_serial = yes
unique_subject = no
default_md = sha256
policy = any
copy_extensions = copy
[any]
commonName = supplied
)";

class Maker {
  public:
    explicit Maker(const fs::path& folder) : directory(folder.string() + "/") {
        std::ofstream(directory + "signing.conf") << kSigning;
        std::ofstream(directory + "index.txt").flush();
    }

    std::string Authority(const std::string& name) {
        OpenSsl(Arguments{"req", "-x509"} + kNewKey +
                Arguments{"-keyout", Key(name), "-out", Pem(name), "-days", "2", "-subj",
                          "/CN=" + name});
        return Pem(name);
    }

    Identity Signed(const std::string& name, const std::string& authority, const char* names) {
        OpenSsl(Arguments{"req", "-x509"} + kNewKey +
                Arguments{"-keyout", Key(name), "-out", Pem(name), "-days", "2", "-subj",
                          "/CN=" + name, "-CA", Pem(authority), "-CAkey", Key(authority), "-addext",
                          std::string("subjectAltName=") + names, "-addext",
                          "basicConstraints=critical,CA:FALSE"});
        return {Pem(name), Key(name)};
    }

    // `from` and `to` as YYYYMMDDHHMMSSZ.
    Identity Dated(const std::string& name, const std::string& authority, const char* from,
                   const char* to) {
        const std::string request = directory + name + ".csr";
        OpenSsl(Arguments{"req", "-new"} + kNewKey +
                Arguments{"-keyout", Key(name), "-out", request, "-subj", "/CN=" + name, "-addext",
                          std::string("subjectAltName=") + kHere});
        OpenSsl({"ca", "-batch", "-notext", "-config", directory + "signing.conf", "-cert",
                 Pem(authority), "-keyfile", Key(authority), "-startdate", from, "-enddate", to,
                 "-in", request, "-out", Pem(name)});
        return {Pem(name), Key(name)};
    }

  private:
    std::string Pem(const std::string& name) const { return directory + name + ".pem"; }
    std::string Key(const std::string& name) const { return directory + name + ".key"; }

    void OpenSsl(Arguments arguments);

    const std::string directory;
};

void Maker::OpenSsl(Arguments arguments) {
    std::string program = OPENSSL_PROGRAM;
    std::vector<char*> argv{program.data()};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::string variable = "QUORVALEN_TEST_DIRECTORY=" + directory;
    char* environment[] = {variable.data(), nullptr};
    const std::string log = directory + "openssl.log";

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t child = 0;
    const int error =
        posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environment);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    if (error == 0) waitpid(child, &status, 0);
    if (status == 0) return;
    std::ifstream written(log);
    throw std::runtime_error(program + " " + arguments.front() + " failed: " +
                             std::string(std::istreambuf_iterator<char>(written), {}));
}

}  // namespace

Certificates::Certificates(const fs::path& directory) {
    Maker maker(directory);
    ca = maker.Authority("ca");
    otherCa = maker.Authority("other-ca");
    server = maker.Signed("server", "ca", kHere);
    untrustedServer = maker.Signed("untrusted-server", "other-ca", kHere);
    expired = maker.Dated("expired", "ca", "20200101000000Z", "20200201000000Z");
    notYetValid = maker.Dated("not-yet-valid", "ca", "20900101000000Z", "20910101000000Z");
    wrongName = maker.Signed("wrong-name", "ca", kElsewhere);
    nameAsSubject = maker.Signed("localhost", "ca", "email:nobody@elsewhere.test");
    client = maker.Signed("client", "ca", "DNS:client.test");
    untrustedClient = maker.Signed("untrusted-client", "other-ca", "DNS:client.test");
}

}  // namespace NetworkTests
