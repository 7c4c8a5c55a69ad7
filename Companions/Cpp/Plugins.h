// Opens plug-ins: shared libraries whose entry function QuorvalenRegister registers functions. A
// plug-in once opened stays open, because its functions, and the exceptions they throw, live in it.
//
// Any thread may call. Plug-ins are loaded one at a time; an entry function may load another one.
#pragma once

#include <string>
#include <vector>

namespace Quorvalen::CppBridge::Plugins {

// Returns the names that the plug-in registered when it was loaded, in that order; a second load of
// the same file does nothing else. `path` is absolute or relative to the current directory. Raises
// PluginError when the file cannot be used, or what the entry function throws; the functions that
// it had registered are gone then, and a later call tries again.
std::vector<std::string> Load(const std::string& path);

// Notes that this thread registered a function, for the plug-in that it is loading, if any.
void NoteRegistered(const std::string& name);

}  // namespace Quorvalen::CppBridge::Plugins
