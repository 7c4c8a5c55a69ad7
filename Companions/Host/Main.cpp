// quorvalen-host: executes commands that come over the network, in a Python inside this process.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "Companions/Host/CommandLine.h"
#include "Companions/Host/Runtime.h"
#include "Companions/Host/Server.h"

namespace {

using namespace Quorvalen::Companions::Network::Host;

void SetUpLog(const Settings& settings) {
    spdlog::set_default_logger(spdlog::stderr_logger_mt("quorvalen-host"));
    spdlog::set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %v");
    spdlog::set_level(spdlog::level::from_str(settings.logLevel));
}

int Fail(int status, const std::exception& error) {
    std::cerr << "quorvalen-host: " << error.what() << '\n';
    return status;
}

int Run(const Settings& settings) {
    try {
        Server server(settings);
        const Runtime runtime(settings);
        server.Run(runtime);
        return EXIT_SUCCESS;
    } catch (const TlsFileError& error) {
        return Fail(kWrongUsage, error);
    } catch (const std::exception& error) {
        return Fail(EXIT_FAILURE, error);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    int status = 0;
    if (!ReadCommandLine(argc, argv, settings, status)) return status;
    SetUpLog(settings);
    // A client that goes away is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    return Run(settings);
}
