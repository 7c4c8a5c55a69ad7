// The called side of a bridge, on top of the one launcher that hosts its runtime: starts it once,
// forwards commands, reports exception responses to telemetry. A derived class supplies the
// launcher.
//
// Takes no lock. One thread performs the first Initialize; commands may then come from any thread.
#pragma once

#include <memory>
#include <string>

#include "Native/Definitions/Export.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/ILauncher.h"
#include "Native/Interfaces/IReceiver.h"

namespace Quorvalen::Native::Receiver {

class QUORVALEN_EXPORT NativeReceiver : public Interfaces::IReceiver {
  public:
    NativeReceiver(Definitions::RuntimeOperationMode mode);
    ~NativeReceiver() override;

    int SetConfigSource(std::string source) override;
    int Initialize(unsigned char callingRuntime, unsigned char targetRuntime,
                   unsigned char runtimeVersion) override;
    int SendCommand(unsigned char* message, int length) override;
    int ReadResponse(unsigned char* buffer, int length) override;
    void LogException(unsigned char* response, int length) override;
    int LoadOptimizedMethod(std::string method) override;
    int SetEmbeddedRuntime(unsigned char version, std::string path) override;
    int DeployRuntime(unsigned char* message, int length, std::string path,
                      unsigned char flag) override;

  protected:
    static constexpr unsigned char kRuntimeNotSet = 0xFF;

    unsigned char callingRuntime;
    unsigned char targetRuntime;
    bool runtimeInfoShown;
    std::unique_ptr<Interfaces::ILauncher> launcher;
    Definitions::RuntimeOperationMode operationMode;

  private:
    void ReportInitialization();
    void ShowRuntimeInfoOnce();
};

}  // namespace Quorvalen::Native::Receiver
