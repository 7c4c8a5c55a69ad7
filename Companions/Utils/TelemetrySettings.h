// Where telemetry goes, as the environment says it. Read once, when the first event arrives.

#ifndef QUORVALEN_COMPANIONS_TELEMETRYSETTINGS_H
#define QUORVALEN_COMPANIONS_TELEMETRYSETTINGS_H

#include <cstddef>
#include <string>

namespace Quorvalen::Companions {

struct TelemetrySettings {
    std::string file;  // absolute; empty: telemetry is off
    std::size_t maxBytes = std::size_t{10} * 1024 * 1024;
    std::string complaint;  // what was wrong with the environment; empty: nothing
};

// Not to be called while another thread changes the environment.
TelemetrySettings ReadTelemetrySettings();

}  // namespace Quorvalen::Companions

#endif
