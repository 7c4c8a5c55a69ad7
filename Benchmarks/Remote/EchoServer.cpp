// The other end of every connection that the network companions are compared with. Answers each
// message with itself until its standard input ends.
//
//   echo-server tcp|tls|zeromq|grpc|grpc-tls CERTIFICATE KEY
//
// Prints the port that it listens to in one line, on the loopback address.
#include <grpcpp/grpcpp.h>
#include <unistd.h>
#include <zmq.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "Benchmarks/Remote/Echo.grpc.pb.h"
#include "Benchmarks/Remote/Stream.h"

using namespace Benchmarks;

namespace {

struct Files {
    std::string certificate;
    std::string key;
};

void TellPort(unsigned int port) {
    std::printf("%u\n", port);
    std::fflush(stdout);
}

// --- Bare sockets --------------------------------------------------------------------------------

void Echo(Stream& stream) {
    std::vector<unsigned char> frame(1 << 17);
    while (const std::size_t length = ReadFrame(stream, frame)) {
        if (!WriteAll(stream, std::span(frame).first(length))) return;
    }
}

void ServeTcp(const Files&) {
    const Listener listener;
    TellPort(listener.Port());
    while (true) Echo(*PlainStream(listener.Accept()));
}

void ServeTls(const Files& files) {
    const TlsContext context = ServerContext(files.certificate, files.key);
    const Listener listener;
    TellPort(listener.Port());
    while (true) Echo(*AcceptTls(listener.Accept(), *context));
}

// --- ZeroMQ --------------------------------------------------------------------------------------

void ServeZeroMq(const Files&) {
    void* socket = zmq_socket(zmq_ctx_new(), ZMQ_REP);
    if (zmq_bind(socket, "tcp://127.0.0.1:*") != 0) throw std::runtime_error(zmq_strerror(errno));
    std::array<char, 256> endpoint = {};
    std::size_t length = endpoint.size();
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint.data(), &length);
    const std::string name = endpoint.data();
    TellPort(static_cast<unsigned int>(std::stoul(name.substr(name.rfind(':') + 1))));
    while (true) {
        zmq_msg_t message;
        zmq_msg_init(&message);
        if (zmq_msg_recv(&message, socket, 0) < 0 || zmq_msg_send(&message, socket, 0) < 0) {
            throw std::runtime_error(zmq_strerror(errno));
        }
    }
}

// --- gRPC ----------------------------------------------------------------------------------------

class EchoService : public quorvalen::benchmarks::Echo::Service {
    grpc::Status Ask(grpc::ServerContext*, const quorvalen::benchmarks::Frame* request,
                     quorvalen::benchmarks::Frame* response) override {
        response->set_content(request->content());
        return grpc::Status::OK;
    }
};

std::string ContentsOf(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ServeGrpcWith(const std::shared_ptr<grpc::ServerCredentials>& credentials) {
    EchoService service;
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", credentials, &port);
    builder.RegisterService(&service);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (!server) throw std::runtime_error("the gRPC server did not start");
    TellPort(static_cast<unsigned int>(port));
    server->Wait();
}

void ServeGrpc(const Files&) {
    ServeGrpcWith(grpc::InsecureServerCredentials());
}

void ServeGrpcTls(const Files& files) {
    grpc::SslServerCredentialsOptions options;
    options.pem_key_cert_pairs.push_back({ContentsOf(files.key), ContentsOf(files.certificate)});
    ServeGrpcWith(grpc::SslServerCredentials(options));
}

// --- The program ---------------------------------------------------------------------------------

// Whoever started this program holds the other end, and is gone when it closes.
void EndWithStandardInput() {
    std::thread([] {
        std::array<char, 64> ignored = {};
        while (read(STDIN_FILENO, ignored.data(), ignored.size()) > 0) {
        }
        std::_Exit(0);
    }).detach();
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(const Files&)> kinds = {{"tcp", ServeTcp},
                                                                 {"tls", ServeTls},
                                                                 {"zeromq", ServeZeroMq},
                                                                 {"grpc", ServeGrpc},
                                                                 {"grpc-tls", ServeGrpcTls}};
    const auto kind = argc == 4 ? kinds.find(argv[1]) : kinds.end();
    if (kind == kinds.end()) {
        std::fprintf(stderr, "usage: echo-server tcp|tls|zeromq|grpc|grpc-tls CERTIFICATE KEY\n");
        return 2;
    }
    try {
        EndWithStandardInput();
        kind->second({argv[2], argv[3]});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "echo-server: %s\n", error.what());
        return 1;
    }
}
