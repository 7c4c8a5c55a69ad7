// The functions of spdlog that the host calls, compiled once for all of its sources, which see
// their declarations alone (SPDLOG_COMPILED_LIB). They are compiled in, so that spdlog does not
// have to be installed where the host runs.
#include <spdlog/common-inl.h>
#include <spdlog/details/backtracer-inl.h>
#include <spdlog/details/log_msg-inl.h>
#include <spdlog/details/log_msg_buffer-inl.h>
#include <spdlog/details/os-inl.h>
#include <spdlog/details/periodic_worker-inl.h>
#include <spdlog/details/registry-inl.h>
#include <spdlog/logger-inl.h>
#include <spdlog/pattern_formatter-inl.h>
#include <spdlog/sinks/ansicolor_sink-inl.h>
#include <spdlog/sinks/sink-inl.h>
#include <spdlog/sinks/stdout_sinks-inl.h>
#include <spdlog/spdlog-inl.h>

#include <memory>
#include <string>

// spdlog's own logger, until the host sets its own.
template class spdlog::sinks::ansicolor_stdout_sink<spdlog::details::console_mutex>;

template class spdlog::sinks::stdout_sink_base<spdlog::details::console_mutex>;
template class spdlog::sinks::stderr_sink<spdlog::details::console_mutex>;
template std::shared_ptr<spdlog::logger> spdlog::stderr_logger_mt<spdlog::synchronous_factory>(
    const std::string&);
