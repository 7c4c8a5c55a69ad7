// What the fakes of all libraries share in one test process: one trace of calls in their order, and
// the answers and failures that the test chose. It is a shared library, so that a fake opened by
// the bridge and the test program see the same one. Any thread.
#pragma once

#include <string>
#include <vector>

namespace Fakes {

// --- The trace --------------------------------------------------------------------------------
void Record(const std::string& call);
std::vector<std::string> Trace();
void ClearTrace();

// Calls `hook` with every call as it is recorded, on the recording thread, so that a test can act
// in the middle of an operation. Null ends that.
void SetHook(void (*hook)(const std::string& call));

// --- Failures ---------------------------------------------------------------------------------
// Lets the call number `nth` (1 is the next one) of `function` fail, and all later ones too when
// `forever`.
void Fail(const std::string& function, int nth = 1, bool forever = false);
void FailNoMore();

// Counts a call of `function` and tells whether it has to fail. For the fakes.
bool MustFail(const std::string& function);

// --- Answers ----------------------------------------------------------------------------------
// Free texts and numbers by name; each fake says which names it asks for.
void SetText(const std::string& name, const std::string& value);
std::string Text(const std::string& name, const std::string& defaultValue = "");
void SetNumber(const std::string& name, long long value);
long long Number(const std::string& name, long long defaultValue = 0);

// Shows bytes as "[3] 01 ff 0b".
std::string ShowBytes(const unsigned char* bytes, int length);

}  // namespace Fakes
