// The test program's own dlopen. It stands before the C library's, so that a test decides which
// libraries the machine has: bare names ("libpython3.12.so") are looked up in the test's map alone
// and are missing otherwise, whatever is installed. Calls are recorded with path and flags. Not
// seen by a library that was opened with deep binding.
#pragma once

#include <string>
#include <vector>

namespace DlopenShim {

// A bare name stands for this file from now on.
void Map(const std::string& bareName, const std::string& file);

// Lets bare names reach the machine's own libraries again.
void AllowBareNames();

// "path flags" of every call that the bridge made since the last Clear, in order.
std::vector<std::string> Calls();
void Clear();

// From now on opening `path` succeeds but leaves an error text with the loader.
void LeaveErrorAfter(const std::string& path);

}  // namespace DlopenShim
