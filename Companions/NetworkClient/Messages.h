// Every text with which a command can fail in the network client; Docs/network.md has them all with
// cause and remedy. `peer` is the host and the port of the channel, as "host:port".
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_MESSAGES_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_MESSAGES_H

#include <string>

namespace Quorvalen::Companions::Network::Messages {

inline std::string WrongSetting(const std::string& peer, const std::string& variable,
                                const std::string& value, const std::string& expected) {
    return "Quorvalen Network Client: Exception code 101. \nNo command is sent to " + peer + ": " +
           variable + " is \"" + value + "\", expected " + expected;
}

inline std::string HalfAnIdentity(const std::string& peer, const std::string& variable,
                                  const std::string& other) {
    return "Quorvalen Network Client: Exception code 101. \nNo command is sent to " + peer + ": " +
           variable + " is set without " + other + ", expected both or none";
}

inline std::string HostNotResolved(const std::string& peer, const std::string& reason) {
    return "Quorvalen Network Client: Exception code 102. \nThe host name of " + peer +
           " cannot be resolved: " + reason;
}

inline std::string ConnectFailed(const std::string& peer, const std::string& reason) {
    return "Quorvalen Network Client: Exception code 103. \nCannot connect to " + peer + ": " +
           reason;
}

inline std::string DeadlineMissed(const std::string& peer, const std::string& phase,
                                  const std::string& seconds) {
    return "Quorvalen Network Client: Exception code 104. \nThe deadline of " + peer +
           " was missed after " + seconds + " s (phase: " + phase + ")";
}

inline std::string ReplyDeadlineMissed(const std::string& peer, const std::string& seconds) {
    return "Quorvalen Network Client: Exception code 104. \nThe deadline of " + peer +
           " was missed after " + seconds + " s (phase: reply). The command may have been executed";
}

inline std::string TlsCheckFailed(const std::string& peer, const std::string& reason) {
    return "Quorvalen Network Client: Exception code 105. \nNo TLS connection to " + peer + ": " +
           reason;
}

inline std::string TlsFileUnusable(const std::string& peer, const std::string& variable,
                                   const std::string& file, const std::string& reason) {
    return "Quorvalen Network Client: Exception code 106. \nNo command is sent to " + peer +
           ": the file \"" + file + "\" of " + variable + " is unusable: " + reason;
}

inline std::string LostWhileSending(const std::string& peer, const std::string& reason) {
    return "Quorvalen Network Client: Exception code 107. \nThe connection to " + peer +
           " was lost before the command was sent whole: " + reason;
}

inline std::string LostBeforeResponse(const std::string& peer, const std::string& reason) {
    return "Quorvalen Network Client: Exception code 108. \nThe connection to " + peer +
           " was lost before the response came whole: " + reason +
           ". The command may have been executed";
}

inline std::string ResponseTooLong(const std::string& peer, const std::string& length,
                                   const std::string& limit) {
    return "Quorvalen Network Client: Exception code 109. \nThe response of " + peer + " has " +
           length + " bytes, at most " + limit +
           " are accepted (QUORVALEN_NETWORK_MAX_FRAME). The command may have been executed";
}

inline std::string AnsweredWithTls(const std::string& peer) {
    return "Quorvalen Network Client: Exception code 109. \nThe answer of " + peer +
           " is a TLS alert and no response: this port speaks TLS, the command came without";
}

inline std::string CommandTooLong(const std::string& peer, const std::string& length,
                                  const std::string& limit) {
    return "Quorvalen Network Client: Exception code 110. \nThe command to " + peer + " has " +
           length + " bytes, at most " + limit + " are sent (QUORVALEN_NETWORK_MAX_FRAME)";
}

inline std::string NoCommand(const std::string& peer, const std::string& length) {
    return "Quorvalen Network Client: Exception code 110. \nThe command to " + peer +
           " is a null pointer or has a negative length (length: " + length + ")";
}

inline std::string NoResponse(const std::string& peer) {
    return "Quorvalen Network Client: Exception code 111. \nThis thread has no response of " +
           peer + " to read. Call SendCommand on the same thread first, and read once";
}

inline std::string NoRoomForResponse(const std::string& peer, const std::string& length) {
    return "Quorvalen Network Client: Exception code 112. \nThe buffer for the response of " +
           peer + " is a null pointer or has a negative length (length: " + length + ")";
}

// The phases in the texts above.
inline constexpr const char* kResolve = "resolve";
inline constexpr const char* kConnect = "connect";
inline constexpr const char* kHandshake = "TLS handshake";
inline constexpr const char* kSend = "send";

// What a setting is expected to be.
inline constexpr const char* kSeconds = "seconds above 0 and at most 86400";
inline constexpr const char* kSecondsOrNone = "seconds above 0 and at most 86400, or none";
inline constexpr const char* kFrameLength = "a whole number of bytes from 1 to 2147483647";
inline constexpr const char* kFileName = "the name of a PEM file";
inline constexpr const char* kServerName = "a host name or an address";

// Why a connection ended, where the system has no text of its own.
inline constexpr const char* kEmptyHostName = "it is empty";
inline constexpr const char* kClosedByPeer = "closed by the other side";

// Why there is no TLS connection.
inline constexpr const char* kUntrusted =
    "its certificate comes from no authority that is trusted here";
inline constexpr const char* kExpired = "its certificate has expired";
inline constexpr const char* kNotYetValid = "its certificate is not yet valid";
inline constexpr const char* kNoTls = "it does not speak TLS";
inline constexpr const char* kTooOld = "it speaks only TLS versions older than 1.2";
inline constexpr const char* kClosedInHandshake = "it closed the connection during the handshake";
inline constexpr const char* kCertificateDemanded =
    "it demands a client certificate (QUORVALEN_TLS_CERTIFICATE_FILE, QUORVALEN_TLS_KEY_FILE)";

inline std::string WrongName(const std::string& name) {
    return "its certificate is not for \"" + name + "\"";
}

inline std::string OtherCertificateFault(const std::string& reason) {
    return "its certificate is not accepted: " + reason;
}

inline std::string CertificateRefused(const std::string& reason) {
    return "it refused the client certificate: " + reason;
}

// Why a file of the TLS settings is unusable.
inline constexpr const char* kNoCertificateInFile = "there is no certificate in it";
inline constexpr const char* kNoKeyInFile = "there is no private key in it";
inline constexpr const char* kKeyIsEncrypted = "the private key in it is encrypted";
inline constexpr const char* kKeyOfAnother = "the private key in it is not that of the certificate";

}  // namespace Quorvalen::Companions::Network::Messages

#endif
