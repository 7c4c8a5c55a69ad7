// Every text that a failure of the bridge can carry, one named entry per failure. Texts are part of
// the interface: hosts and support staff search for them, so a blank is never "tidied up".
#pragma once

#include <string>

namespace Quorvalen::Native::Messages {

// The runtime name that the core gives with every exception it raises.
inline constexpr const char* kUnknownRuntime = "Unknown";

// --- The native core ---------------------------------------------------------------------------

inline std::string LibraryNotLoaded(const std::string& path, const std::string& reason) {
    return "Quorvalen Native Exception: Exception code 001. \nCannot load: " + path +
           ". \nError: " + reason;
}
inline constexpr const char* kFileNotFound = "File not found.";

inline std::string OwnPathUnknown(const std::string& reason) {
    return "Quorvalen Native Exception: Exception code 002. \nError: " + reason;
}

// By design: the word "Utils" stands although the function is sought in the configuration library.
inline std::string ConfigFunctionNotFound(const std::string& function) {
    return function + " function not found in Utils library";
}

inline std::string MessageTooShort(int minimumLength) {
    return "Message byte array length is less than " + std::to_string(minimumLength);
}

inline constexpr const char* kNoClientFactory =
    "Quorvalen Native Exception: Exception code 011. \nReinstall Quorvalen package";
inline constexpr const char* kClientFactoryReturnedNull =
    "Quorvalen Native Exception: Exception code 012. \nReinstall Quorvalen package";
inline constexpr const char* kNoActiveChannel =
    "Quorvalen Native Exception: Exception code 013. \nReinstall Quorvalen package";
inline constexpr const char* kNoCreateReceiverInCalledRuntime =
    "Quorvalen Native Exception: Exception code 014. \nReinstall Quorvalen package";
inline constexpr const char* kNoReceiverFromCalledRuntime =
    "Quorvalen Native Exception: Exception code 015. \nReinstall Quorvalen package";
inline constexpr const char* kNoCreateTransmitter =
    "Quorvalen Native Exception: Exception code 016. \nReinstall Quorvalen package";
inline constexpr const char* kNoCreateReceiverInCallingRuntime =
    "Quorvalen Native Exception: Exception code 017. \nReinstall Quorvalen package";
inline constexpr const char* kNoReceiverFromCallingRuntime =
    "Quorvalen Native Exception: Exception code 018. \nReinstall Quorvalen package";
inline constexpr const char* kUnknownConnectionType =
    "Quorvalen Native Exception: Exception code 023.";
inline constexpr const char* kReceiverModeNotSet =
    "Quorvalen Native Exception: Exception code 031. \nRuntime not initialized";
inline constexpr const char* kPythonReceiverModeNotSet =
    "Quorvalen Native Exception: Exception code 032. \nRuntime not initialized";

// Calls that have nobody to go to: each says what is missing and what to call first.
inline constexpr const char* kNoTransmitter =
    "Quorvalen Native Exception: No transmitter exists in this process. \n"
    "Call CreateTransmitter or SendCommand before ReadResponse";
inline constexpr const char* kNoCurrentChannel =
    "Quorvalen Native Exception: No command has chosen a transport channel yet. \n"
    "Call SendCommand before ReadResponse";
inline constexpr const char* kNetworkChannelNotInitialized =
    "Quorvalen Native Exception: The network channel has no connection yet. \n"
    "Call Initialize before SendCommand or ReadResponse";
inline constexpr const char* kNoMessage =
    "Quorvalen Native Exception: The message is a null pointer. \n"
    "Pass the bytes of a command";
inline std::string NobodyInMemory(const std::string& object, const std::string& runtime, int id) {
    return "Quorvalen Native Exception: No " + object + " of runtime " + runtime + " (" +
           std::to_string(id) + ") is set up in this process. \n" +
           "Send a command to this runtime over the in-memory channel first";
}

// --- The Python launcher -----------------------------------------------------------------------

inline std::string ReceiverFileNotFound(const std::string& file) {
    return "Python Launcher: Exception code 001. \nCannot find file: " + file +
           ". \nReinstall Quorvalen package.";
}
inline constexpr const char* kPythonNotOpened =
    "Python Launcher: Exception code 002. \n"
    "Cannot find Python installed on this machine. \n"
    "Install Python from https://www.python.org/downloads/. \n";
inline constexpr const char* kPythonFunctionMissing =
    "Python Launcher: Exception code 003. \n"
    "Cannot load functions from shared library. Reinstall Quorvalen package";
inline constexpr const char* kRuntimeNotInitialized =
    "Python Launcher: Exception code 004. \n"
    "Runtime cannot be initialized. Reinstall Quorvalen package";
inline std::string SearchPathNotExtended(const std::string& directory) {
    return "Python Launcher: Exception code 005. \nCannot add this path to sys.path: " + directory;
}
inline constexpr const char* kPythonNotFound =
    "Python Launcher: Exception code 006. \n"
    "Cannot find Python installed on this machine. \n"
    "Install Python3 (on windows) or libpython3-dev (on linux or macOS)";
inline constexpr const char* kModuleNameNotDecoded =
    "Python Launcher: Exception code 011. Reinstall Quorvalen package";
inline constexpr const char* kModuleNotImported =
    "Python Launcher: Exception code 012. Reinstall Quorvalen package";
inline constexpr const char* kModuleWithoutDictionary =
    "Python Launcher: Exception code 013. Reinstall Quorvalen package";
inline constexpr const char* kNoReceiverClass =
    "Python Launcher: Exception code 014. Reinstall Quorvalen package";
// By design: no point after the code, and a newline at the end.
inline constexpr const char* kReceiverClassNotCallable =
    "Python Launcher: Exception code 015 Reinstall Quorvalen package\n";
inline constexpr const char* kNoHeartBeat =
    "Python Launcher: Exception code 017. Reinstall Quorvalen package";
inline constexpr const char* kNoSendCommand =
    "Python Launcher: Exception code 018. Reinstall Quorvalen package";
inline constexpr const char* kNoExceptionHandlerInitializer =
    "Python Launcher: Exception code 019. Reinstall Quorvalen package";

inline constexpr const char* kArgumentsNotBuilt =
    "Python Launcher: Failed to build arguments for method call";
// By design: codes 017 and 018 are used a second time, for a command.
inline constexpr const char* kCommandFailed =
    "Python Launcher: Exception code 017. \nFailed to process command";
inline constexpr const char* kCallbackFailed =
    "Python Launcher: Exception code 018. \nFailed to process command in calling runtime mode";
// By design: no blank before the newline.
inline constexpr const char* kNoPendingResponse =
    "Python Launcher: Exception code 020.\nError while reading response";

inline std::string ResultIsNoByteArray(const std::string& function) {
    return "Python Launcher: Failed to read the result of a method call. \n\"" + function +
           "\" must return a bytearray";
}
inline constexpr const char* kNoCallback =
    "Python Launcher: No callback is registered for commands to the calling runtime. \n"
    "Call SetCallback before the first command of the process";
inline constexpr const char* kLockHeldByFailedStart =
    "Python Launcher: The interpreter cannot be started on this thread, because an earlier start "
    "failed on another thread, which still holds the interpreter lock. \n"
    "Initialize again on the thread of the failed start";

}  // namespace Quorvalen::Native::Messages
