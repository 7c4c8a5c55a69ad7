// The one C function of libUtils.so, which the bridge looks up by name. Here for whoever links or
// tests the library; the bridge itself includes nothing of it.

#ifndef QUORVALEN_COMPANIONS_UTILS_H
#define QUORVALEN_COMPANIONS_UTILS_H

// Appends one telemetry event to the telemetry file (see Docs/telemetry.md). Any thread may call it
// at any time. The texts are NUL-terminated, meant to be UTF-8, and not kept; a null one is written
// as null. A failure to write is nobody's concern but the file's: nothing is thrown or printed,
// errno is kept, and the next event tries again.
extern "C" void LogMessage(const char* event, const char* text, const char* runtime);

#endif
