// Turns a runtime id into its display name and into the file name of its bridge library. Total
// functions: any int is answered, ids outside the table with "Unknown". Any thread.
#pragma once

#include <string>

#include "Native/Definitions/Export.h"

namespace Quorvalen::Native::RuntimeNameHandler {

class QUORVALEN_EXPORT RuntimeNameHandler {
  public:
    static std::string GetRuntimeName(int runtime);
    static std::string getRuntimeLibraryName(int runtime);
};

}  // namespace Quorvalen::Native::RuntimeNameHandler
