// The C functions of libConfigs.so, which the bridge looks up by name. Here for whoever links or
// tests the library; the bridge itself includes nothing of it.
//
// Any thread may call any function at any time. Nothing is printed and no exception leaves a
// function. Strings are NUL-terminated UTF-8; none is kept after the call.
//
// String results go to `buf`, `size` bytes long with the terminating NUL. The return value is the
// length without the NUL, or -1; then the buffer holds a sentence that says what is wrong, cut to
// whole characters where it does not fit. With a null `buf` or a `size` of 0 the result is -1.
//
// After a SetConfigSource that failed, nothing of any configuration is served until one succeeds:
// string functions answer -1 with the sentence of the failure, numbers are 0. Only GetLoggingLevel
// and GetWorkingDirectory go on as before, because errors are recorded with their help.

#ifndef QUORVALEN_COMPANIONS_CONFIGS_H
#define QUORVALEN_COMPANIONS_CONFIGS_H

extern "C" {

// Takes the configuration from a JSON file, or from `source` itself when its first non-blank
// character is "{". A relative file name is resolved now; the file is read now and not watched. 0,
// or -1 (GetConfigSource then tells why).
int SetConfigSource(const char* source);

// Overrides the configured working directory, whatever source is set before or after. A relative
// path is resolved now. 0, or -1 when `path` is null, empty or not an existing directory; then
// nothing changes.
int SetWorkingDirectory(const char* path);

// The full name of the file in force, "inline configuration", or "defaults" when no source was ever
// set.
int GetConfigSource(char* buf, unsigned long size);

// An absolute path; the current directory when none is configured.
int GetWorkingDirectory(char* buf, unsigned long size);

// "Off", "RuntimeInfo" or "All".
int GetLoggingLevel(char* buf, unsigned long size);

// Empty when not configured.
int GetProxyHost(char* buf, unsigned long size);
int GetProxyUsername(char* buf, unsigned long size);
int GetProxyPassword(char* buf, unsigned long size);
int GetProxyDomain(char* buf, unsigned long size);

// 1 when a proxy is configured, 0 otherwise.
int ProxyExists(void);

// 1 to 65535, or 0 when not configured.
int GetProxyPort(void);
int GetChannelPort(const char* runtime, const char* channel);

// `runtime` is a runtime name in lower case. Empty for an unknown runtime or channel and for what
// is not configured.
int GetRuntimeName(const char* runtime, const char* channel, char* buf, unsigned long size);
int GetChannelType(const char* runtime, const char* channel, char* buf, unsigned long size);
int GetChannelHost(const char* runtime, const char* channel, char* buf, unsigned long size);
int GetChannelRuntimePath(const char* runtime, const char* channel, char* buf, unsigned long size);
}

#endif
