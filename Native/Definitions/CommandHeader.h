// The byte positions of a command or response that the native layer reads. All other bytes are the
// business of the two runtimes alone.
#pragma once

namespace Quorvalen::Native::Definitions {

namespace CommandHeader {

inline constexpr int kTargetRuntime = 0;
inline constexpr int kRuntimeVersion = 1;
inline constexpr int kConnectionType = 2;
inline constexpr int kAddress = 3;  // four octets, the first number of a.b.c.d first
inline constexpr int kPortLow = 7;  // least significant byte first
inline constexpr int kPortHigh = 8;
inline constexpr int kCallingRuntime = 9;
inline constexpr int kKind = 10;

inline constexpr int kLength = 11;  // the shortest command that the transmitter routes

}  // namespace CommandHeader

enum class ConnectionType : unsigned char { InMemory = 0, Tcp = 1, TcpTls = 2 };

// Values of CommandHeader::kKind that the native layer knows.
inline constexpr unsigned char kExceptionResponse = 10;
inline constexpr unsigned char kHeartBeat = 11;

}  // namespace Quorvalen::Native::Definitions
