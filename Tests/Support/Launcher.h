// A PythonLauncher of the bridge under test, built through its exported constructor, and what tests
// of it share. The start is that of the fake Python library unless a test says otherwise.
#pragma once

#include <string>

#include "Native/Interfaces/ILauncher.h"
#include "Tests/Fakes/Recorder.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Layout.h"

// Lets the bridge find the fake Python library `fake` ("FakePython", "FakePythonWithOptional",
// "FakePythonWithoutPyTuple_Pack") as the newest version, silently.
void UsePython(Layout& layout, const std::string& fake);

// The calls of Python functions since the last Fakes::ClearTrace(), one a line: the trace without
// the calls of the configuration and the utilities library.
std::string PythonTrace();

class Launcher {
  public:
    Launcher(const Bridge& opened, int mode);
    ~Launcher();
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    Quorvalen::Native::Interfaces::ILauncher* operator->() const { return launcher; }

    // Operations that are no slot of the interface.
    void Close();
    std::string NativeInfo();
    std::string ManagedInfo();

    // Destroys the launcher now instead of at the end of the scope.
    void Destroy();

  private:
    const Bridge& bridge;
    Quorvalen::Native::Interfaces::ILauncher* launcher;
};
