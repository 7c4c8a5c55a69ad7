// Scopes of the interpreter lock and of an owned reference to a Python object. Both are created and
// destroyed on one thread, inside one function of the launcher.
#pragma once

#include "Runtimes/Python/Native/PythonFunctions.h"

// What PyGILState_Ensure answers.
inline constexpr int kLockWasHeld = 0;
inline constexpr int kLockWasNotHeld = 1;

// Holds the interpreter lock. REQUIRES: the functions are bound and the interpreter is running.
class InterpreterLock {
  public:
    explicit InterpreterLock(const PythonFunctions& functions)
        : python(&functions), state(functions.PyGILState_Ensure_Fn()) {}
    ~InterpreterLock() {
        if (python != nullptr) python->PyGILState_Release_Fn(state);
    }
    InterpreterLock(const InterpreterLock&) = delete;
    InterpreterLock& operator=(const InterpreterLock&) = delete;

    // The lock is not given back: the interpreter it belongs to is about to be finalised.
    void Dismiss() { python = nullptr; }

    int State() const { return state; }

  private:
    const PythonFunctions* python;
    const int state;
};

// Gives an owned reference back. REQUIRES: the interpreter lock at the end of the scope.
class OwnedReference {
  public:
    OwnedReference(const PythonFunctions& functions, PyObject* owned)
        : python(functions), object(owned) {}
    ~OwnedReference() { python.Py_DecRef_Fn(object); }
    OwnedReference(const OwnedReference&) = delete;
    OwnedReference& operator=(const OwnedReference&) = delete;

  private:
    const PythonFunctions& python;
    PyObject* object;
};
