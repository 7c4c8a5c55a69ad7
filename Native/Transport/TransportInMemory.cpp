#include "Native/Transport/TransportInMemory.h"

#include <dlfcn.h>

#include <array>
#include <utility>

#include "Native/Console/Console.h"
#include "Native/Definitions/CommandHeader.h"
#include "Native/Definitions/Runtime.h"
#include "Native/Definitions/SymbolLookup.h"
#include "Native/LibrariesFinder/LibrariesFinder.h"
#include "Native/QuorvalenNativeException/Messages.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Native/RuntimeNameHandler/RuntimeNameHandler.h"

namespace Quorvalen::Native::Transport {
namespace {

namespace Header = Definitions::CommandHeader;
using Definitions::RuntimeOperationMode;
using Interfaces::IReceiver;
using Interfaces::ITransmitter;
using LibrariesFinder::LibrariesFinder;

constexpr unsigned char kNotSet = 100;  // no runtime has this id

using CreateReceiverFunction = IReceiver* (*)(RuntimeOperationMode);
using CreateTransmitterFunction = ITransmitter* (*)(RuntimeOperationMode);

QuorvalenNativeException Nobody(const char* object, int runtime) {
    const std::string name = RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(runtime);
    return QuorvalenNativeException(Messages::NobodyInMemory(object, name, runtime),
                                    Messages::kUnknownRuntime);
}

}  // namespace

std::mutex TransportInMemory::initializationMutex;

TransportInMemory::TransportInMemory()
    : callingRuntime(kNotSet), calledRuntime(kNotSet), passThroughByte(kNotSet) {
    for (int runtime = 0; runtime < Definitions::kRuntimeCount; ++runtime) {
        libraries[runtime] = nullptr;
        receivers[runtime] = nullptr;
        transmitters[runtime] = nullptr;
    }
}

// By design: the libraries are closed before the objects that they created are released; bridge
// libraries stay mapped once opened.
TransportInMemory::~TransportInMemory() {
    for (int runtime = 0; runtime < Definitions::kRuntimeCount; ++runtime) {
        void*& library = libraries[runtime];
        if (library != nullptr) dlclose(library);
        library = nullptr;
    }
}

int TransportInMemory::Initialize(unsigned char calling, unsigned char called,
                                  unsigned char passThrough) {
    const std::lock_guard<std::mutex> lock(initializationMutex);
    if (libraries[calling] != nullptr && libraries[called] != nullptr) return 0;
    callingRuntime = calling;
    calledRuntime = called;
    passThroughByte = passThrough;

    ImportCalledLibrary();
    CreateReceiverInCalledRuntime();
    CreateTransmitterInCalledRuntime();

    // By design: the called side works without the calling side, so that side's coded failures end
    // here.
    try {
        ImportCallingLibrary();
        CreateReceiverInCallingRuntime();
        CreateTransmitterInCallingRuntime();
    } catch (const QuorvalenNativeException&) {
    }
    return 0;
}

int TransportInMemory::SendCommand(unsigned char* command, int length) {
    return ReceiverOf(command[Header::kTargetRuntime]).SendCommand(command, length);
}

int TransportInMemory::ReadResponse(unsigned char* buffer, int length) {
    return ReceiverOf(buffer[Header::kTargetRuntime]).ReadResponse(buffer, length);
}

// By design: this goes to the called runtime's receiver, DeployRuntime to its transmitter.
int TransportInMemory::SetEmbeddedRuntime(unsigned char, unsigned char, unsigned char version,
                                          std::string path) {
    return ReceiverOf(calledRuntime).SetEmbeddedRuntime(version, std::move(path));
}

int TransportInMemory::DeployRuntime(unsigned char* message, int length, std::string path,
                                     unsigned char flag) {
    return TransmitterOf(calledRuntime).DeployRuntime(message, length, std::move(path), flag);
}

void TransportInMemory::ImportCalledLibrary() {
    void*& library = libraries[calledRuntime];
    if (library != nullptr) return;
    const std::string path = LibrariesFinder::getRuntimeLibraryPath(calledRuntime);
    // A PHP process carries definitions of its own that a bridge library must not pick up.
    const bool deepBind = callingRuntime == static_cast<int>(Definitions::Runtime::Php);
    library = deepBind ? LibrariesFinder::loadLibraryDeepBind(path, true, true)
                       : LibrariesFinder::loadLibrary(path, true, true);
}

void TransportInMemory::ImportCallingLibrary() {
    void*& library = libraries[callingRuntime];
    if (library != nullptr) return;
    library = LibrariesFinder::loadLibrary(LibrariesFinder::getRuntimeLibraryPath(callingRuntime),
                                           true, true);
}

TransportInMemory::Side TransportInMemory::CalledSide() const {
    return {calledRuntime, RuntimeOperationMode::CalledRuntime,
            Messages::kNoCreateReceiverInCalledRuntime, Messages::kNoReceiverFromCalledRuntime};
}

TransportInMemory::Side TransportInMemory::CallingSide() const {
    return {callingRuntime, RuntimeOperationMode::CallingRuntime,
            Messages::kNoCreateReceiverInCallingRuntime, Messages::kNoReceiverFromCallingRuntime};
}

void TransportInMemory::CreateReceiverInCalledRuntime() {
    CreateReceiver(CalledSide());
}

void TransportInMemory::CreateReceiverInCallingRuntime() {
    CreateReceiver(CallingSide());
}

void TransportInMemory::CreateTransmitterInCalledRuntime() {
    CreateTransmitter(CalledSide());
}

void TransportInMemory::CreateTransmitterInCallingRuntime() {
    CreateTransmitter(CallingSide());
}

void TransportInMemory::CreateReceiver(const Side& side) {
    std::shared_ptr<IReceiver>& receiver = receivers[side.runtime];
    if (receiver != nullptr) return;
    const auto create = Definitions::LookUpSymbol<CreateReceiverFunction>(libraries[side.runtime],
                                                                          "CreateReceiver");
    if (create == nullptr) {
        throw QuorvalenNativeException(side.noCreateReceiver, Messages::kUnknownRuntime);
    }
    IReceiver* created = create(side.mode);
    if (created == nullptr) {
        throw QuorvalenNativeException(side.noReceiver, Messages::kUnknownRuntime);
    }
    created->Initialize(callingRuntime, calledRuntime, passThroughByte);
    receiver = std::shared_ptr<IReceiver>(created);
}

void TransportInMemory::CreateTransmitter(const Side& side) {
    std::shared_ptr<ITransmitter>& transmitter = transmitters[side.runtime];
    if (transmitter != nullptr) return;
    const auto create = Definitions::LookUpSymbol<CreateTransmitterFunction>(
        libraries[side.runtime], "CreateTransmitter");
    if (create == nullptr) {
        throw QuorvalenNativeException(Messages::kNoCreateTransmitter, Messages::kUnknownRuntime);
    }
    transmitter = std::shared_ptr<ITransmitter>(create(side.mode));
}

void TransportInMemory::SendHeartBeatToCalledRuntime() {
    Console::WriteLine("SendHeartBeatToCalledRuntime");
    SendHeartBeat(calledRuntime, callingRuntime, passThroughByte);
}

// By design: only the heartbeat towards the called runtime carries the pass-through byte.
void TransportInMemory::SendHeartBeatToCallingRuntime() {
    Console::WriteLine("SendHeartBeatToCallingRuntime");
    SendHeartBeat(callingRuntime, calledRuntime, 0);
}

void TransportInMemory::SendHeartBeat(int runtime, int otherRuntime, unsigned char versionByte) {
    std::array<unsigned char, 13> message = {};
    message[Header::kTargetRuntime] = static_cast<unsigned char>(runtime);
    message[Header::kRuntimeVersion] = versionByte;
    message[Header::kCallingRuntime] = static_cast<unsigned char>(otherRuntime);
    message[Header::kKind] = Definitions::kHeartBeat;
    message[11] = 0x31;
    message[12] = 0x32;
    ReceiverOf(runtime).SendCommand(message.data(), static_cast<int>(message.size()));
}

// An id that was never set up has an empty owner, or no entry at all when no runtime has it;
// looking without inserting keeps commands on other threads safe.
IReceiver& TransportInMemory::ReceiverOf(int runtime) {
    const auto entry = receivers.find(runtime);
    if (entry == receivers.end() || entry->second == nullptr) throw Nobody("receiver", runtime);
    return *entry->second;
}

ITransmitter& TransportInMemory::TransmitterOf(int runtime) {
    const auto entry = transmitters.find(runtime);
    if (entry == transmitters.end() || entry->second == nullptr) {
        throw Nobody("transmitter", runtime);
    }
    return *entry->second;
}

}  // namespace Quorvalen::Native::Transport
