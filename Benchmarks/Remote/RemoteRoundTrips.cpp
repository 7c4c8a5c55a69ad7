// Times the round trip of a command over loopback connections of several kinds, which take turns.
//
//   remote-round-trips CERTIFICATE NAME=PORT... -- [Google Benchmark's options]
//
// The names: tcp, tls (bare blocking sockets), zeromq, grpc, grpc-tls, each with an echo-server
// behind the port; client-tcp=PORT:LIBRARY and client-tls=PORT:LIBRARY, the client libraries of the
// companions with a quorvalen-host behind the port. A figure's name is <name>/<bytes>.
#include <benchmark/benchmark.h>
#include <grpcpp/grpcpp.h>
#include <zmq.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Benchmarks/Comparison.h"
#include "Benchmarks/Exchange.h"
#include "Benchmarks/Library.h"
#include "Benchmarks/Remote/Echo.grpc.pb.h"
#include "Benchmarks/Remote/Stream.h"
#include "Native/Interfaces/ITransport.h"

using namespace Benchmarks;
using Quorvalen::Native::Interfaces::ITransport;

namespace {

constexpr std::array<std::size_t, 2> kSizes = {64, 65536};
constexpr unsigned char kPython = 5;

// The echo that answers behind quorvalen-host keeps so many bytes of a command.
constexpr std::size_t kEchoed = 64;

struct Peer {
    unsigned short port = 0;
    std::string library;      // of a client library alone
    std::string certificate;  // trusted by all that speak TLS
};

using Ask = std::function<void(Exchange&)>;

// --- Bare sockets --------------------------------------------------------------------------------

// Nothing is copied but what has to be looked at.
Ask AskOver(std::shared_ptr<Stream> stream) {
    auto frame = std::make_shared<std::vector<unsigned char>>();
    auto answer = std::make_shared<std::vector<unsigned char>>(1 << 17);
    return [stream, frame, answer](Exchange& exchange) {
        const std::size_t length = kFramePrefix + exchange.command.size();
        if (frame->size() != length) *frame = FrameOf(exchange.command);
        if (!WriteAll(*stream, *frame) || ReadFrame(*stream, *answer) != length) {
            throw std::runtime_error("the echo server is gone");
        }
        std::copy_n(answer->begin() + kFramePrefix, kEchoed, exchange.response.begin());
    };
}

Ask ConnectBare(const Peer& peer) {
    return AskOver(PlainStream(Connect(peer.port)));
}

Ask ConnectBareTls(const Peer& peer) {
    const std::shared_ptr<SSL_CTX> context = ClientContext(peer.certificate);
    const std::shared_ptr<Stream> stream = ConnectTls(Connect(peer.port), *context);
    return [context, ask = AskOver(stream)](Exchange& exchange) { ask(exchange); };
}

// --- ZeroMQ --------------------------------------------------------------------------------------

Ask ConnectZeroMq(const Peer& peer) {
    void* socket = zmq_socket(zmq_ctx_new(), ZMQ_REQ);
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(peer.port);
    if (zmq_connect(socket, endpoint.c_str()) != 0) throw std::runtime_error(zmq_strerror(errno));
    return [socket](Exchange& exchange) {
        const int length = exchange.Length();
        if (zmq_send(socket, exchange.command.data(), exchange.command.size(), 0) != length ||
            zmq_recv(socket, exchange.response.data(), exchange.response.size(), 0) != length) {
            throw std::runtime_error(zmq_strerror(errno));
        }
    };
}

// --- gRPC ----------------------------------------------------------------------------------------

Ask ConnectGrpcWith(const Peer& peer, const std::shared_ptr<grpc::ChannelCredentials>& trust) {
    using Echo = quorvalen::benchmarks::Echo;
    const auto channel = grpc::CreateChannel("127.0.0.1:" + std::to_string(peer.port), trust);
    const std::shared_ptr<Echo::Stub> stub = Echo::NewStub(channel);
    return [stub](Exchange& exchange) {
        grpc::ClientContext context;
        quorvalen::benchmarks::Frame request;
        quorvalen::benchmarks::Frame response;
        request.set_content(exchange.command.data(), exchange.command.size());
        const grpc::Status status = stub->Ask(&context, request, &response);
        if (!status.ok()) throw std::runtime_error(status.error_message());
        std::copy(response.content().begin(), response.content().end(), exchange.response.begin());
    };
}

Ask ConnectGrpc(const Peer& peer) {
    return ConnectGrpcWith(peer, grpc::InsecureChannelCredentials());
}

Ask ConnectGrpcTls(const Peer& peer) {
    std::ifstream file(peer.certificate);
    grpc::SslCredentialsOptions options;
    options.pem_root_certs = {std::istreambuf_iterator<char>(file), {}};
    return ConnectGrpcWith(peer, grpc::SslCredentials(options));
}

// --- The companions ------------------------------------------------------------------------------

// The client library reads the certificate's name from the environment.
Ask ConnectClient(const Peer& peer) {
    using Factory = ITransport* (*)(const char*, unsigned short);
    const auto create = LookUp<Factory>(OpenLibrary(peer.library), "CreateTransportChannel");
    ITransport* channel = create("127.0.0.1", peer.port);
    if (channel == nullptr) throw std::runtime_error("no channel from " + peer.library);
    return [channel](Exchange& exchange) {
        const int length = channel->SendCommand(exchange.command.data(), exchange.Length());
        if (length != exchange.Length()) throw std::runtime_error("a response of another length");
        channel->ReadResponse(exchange.response.data(), length);
    };
}

const std::map<std::string, Ask (*)(const Peer&)> kKinds = {
    {"tcp", ConnectBare},         {"tls", ConnectBareTls},      {"zeromq", ConnectZeroMq},
    {"grpc", ConnectGrpc},        {"grpc-tls", ConnectGrpcTls}, {"client-tcp", ConnectClient},
    {"client-tls", ConnectClient}};

// --- Measuring -----------------------------------------------------------------------------------

void RequireEcho(const Exchange& exchange) {
    if (!std::equal(exchange.command.begin(), exchange.command.begin() + kEchoed,
                    exchange.response.begin())) {
        throw std::runtime_error("the response is not the command's echo");
    }
}

// Long enough that a peer is as warm as it is under steady use.
constexpr double kTurn = 0.01;

// Two threads in two processes take turns, so the wall clock counts. The first command of a turn
// wakes whoever slept while it was another's.
Contender MakeContender(const std::string& figure, const Ask& ask, std::size_t size) {
    auto exchange = std::make_shared<Exchange>(size, kPython);
    return {figure, [=](long times) {
                using Clock = std::chrono::steady_clock;
                ask(*exchange);
                const auto begin = Clock::now();
                for (; times > 0; --times) ask(*exchange);
                const std::chrono::duration<double> time = Clock::now() - begin;
                RequireEcho(*exchange);
                return time.count();
            }};
}

struct NamedAsk {
    std::string name;
    Ask ask;
};

NamedAsk ConnectTo(const std::string& argument, const std::string& certificate) {
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const auto kind = kKinds.find(name);
    if (kind == kKinds.end() || equals == std::string::npos) {
        throw std::invalid_argument("\"" + argument + "\" is no NAME=PORT of a known name");
    }
    const std::string where = argument.substr(equals + 1);
    const std::size_t colon = where.find(':');
    const std::string library = colon == std::string::npos ? "" : where.substr(colon + 1);
    const auto port = static_cast<unsigned short>(std::stoul(where));
    return {name, kind->second({port, library, certificate})};
}

void CompareSize(std::size_t size, const std::vector<NamedAsk>& peers) {
    const std::string bytes = std::to_string(size);
    std::vector<Contender> contenders;
    for (const NamedAsk& peer : peers) {
        contenders.push_back(MakeContender(peer.name + "/" + bytes, peer.ask, size));
    }
    Compare(bytes, contenders, kTurn);
}

int Run(int argc, char** argv) {
    const std::string certificate = argv[1];
    int next = 2;
    std::vector<NamedAsk> peers;
    for (; next < argc && std::string(argv[next]) != "--"; ++next) {
        peers.push_back(ConnectTo(argv[next], certificate));
    }
    for (const std::size_t size : kSizes) CompareSize(size, peers);
    int left = std::max(argc - next, 1);
    argv[next < argc ? next : 0] = argv[0];
    benchmark::Initialize(&left, argv + (next < argc ? next : 0));
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: remote-round-trips CERTIFICATE NAME=PORT... -- [options]\n");
        return 2;
    }
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "remote-round-trips: %s\n", error.what());
        return 1;
    }
}
