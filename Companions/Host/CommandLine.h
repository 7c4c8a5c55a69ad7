// The command line and the configuration file of quorvalen-host. Called once, on the main thread,
// before anything else is done.
#ifndef QUORVALEN_COMPANIONS_HOST_COMMANDLINE_H
#define QUORVALEN_COMPANIONS_HOST_COMMANDLINE_H

#include "Companions/Host/Settings.h"

namespace Quorvalen::Companions::Network::Host {

inline constexpr int kWrongUsage = 2;  // exit status

// Fills `settings` in. Returns false when the program is to end with `status` at once, because help
// was asked for or the command line is wrong; both have been shown.
bool ReadCommandLine(int argc, char** argv, Settings& settings, int& status);

}  // namespace Quorvalen::Companions::Network::Host

#endif
