// Reads the JSON of a command's or response's body more strictly than the JSON package does by
// itself: nothing that would be lost or overlooked silently gets through. Pure; any thread.
#pragma once

#include <string_view>

#include "Quorvalen/Conversion.h"

namespace Quorvalen::CppBridge {

// Returns the one object that the body must be. Handles stay the objects that they are written as.
// Raises MalformedCommand for what is not UTF-8, not JSON or no object, for a member that occurs
// twice, keys that begin with "$" other than a handle's, integers that fit no 64 bits, and values
// that are nested too deeply.
Cpp::Json ReadBody(std::string_view body);

// Returns the JSON text of a value. Raises NotPlain when that would lose something: numbers that
// are not finite, text that is not UTF-8, keys that begin with "$" in what is no handle, values
// that are nested more than 100 levels deep.
std::string WriteValue(const Cpp::Json& value);

bool IsHandle(const Cpp::Json& value);

}  // namespace Quorvalen::CppBridge
