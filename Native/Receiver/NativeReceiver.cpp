#include "Native/Receiver/NativeReceiver.h"

#include <utility>

#include "Native/AppInsightLogger/AppInsightLogger.h"
#include "Native/ConfigHandler/ConfigHandler.h"
#include "Native/Console/Console.h"
#include "Native/Definitions/CommandHeader.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Native/RuntimeNameHandler/RuntimeNameHandler.h"

namespace Quorvalen::Native::Receiver {
namespace {

using AppInsightLogger::AppInsightLogger;
using ConfigHandler::ConfigHandler;
using Definitions::RuntimeOperationMode;
using RuntimeNameHandler::RuntimeNameHandler;

bool IsExceptionResponse(const unsigned char* response, int length) {
    return length > Definitions::CommandHeader::kKind &&
           response[Definitions::CommandHeader::kKind] == Definitions::kExceptionResponse;
}

// Telemetry takes one line of text; whatever is not printable ASCII becomes a blank.
std::string PrintableText(const unsigned char* bytes, int length) {
    std::string text;
    for (int i = 0; i < length; ++i) {
        text += bytes[i] >= 32 && bytes[i] <= 126 ? static_cast<char>(bytes[i]) : ' ';
    }
    return text;
}

}  // namespace

NativeReceiver::NativeReceiver(RuntimeOperationMode mode)
    : callingRuntime(kRuntimeNotSet),
      targetRuntime(kRuntimeNotSet),
      runtimeInfoShown(false),
      operationMode(mode) {}

NativeReceiver::~NativeReceiver() = default;

int NativeReceiver::SetConfigSource(std::string source) {
    return ConfigHandler::SetConfigSource(source);
}

int NativeReceiver::Initialize(unsigned char calling, unsigned char target,
                               unsigned char runtimeVersion) {
    if (operationMode == RuntimeOperationMode::NotSet) {
        throw QuorvalenNativeException(Messages::kReceiverModeNotSet, Messages::kUnknownRuntime);
    }
    if (launcher->IsInitialized()) return 0;
    callingRuntime = calling;
    targetRuntime = target;
    launcher->Initialize(runtimeVersion);
    launcher->SetInitialized();
    if (operationMode != RuntimeOperationMode::CalledRuntime) return 0;
    ReportInitialization();
    ShowRuntimeInfoOnce();
    return 0;
}

void NativeReceiver::ReportInitialization() {
    AppInsightLogger::LogMessage("Native message",
                                 RuntimeNameHandler::GetRuntimeName(targetRuntime) + " initialized",
                                 RuntimeNameHandler::GetRuntimeName(callingRuntime));
}

void NativeReceiver::ShowRuntimeInfoOnce() {
    const int level = ConfigHandler::GetLoggingLevel();
    if (runtimeInfoShown || level == 0) return;
    Console::WriteLine(launcher->GetRuntimeInfo());
    runtimeInfoShown = true;
}

int NativeReceiver::SendCommand(unsigned char* message, int length) {
    return launcher->SendCommand(message, length);
}

int NativeReceiver::ReadResponse(unsigned char* buffer, int length) {
    const int result = launcher->ReadResponse(buffer, length);
    if (IsExceptionResponse(buffer, length)) LogException(buffer, length);
    return result;
}

void NativeReceiver::LogException(unsigned char* response, int length) {
    AppInsightLogger::LogMessage(RuntimeNameHandler::GetRuntimeName(targetRuntime) + " exception",
                                 PrintableText(response, length),
                                 RuntimeNameHandler::GetRuntimeName(callingRuntime));
}

int NativeReceiver::LoadOptimizedMethod(std::string method) {
    return launcher->LoadOptimizedMethod(std::move(method));
}

int NativeReceiver::SetEmbeddedRuntime(unsigned char version, std::string path) {
    return launcher->SetPath(version, std::move(path));
}

int NativeReceiver::DeployRuntime(unsigned char* message, int length, std::string path,
                                  unsigned char flag) {
    return launcher->DeployRuntime(message, length, std::move(path), flag);
}

}  // namespace Quorvalen::Native::Receiver
