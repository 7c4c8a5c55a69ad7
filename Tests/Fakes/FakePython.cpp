// A recording fake of the Python library. It records every call with its arguments and models as
// much of an interpreter as the bridge's decisions rest on: whether it is initialised and which
// thread holds the interpreter lock. It is no thread-safe interpreter: PyGILState_Ensure does not
// block.
//
// Variants, by compile definition or link option:
//   FAKE_PYTHON_OPTIONAL   also exports the optional functions and objects
//   one variant per required name that lacks just that name (a version script hides it)
//
// Failures, by Fakes::Fail with the function's name: pointers become null, PyRun_SimpleString -1,
// PyCallable_Check and Py_IsInitialized 0, PyByteArray_Size -1.
//
// Answers, by Fakes::SetText / SetNumber:
//   "response"                the bytes that every command returns (default "response")
//   "runtime info"            the text of get_runtime_info (default "Fake Python")
//   "version", "platform"     texts of Py_GetVersion and Py_GetPlatform; the value "<null>" gives
//   null "without <attribute>" 1   the receiver class lacks the attribute "not callable <name>" 1
//   PyCallable_Check answers 0 for the object of that name "lock state" PyGILState_Ensure answers
//   this instead of what the model says "lock check"              PyGILState_Check answers this
//   instead of what the model says "result type"             1: commands return an object that is
//   no bytearray "pending SystemExit" 1    PyErr_ExceptionMatches answers 1 "already running" 1 the
//   interpreter was started by somebody else before the bridge came
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Fakes/Recorder.h"

// An object is its name, so that traces can be read.
struct PyObject {
    std::string name;
    std::string bytes;  // of a bytes or bytearray object
};

namespace {

using Fakes::MustFail;
using Fakes::Number;
using Fakes::Record;
using Fakes::Text;

struct Interpreter {
    std::mutex lock;
    bool initialised = false;
    std::thread::id holder{};                    // of the interpreter lock
    std::map<std::thread::id, int> ensureDepth;  // how often each thread has asked
    std::vector<PyObject*> objects;              // freed never: a test process is short
};

Interpreter& Shared() {
    static Interpreter* interpreter = new Interpreter;
    return *interpreter;
}

PyObject* Object(const std::string& name, const std::string& bytes = "") {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().objects.push_back(new PyObject{name, bytes});
    return Shared().objects.back();
}

std::string Name(const PyObject* object) {
    return object == nullptr ? "null" : object->name;
}

std::string Quoted(const char* text) {
    return "\"" + std::string(text) + "\"";
}

const char* NullOr(const std::string& text) {
    if (text == "<null>") return nullptr;
    return (new std::string(text))->c_str();
}

bool Initialised() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().initialised || Number("already running") != 0;
}

int TakeLock() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    const bool held = Shared().holder == std::this_thread::get_id();
    Shared().holder = std::this_thread::get_id();
    ++Shared().ensureDepth[std::this_thread::get_id()];
    return static_cast<int>(Number("lock state", held ? 0 : 1));
}

void GiveLockBack(int state) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    --Shared().ensureDepth[std::this_thread::get_id()];
    if (state == 1) Shared().holder = std::thread::id();
}

bool HoldsLock() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().holder == std::this_thread::get_id();
}

void SetHolder(std::thread::id holder, bool initialised) {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().holder = holder;
    Shared().initialised = initialised;
}

}  // namespace

extern "C" {

void Py_Initialize() {
    Record("Py_Initialize()");
    if (Initialised() || MustFail("Py_Initialize")) return;
    SetHolder(std::this_thread::get_id(), true);
}

void Py_Finalize() {
    Record("Py_Finalize()");
    SetHolder(std::thread::id(), false);
}

int Py_IsInitialized() {
    Record("Py_IsInitialized()");
    return Initialised() && !MustFail("Py_IsInitialized") ? 1 : 0;
}

PyObject* PyUnicode_DecodeFSDefault(const char* text) {
    Record("PyUnicode_DecodeFSDefault(" + Quoted(text) + ")");
    return MustFail("PyUnicode_DecodeFSDefault") ? nullptr : Object("module name");
}

PyObject* PyImport_Import(PyObject* name) {
    Record("PyImport_Import(" + Name(name) + ")");
    return MustFail("PyImport_Import") ? nullptr : Object("module");
}

PyObject* PyModule_GetDict(PyObject* module) {
    Record("PyModule_GetDict(" + Name(module) + ")");
    return MustFail("PyModule_GetDict") ? nullptr : Object("dictionary");
}

PyObject* PyDict_GetItemString(PyObject* dictionary, const char* key) {
    Record("PyDict_GetItemString(" + Name(dictionary) + ", " + Quoted(key) + ")");
    return MustFail("PyDict_GetItemString") ? nullptr : Object("Receiver");
}

int PyCallable_Check(PyObject* object) {
    Record("PyCallable_Check(" + Name(object) + ")");
    if (Number("not callable " + Name(object)) != 0) return 0;
    return MustFail("PyCallable_Check") ? 0 : 1;
}

int PyRun_SimpleString(const char* statement) {
    Record("PyRun_SimpleString(" + Quoted(statement) + ")");
    return MustFail("PyRun_SimpleString") ? -1 : 0;
}

PyObject* PyObject_CallObject(PyObject* function, PyObject* arguments) {
    Record("PyObject_CallObject(" + Name(function) + ", " + Name(arguments) + ")");
    if (MustFail("PyObject_CallObject") || MustFail("call " + Name(function))) return nullptr;
    if (Name(function) == "get_runtime_info") {
        return Object("info", Text("runtime info", "Fake Python"));
    }
    if (Number("result type") != 0) return Object("no bytearray");
    return Object("result", Text("response", "response"));
}

std::ptrdiff_t PyByteArray_Size(PyObject* object) {
    Record("PyByteArray_Size(" + Name(object) + ")");
    if (MustFail("PyByteArray_Size")) return -1;
    return object == nullptr ? 0 : static_cast<std::ptrdiff_t>(object->bytes.size());
}

char* PyByteArray_AsString(PyObject* object) {
    Record("PyByteArray_AsString(" + Name(object) + ")");
    return object == nullptr ? nullptr : object->bytes.data();
}

void Py_DecRef(PyObject* object) {
    Record("Py_DecRef(" + Name(object) + ")");
}

int PyGILState_Ensure() {
    const int state = TakeLock();
    Record("PyGILState_Ensure() = " + std::to_string(state));
    return state;
}

void PyGILState_Release(int state) {
    Record("PyGILState_Release(" + std::to_string(state) + ")");
    GiveLockBack(state);
}

int PyGILState_Check() {
    const auto answer = static_cast<int>(Number("lock check", HoldsLock() ? 1 : 0));
    Record("PyGILState_Check() = " + std::to_string(answer));
    return answer;
}

void* PyEval_SaveThread() {
    Record("PyEval_SaveThread()");
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().holder = std::thread::id();
    return nullptr;
}

const char* Py_GetVersion() {
    Record("Py_GetVersion()");
    return NullOr(Text("version", "3.fake"));
}

const char* Py_GetPlatform() {
    Record("Py_GetPlatform()");
    return NullOr(Text("platform", "fake-linux"));
}

void PyErr_Print() {
    Record("PyErr_Print()");
}

const char* PyUnicode_AsUTF8(PyObject* object) {
    Record("PyUnicode_AsUTF8(" + Name(object) + ")");
    return MustFail("PyUnicode_AsUTF8") ? nullptr : object->bytes.c_str();
}

PyObject* PyObject_GetAttrString(PyObject* object, const char* name) {
    Record("PyObject_GetAttrString(" + Name(object) + ", " + Quoted(name) + ")");
    if (MustFail("PyObject_GetAttrString")) return nullptr;
    return Number("without " + std::string(name)) != 0 ? nullptr : Object(name);
}

PyObject* PyBytes_FromStringAndSize(const char* bytes, std::ptrdiff_t length) {
    const bool fails = MustFail("PyBytes_FromStringAndSize") || length < 0;
    const int shown = length < 0 ? 0 : static_cast<int>(length);
    Record("PyBytes_FromStringAndSize(" +
           (length < 0 ? std::to_string(length)
                       : Fakes::ShowBytes(reinterpret_cast<const unsigned char*>(bytes), shown)) +
           ")");
    return fails ? nullptr : Object("bytes");
}

PyObject* PyTuple_Pack(std::ptrdiff_t count, ...) {
    Record("PyTuple_Pack(" + std::to_string(count) + ")");
    return MustFail("PyTuple_Pack") ? nullptr : Object("arguments");
}

#ifdef FAKE_PYTHON_OPTIONAL

PyObject PyByteArray_Type{"bytearray type", ""};
PyObject systemExit{"SystemExit", ""};
PyObject* PyExc_SystemExit = &systemExit;

void Py_IncRef(PyObject* object) {
    Record("Py_IncRef(" + Name(object) + ")");
}

void PyEval_InitThreads() {
    Record("PyEval_InitThreads()");
}

int PyObject_IsInstance(PyObject* object, PyObject* type) {
    Record("PyObject_IsInstance(" + Name(object) + ", " + Name(type) + ")");
    if (MustFail("PyObject_IsInstance")) return -1;
    return Name(object) == "result" ? 1 : 0;
}

int PyErr_ExceptionMatches(PyObject* type) {
    Record("PyErr_ExceptionMatches(" + Name(type) + ")");
    return static_cast<int>(Number("pending SystemExit"));
}

void PyErr_WriteUnraisable(PyObject* object) {
    Record("PyErr_WriteUnraisable(" + Name(object) + ")");
}

#endif

}  // extern "C"
