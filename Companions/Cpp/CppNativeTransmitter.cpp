#include "CppNativeTransmitter.h"

#include <utility>

#include "Native/Definitions/CommandHeader.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"

namespace Quorvalen::CppBridge {
namespace {

namespace Messages = Quorvalen::Native::Messages;
using Quorvalen::Native::Definitions::CommandHeader::kLength;
using Quorvalen::Native::Interfaces::ITransport;

thread_local std::shared_ptr<ITransport> channelOfThread;

}  // namespace

CppNativeTransmitter::CppNativeTransmitter(
    Quorvalen::Native::Definitions::RuntimeOperationMode mode)
    : NativeTransmitter(mode) {}

// The channel becomes the thread's after the command: until then nested commands of this thread
// choose theirs, and the response that is read next is this one's.
int CppNativeTransmitter::SendCommand(unsigned char* message, int length) {
    if (length < kLength) {
        throw QuorvalenNativeException(Messages::MessageTooShort(kLength),
                                       Messages::kUnknownRuntime);
    }
    std::shared_ptr<ITransport> channel = Route(message);
    const int responseLength = channel->SendCommand(message, length);
    channelOfThread = std::move(channel);
    return responseLength;
}

int CppNativeTransmitter::ReadResponse(unsigned char* buffer, int length) {
    if (channelOfThread == nullptr) {
        throw QuorvalenNativeException(Messages::kNoCurrentChannel, Messages::kUnknownRuntime);
    }
    return channelOfThread->ReadResponse(buffer, length);
}

void CppNativeTransmitter::SetTransportChannel(ITransport* channel) {
    channelOfThread = std::shared_ptr<ITransport>(channel);
}

int CppNativeTransmitter::SetEmbeddedRuntime(unsigned char callingRuntime,
                                             unsigned char targetRuntime, unsigned char version,
                                             std::string path) {
    channelOfThread = InMemory();
    return channelOfThread->SetEmbeddedRuntime(callingRuntime, targetRuntime, version,
                                               std::move(path));
}

int CppNativeTransmitter::DeployRuntime(unsigned char* message, int length, std::string path,
                                        unsigned char flag) {
    channelOfThread = Route(message);
    return channelOfThread->DeployRuntime(message, length, std::move(path), flag);
}

std::shared_ptr<ITransport> CppNativeTransmitter::Route(unsigned char* message) {
    const std::lock_guard<std::mutex> lock(routing);
    InitializeTransportChannel(message);
    return currentChannel;
}

std::shared_ptr<ITransport> CppNativeTransmitter::InMemory() {
    const std::lock_guard<std::mutex> lock(routing);
    return CreateInMemoryTransportChannel();
}

}  // namespace Quorvalen::CppBridge
