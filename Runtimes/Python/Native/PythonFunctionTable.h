// The functions of the CPython embedding interface that the bridge uses, each exactly once. The
// fields, the binding, the count and the test fakes are all made from these rows.
//
// Includers define QUORVALEN_PYTHON_FUNCTION(result, name, parameters), the optional rows' macros
// if they want them, and include this file; it undefines all three at its end. There is no include
// guard, on purpose.
//
// Required rows: the order is the order of look-up. A library that lacks one of them is refused.
// "new" and "borrowed" tell who owns a returned reference.

#ifndef QUORVALEN_PYTHON_FUNCTION
#define QUORVALEN_PYTHON_FUNCTION(result, name, parameters)
#endif
#ifndef QUORVALEN_OPTIONAL_PYTHON_FUNCTION
#define QUORVALEN_OPTIONAL_PYTHON_FUNCTION(result, name, parameters)
#endif
#ifndef QUORVALEN_OPTIONAL_PYTHON_OBJECT
#define QUORVALEN_OPTIONAL_PYTHON_OBJECT(type, name)
#endif

QUORVALEN_PYTHON_FUNCTION(void, Py_Initialize, ())
QUORVALEN_PYTHON_FUNCTION(void, Py_Finalize, ())
QUORVALEN_PYTHON_FUNCTION(int, Py_IsInitialized, ())
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyUnicode_DecodeFSDefault, (const char*))        // new
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyImport_Import, (PyObject*))                    // new
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyModule_GetDict, (PyObject*))                   // borrowed
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyDict_GetItemString, (PyObject*, const char*))  // borrowed
QUORVALEN_PYTHON_FUNCTION(int, PyCallable_Check, (PyObject*))
QUORVALEN_PYTHON_FUNCTION(int, PyRun_SimpleString, (const char*))
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyObject_CallObject, (PyObject*, PyObject*))  // new
QUORVALEN_PYTHON_FUNCTION(std::ptrdiff_t, PyByteArray_Size, (PyObject*))
QUORVALEN_PYTHON_FUNCTION(char*, PyByteArray_AsString, (PyObject*))  // the object's own memory
QUORVALEN_PYTHON_FUNCTION(void, Py_DecRef, (PyObject*))              // null is allowed
QUORVALEN_PYTHON_FUNCTION(int, PyGILState_Ensure, ())
QUORVALEN_PYTHON_FUNCTION(void, PyGILState_Release, (int))
QUORVALEN_PYTHON_FUNCTION(int, PyGILState_Check, ())
QUORVALEN_PYTHON_FUNCTION(void*, PyEval_SaveThread, ())
QUORVALEN_PYTHON_FUNCTION(const char*, Py_GetVersion, ())
QUORVALEN_PYTHON_FUNCTION(const char*, Py_GetPlatform, ())
QUORVALEN_PYTHON_FUNCTION(void, PyErr_Print, ())
QUORVALEN_PYTHON_FUNCTION(const char*, PyUnicode_AsUTF8, (PyObject*))  // the object's own memory
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyObject_GetAttrString, (PyObject*, const char*))  // new
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyBytes_FromStringAndSize,
                          (const char*, std::ptrdiff_t))                   // new
QUORVALEN_PYTHON_FUNCTION(PyObject*, PyTuple_Pack, (std::ptrdiff_t, ...))  // new

// Optional rows: used when the library has them, done without when it has not.
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, Py_IncRef, (PyObject*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, PyEval_InitThreads, ())
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(int, PyObject_IsInstance, (PyObject*, PyObject*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(int, PyErr_ExceptionMatches, (PyObject*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, PyErr_WriteUnraisable, (PyObject*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyGILState_GetThisThreadState, ())
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyThreadState_Swap, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyThreadState_GetUnchecked, ())  // 3.13 has it first
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyThreadState_Next, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyThreadState_New, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, PyThreadState_Clear, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, PyThreadState_Delete, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, PyThreadState_DeleteCurrent, ())
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void, PyEval_RestoreThread, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyInterpreterState_Get, ())
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(PyObject*, PyErr_GetRaisedException, ())  // 3.12 has it first
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyInterpreterState_Head, ())
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyInterpreterState_Next, (void*))
QUORVALEN_OPTIONAL_PYTHON_FUNCTION(void*, PyInterpreterState_ThreadHead, (void*))
QUORVALEN_OPTIONAL_PYTHON_OBJECT(PyObject, PyByteArray_Type)   // the object itself
QUORVALEN_OPTIONAL_PYTHON_OBJECT(PyObject*, PyExc_SystemExit)  // a variable that points to it

#undef QUORVALEN_PYTHON_FUNCTION
#undef QUORVALEN_OPTIONAL_PYTHON_FUNCTION
#undef QUORVALEN_OPTIONAL_PYTHON_OBJECT
