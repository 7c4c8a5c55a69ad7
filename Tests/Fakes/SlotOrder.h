// The framework's interfaces once more, written down apart from the product's headers: fakes are
// built from these, so a slot that moves in the product meets the wrong function here and a test
// fails.
#pragma once

#include <string>

namespace SlotOrder {

class ITransport {
  public:
    virtual ~ITransport() = default;
    virtual int Initialize(unsigned char, unsigned char, unsigned char) = 0;
    virtual int SendCommand(unsigned char*, int) = 0;
    virtual int ReadResponse(unsigned char*, int) = 0;
    virtual int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) = 0;
    virtual int DeployRuntime(unsigned char*, int, std::string, unsigned char) = 0;
};

class ITransmitter {
  public:
    virtual ~ITransmitter() = default;
    virtual int SendCommand(unsigned char*, int) = 0;
    virtual int ReadResponse(unsigned char*, int) = 0;
    virtual void SetTransportChannel(ITransport*) = 0;
    virtual int SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char, std::string) = 0;
    virtual int DeployRuntime(unsigned char*, int, std::string, unsigned char) = 0;
};

class IReceiver {
  public:
    virtual ~IReceiver() = default;
    virtual int SetConfigSource(std::string) = 0;
    virtual int Initialize(unsigned char, unsigned char, unsigned char) = 0;
    virtual int SendCommand(unsigned char*, int) = 0;
    virtual int ReadResponse(unsigned char*, int) = 0;
    virtual void LogException(unsigned char*, int) = 0;
    virtual int LoadOptimizedMethod(std::string) = 0;
    virtual int SetEmbeddedRuntime(unsigned char, std::string) = 0;
    virtual int DeployRuntime(unsigned char*, int, std::string, unsigned char) = 0;
};

class ILauncher {
  public:
    virtual ~ILauncher() = default;
    virtual int Initialize(unsigned char) = 0;
    virtual int SendCommand(unsigned char*, int) = 0;
    virtual int ReadResponse(unsigned char*, int) = 0;
    virtual int LoadOptimizedMethod(std::string) = 0;
    virtual int SetPath(unsigned char, std::string) = 0;
    virtual int DeployRuntime(unsigned char*, int, std::string, unsigned char) = 0;
    virtual bool IsInitialized() = 0;
    virtual void SetInitialized() = 0;
    virtual std::string GetRuntimeName() = 0;
    virtual std::string GetRuntimeInfo() = 0;
};

}  // namespace SlotOrder
