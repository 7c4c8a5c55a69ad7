#include "Native/AppInsightLogger/AppInsightLogger.h"

#include <atomic>

#include "Native/Definitions/SymbolLookup.h"
#include "Native/LibrariesFinder/LibrariesFinder.h"

namespace Quorvalen::Native::AppInsightLogger {

void* AppInsightLogger::utilsLibraryInstance = nullptr;
AppInsightLogger::LogMessageFunction AppInsightLogger::LogMessage_Fn = nullptr;

int AppInsightLogger::initialize() {
    const std::atomic_ref<void*> library(utilsLibraryInstance);
    if (library.load() == nullptr) {
        library.store(LibrariesFinder::LibrariesFinder::loadUtilsLibrary(false));
    }
    if (library.load() == nullptr) return 1;

    const std::atomic_ref<LogMessageFunction> function(LogMessage_Fn);
    if (function.load() == nullptr) {
        function.store(Definitions::LookUpSymbol<LogMessageFunction>(library.load(), "LogMessage"));
    }
    return 0;
}

int AppInsightLogger::LogMessage(std::string event, std::string text, std::string runtime) {
    initialize();
    if (const LogMessageFunction log = std::atomic_ref<LogMessageFunction>(LogMessage_Fn).load()) {
        log(event.c_str(), text.c_str(), runtime.c_str());
    }
    return 0;
}

}  // namespace Quorvalen::Native::AppInsightLogger
