// Hands telemetry events to the framework's utilities library. Nothing is formatted, buffered or
// sent here; without the utilities library, or without its function, every call does nothing and
// the library is looked for again at the next call. Any thread.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"

namespace Quorvalen::Native::AppInsightLogger {

class QUORVALEN_EXPORT AppInsightLogger {
  public:
    // Opens the utilities library and looks its function up, if not done yet. Returns 1 when there
    // is no library, else 0.
    static int initialize();

    // Passes the three texts on unchanged. Always returns 0.
    static int LogMessage(std::string event, std::string text, std::string runtime);

  private:
    using LogMessageFunction = void (*)(const char*, const char*, const char*);

    // Written with values that do not depend on the thread, without a lock; never reset.
    static void* utilsLibraryInstance;
    static LogMessageFunction LogMessage_Fn;
};

}  // namespace Quorvalen::Native::AppInsightLogger
