// What never changes: the command's byte positions, the values of the enumerations, the layout of
// what crosses the library's boundary. Compiling this file is most of the check.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "Native/Definitions/CommandHeader.h"
#include "Native/Definitions/PythonVersion.h"
#include "Native/Definitions/Runtime.h"
#include "Native/Definitions/RuntimeOperationMode.h"
#include "Native/Interfaces/ILauncher.h"
#include "Native/Interfaces/IReceiver.h"
#include "Native/Interfaces/ITransmitter.h"
#include "Native/Interfaces/ITransport.h"
#include "Native/Launcher/NativeLauncher.h"
#include "Native/QuorvalenNativeException/QuorvalenNativeException.h"
#include "Native/Receiver/NativeReceiver.h"
#include "Native/Transmitter/NativeTransmitter.h"
#include "Native/Transport/TransportInMemory.h"
#include "Native/Transport/TransportNetwork.h"
#include "Runtimes/Python/Native/PythonLauncher.h"
#include "Runtimes/Python/Native/PythonNativeReceiver.h"
#include "Runtimes/Python/Native/PythonNativeTransmitter.h"
#include "Tests/Support/Bridge.h"

using namespace Quorvalen::Native;
using Definitions::ConnectionType;
using Definitions::PythonVersion;
using Definitions::Runtime;
using Definitions::RuntimeOperationMode;
namespace PythonNative = Quorvalen::Runtimes::Python::Native;

namespace {

namespace Header = Definitions::CommandHeader;
static_assert(Header::kTargetRuntime == 0);
static_assert(Header::kRuntimeVersion == 1);
static_assert(Header::kConnectionType == 2);
static_assert(Header::kAddress == 3);
static_assert(Header::kPortLow == 7);
static_assert(Header::kPortHigh == 8);
static_assert(Header::kCallingRuntime == 9);
static_assert(Header::kKind == 10);
static_assert(Header::kLength == 11);
static_assert(Definitions::kExceptionResponse == 10);
static_assert(Definitions::kHeartBeat == 11);

static_assert(static_cast<int>(ConnectionType::InMemory) == 0);
static_assert(static_cast<int>(ConnectionType::Tcp) == 1);
static_assert(static_cast<int>(ConnectionType::TcpTls) == 2);

static_assert(static_cast<int>(Runtime::Clr) == 0);
static_assert(static_cast<int>(Runtime::Go) == 1);
static_assert(static_cast<int>(Runtime::Jvm) == 2);
static_assert(static_cast<int>(Runtime::Netcore) == 3);
static_assert(static_cast<int>(Runtime::Perl) == 4);
static_assert(static_cast<int>(Runtime::Python) == 5);
static_assert(static_cast<int>(Runtime::Ruby) == 6);
static_assert(static_cast<int>(Runtime::Nodejs) == 7);
static_assert(static_cast<int>(Runtime::Cpp) == 8);
static_assert(static_cast<int>(Runtime::Php) == 9);
static_assert(static_cast<int>(Runtime::Python2) == 10);
static_assert(Definitions::kRuntimeCount == 11);

static_assert(static_cast<int>(PythonVersion::Any) == 0);
static_assert(static_cast<int>(PythonVersion::Python36) == 1);
static_assert(static_cast<int>(PythonVersion::Python37) == 2);
static_assert(static_cast<int>(PythonVersion::Python38) == 3);
static_assert(static_cast<int>(PythonVersion::Python39) == 4);
static_assert(static_cast<int>(PythonVersion::Python310) == 5);
static_assert(static_cast<int>(PythonVersion::Python311) == 6);
static_assert(static_cast<int>(PythonVersion::Python312) == 7);
static_assert(static_cast<int>(PythonVersion::Python313) == 8);
static_assert(static_cast<int>(PythonVersion::Python314) == 9);

static_assert(std::is_same_v<std::underlying_type_t<RuntimeOperationMode>, std::int32_t>);
static_assert(static_cast<int>(RuntimeOperationMode::NotSet) == -1);
static_assert(static_cast<int>(RuntimeOperationMode::CallingRuntime) == 0);
static_assert(static_cast<int>(RuntimeOperationMode::CalledRuntime) == 1);

// Interfaces are a table of functions and nothing else, so that every library can call them.
template <typename Interface>
constexpr bool kIsPureInterface =
    std::is_abstract_v<Interface>&& std::has_virtual_destructor_v<Interface> &&
    sizeof(Interface) == sizeof(void*);
static_assert(kIsPureInterface<Interfaces::ILauncher>);
static_assert(kIsPureInterface<Interfaces::IReceiver>);
static_assert(kIsPureInterface<Interfaces::ITransmitter>);
static_assert(kIsPureInterface<Interfaces::ITransport>);

static_assert(std::is_base_of_v<Interfaces::ILauncher, Launcher::NativeLauncher>);
static_assert(std::is_base_of_v<Launcher::NativeLauncher, PythonLauncher>);
static_assert(std::is_base_of_v<Interfaces::ITransmitter, Transmitter::NativeTransmitter>);
static_assert(std::is_base_of_v<Interfaces::IReceiver, Receiver::NativeReceiver>);
static_assert(std::is_base_of_v<Interfaces::ITransport, Transport::TransportInMemory>);
static_assert(std::is_base_of_v<Interfaces::ITransport, Transport::TransportNetwork>);
static_assert(std::is_base_of_v<std::runtime_error, QuorvalenNativeException>);

// The Python classes are their bases under a name of their own: no field is added.
using PythonTransmitter = PythonNative::Transmitter::PythonNativeTransmitter;
using PythonReceiver = PythonNative::Receiver::PythonNativeReceiver;
static_assert(std::is_base_of_v<Transmitter::NativeTransmitter, PythonTransmitter>);
static_assert(sizeof(PythonTransmitter) == sizeof(Transmitter::NativeTransmitter));
static_assert(std::is_base_of_v<Receiver::NativeReceiver, PythonReceiver>);
static_assert(sizeof(PythonReceiver) == sizeof(Receiver::NativeReceiver));

// The fields of a receiver: a table pointer, three bytes, the launcher, the mode.
static_assert(sizeof(Receiver::NativeReceiver) == 32);
// The fields of a launcher: a table pointer, the mode, one byte.
static_assert(sizeof(Launcher::NativeLauncher) == 16);

// A failure can be caught by value, which copies, but is never assigned.
static_assert(std::is_copy_constructible_v<QuorvalenNativeException>);

TEST(LayoutTest, TheOperationModeIsA32BitNumberThatStartsAsMinusOne) {
    Layout layout;
    const Bridge bridge(layout);
    EXPECT_EQ(0xFFFFFFFFU, bridge.Variable<std::uint32_t>("operationMode"));
}

}  // namespace
