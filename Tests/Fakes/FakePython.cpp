// A recording fake of the Python library. It records every call with its arguments and models as
// much of an interpreter as the bridge's decisions rest on: whether it is initialised, which thread
// holds the interpreter lock and how many commands are inside. Without "lock blocks" it is no
// thread-safe interpreter: PyGILState_Ensure gives the lock to whoever asks. It stays mapped once
// opened, like the Python libraries that extension modules keep in place.
//
// Variants, by compile definition or link option:
//   FAKE_PYTHON_OPTIONAL   also exports the optional functions and objects
//   FAKE_PYTHON_THREAD_STATES   also exports the functions that walk over thread states
//   FAKE_PYTHON_KEPT_STATES   also exports what keeping the states of threads takes, and from 3.12
//   on FAKE_PYTHON_DELETING_UNBINDS   what giving them back takes beside it one variant per name,
//   required or optional, that lacks just that name (a version script hides it)
//
// Failures, by Fakes::Fail with the function's name: pointers become null, PyRun_SimpleString -1,
// PyCallable_Check and Py_IsInitialized 0, PyByteArray_Size and PyObject_IsInstance -1;
// "call <name>" lets the call of that Python function fail, "command <text>" the command whose
// bytes after the header are this text.
//
// Answers, by Fakes::SetText / SetNumber:
//   "response"               the bytes that every command returns (default "response")
//   "echo" 1                 commands return their own bytes after the header instead
//   "runtime info"           the text of get_runtime_info (default "Fake Python")
//   "version", "platform"    the texts of Py_GetVersion and Py_GetPlatform; "<null>" gives null
//   "without <attribute>" 1  the receiver class lacks the attribute
//   "not callable <name>" 1  PyCallable_Check answers 0 for the object of that name
//   "lock state"             what PyGILState_Ensure answers instead of what the model says
//   "lock check"             what PyGILState_Check answers instead of what the model says
//   "lock blocks" 1          PyGILState_Ensure waits until no other thread holds the lock
//   "result type" 1          commands return an object that is no bytearray
//   "pending SystemExit" 1   PyErr_ExceptionMatches answers 1
//   "interpreters"           how many interpreters there are to walk over (default 1)
//   "thread states"          how many thread states each of them has (default 1)
//   "host thread" 1          the calling thread has a Python state before the bridge comes
//   "already running" 1      somebody else started the interpreter before the bridge came
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
    std::condition_variable lockIsFree;
    bool initialised = false;
    std::thread::id holder{};              // of the interpreter lock
    int savedThreads = 0;                  // thread states are named by their number
    int commandsInside = 0;                // calls of Python functions that have arguments
    std::vector<PyObject*> objects;        // freed never: a test process is short
    std::vector<std::string*> textsGiven;  // neither are they
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
    const std::lock_guard<std::mutex> guard(Shared().lock);
    Shared().textsGiven.push_back(new std::string(text));
    return Shared().textsGiven.back()->c_str();
}

bool Initialised() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().initialised || Number("already running") != 0;
}

int TakeLock() {
    const bool blocks = Number("lock blocks") != 0;
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> guard(Shared().lock);
    const bool held = Shared().holder == self;
    const auto isFree = [] { return Shared().holder == std::thread::id(); };
    if (blocks && !held) Shared().lockIsFree.wait(guard, isFree);
    Shared().holder = self;
    return static_cast<int>(Number("lock state", held ? 0 : 1));
}

void SetHolder(std::thread::id holder, bool initialised) {
    {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        Shared().holder = holder;
        Shared().initialised = initialised;
    }
    Shared().lockIsFree.notify_all();
}

void LetLockGo() {
    {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        Shared().holder = std::thread::id();
    }
    Shared().lockIsFree.notify_all();
}

bool HoldsLock() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return Shared().holder == std::this_thread::get_id();
}

int NextSavedThread() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    return ++Shared().savedThreads;
}

// A command inside the interpreter, for as long as its Python function runs.
class CommandInside {
  public:
    CommandInside() { Add(1); }
    ~CommandInside() { Add(-1); }
    CommandInside(const CommandInside&) = delete;
    CommandInside& operator=(const CommandInside&) = delete;

  private:
    static void Add(int difference) {
        const std::lock_guard<std::mutex> guard(Shared().lock);
        Shared().commandsInside += difference;
    }
};

// A finalisation under running commands crashes a real interpreter; here the trace tells.
std::string CommandsInside() {
    const std::lock_guard<std::mutex> guard(Shared().lock);
    const int count = Shared().commandsInside;
    return count == 0 ? "" : " under " + std::to_string(count) + " running commands";
}

PyObject* AnswerCommand(const std::string& command) {
    if (MustFail("command " + command)) return nullptr;
    if (Number("result type") != 0) return Object("no bytearray");
    return Object("result", Number("echo") != 0 ? command : Text("response", "response"));
}

std::string WithoutHeader(const std::string& message) {
    constexpr std::size_t kHeaderSize = 11;
    return message.size() < kHeaderSize ? "" : message.substr(kHeaderSize);
}

// How often the thread has taken the lock and not given it back: then it has a thread state.
thread_local int locksTaken = 0;

// The element `number` of a list as long as the answer `length` says; null behind its end.
[[maybe_unused]] void* Numbered(std::intptr_t number, const char* length) {
    return number > Number(length, 1) ? nullptr : reinterpret_cast<void*>(number);
}

}  // namespace

extern "C" {

void Py_Initialize() {
    Record("Py_Initialize()");
    if (Initialised() || MustFail("Py_Initialize")) return;
    SetHolder(std::this_thread::get_id(), true);
    ++locksTaken;
}

void Py_Finalize() {
    Record("Py_Finalize()" + CommandsInside());
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
    const std::string name = Name(function);
    const std::string call = "PyObject_CallObject(" + name + ", " + Name(arguments) + ")";
    if (arguments != nullptr) {
        const CommandInside inside;
        Record(call);
        if (MustFail("PyObject_CallObject") || MustFail("call " + name)) return nullptr;
        return AnswerCommand(arguments->bytes);
    }
    Record(call);
    if (MustFail("PyObject_CallObject") || MustFail("call " + name)) return nullptr;
    return Object(name == "get_runtime_info" ? "info" : "result",
                  Text("runtime info", "Fake Python"));
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
    ++locksTaken;
    Record("PyGILState_Ensure() = " + std::to_string(state));
    return state;
}

void PyGILState_Release(int state) {
    Record("PyGILState_Release(" + std::to_string(state) + ")");
    --locksTaken;
    if (state == 1) LetLockGo();
}

int PyGILState_Check() {
    const auto answer = static_cast<int>(Number("lock check", HoldsLock() ? 1 : 0));
    Record("PyGILState_Check() = " + std::to_string(answer));
    return answer;
}

void* PyEval_SaveThread() {
    Record("PyEval_SaveThread()");
    LetLockGo();
    return Object("thread state " + std::to_string(NextSavedThread()));
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
    return fails ? nullptr : Object("bytes", std::string(bytes, static_cast<std::size_t>(length)));
}

PyObject* PyTuple_Pack(std::ptrdiff_t count, ...) {
    Record("PyTuple_Pack(" + std::to_string(count) + ")");
    va_list items;
    va_start(items, count);
    const PyObject* bytes = va_arg(items, PyObject*);
    va_end(items);
    if (MustFail("PyTuple_Pack")) return nullptr;
    return Object("arguments", WithoutHeader(bytes->bytes));
}

#ifdef FAKE_PYTHON_OPTIONAL

PyObject PyByteArray_Type{"bytearray type", ""};
PyObject systemExit{"SystemExit", ""};
PyObject* PyExc_SystemExit = &systemExit;

void Py_IncRef(PyObject* object) {
    Record("Py_IncRef(" + Name(object) + ")");
}

void* PyThreadState_Swap(void* state) {
    Record("PyThreadState_Swap(" + Name(static_cast<PyObject*>(state)) + ")");
    return nullptr;
}

// Not recorded: the traces are those of the required functions.
void* PyGILState_GetThisThreadState() {
    return Number("host thread") != 0 ? &systemExit : nullptr;
}

// Its presence tells that this is 3.13 or newer; the bridge does not call it.
void* PyThreadState_GetUnchecked() {
    Record("PyThreadState_GetUnchecked()");
    return nullptr;
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

#ifdef FAKE_PYTHON_THREAD_STATES

// Interpreters and thread states are the numbers from 1 on; the walk is not recorded.
void* PyInterpreterState_Head() {
    return Numbered(1, "interpreters");
}

void* PyInterpreterState_Next(void* interpreter) {
    return Numbered(reinterpret_cast<std::intptr_t>(interpreter) + 1, "interpreters");
}

void* PyInterpreterState_ThreadHead(void*) {
    return Numbered(1, "thread states");
}

void* PyThreadState_Next(void* state) {
    return Numbered(reinterpret_cast<std::intptr_t>(state) + 1, "thread states");
}

#endif

#ifdef FAKE_PYTHON_KEPT_STATES

void* PyGILState_GetThisThreadState() {
    return locksTaken > 0 ? &Shared() : nullptr;
}

void PyThreadState_Clear(void* state) {
    Record("PyThreadState_Clear(" + Name(static_cast<PyObject*>(state)) + ")");
}

void PyThreadState_Delete(void* state) {
    Record("PyThreadState_Delete(" + Name(static_cast<PyObject*>(state)) + ")");
}

#endif

#ifdef FAKE_PYTHON_DELETING_UNBINDS

// Its presence tells that this is 3.12 or newer; the bridge does not call it.
PyObject* PyErr_GetRaisedException() {
    Record("PyErr_GetRaisedException()");
    return nullptr;
}

void* PyInterpreterState_Get() {
    Record("PyInterpreterState_Get()");
    return Object("interpreter");
}

void* PyThreadState_New(void* interpreter) {
    Record("PyThreadState_New(" + Name(static_cast<PyObject*>(interpreter)) + ")");
    return MustFail("PyThreadState_New") ? nullptr : Object("stand-in");
}

void* PyThreadState_Swap(void* state) {
    Record("PyThreadState_Swap(" + Name(static_cast<PyObject*>(state)) + ")");
    return Object("own state");
}

void PyThreadState_DeleteCurrent() {
    Record("PyThreadState_DeleteCurrent()");
    LetLockGo();
}

void PyEval_RestoreThread(void* state) {
    TakeLock();
    Record("PyEval_RestoreThread(" + Name(static_cast<PyObject*>(state)) + ")");
}

#endif

}  // extern "C"
