// The C++ half of the end-to-end tests: functions that compute, call back into Python, and fail.
#include <Quorvalen/Cpp.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Quorvalen::Cpp::Json;
using Quorvalen::Cpp::Runtime;

int add(int a, int b) {
    return a + b;
}

// Calls the Python function `name` with one argument while the caller waits.
Json callBack(const std::string& name, const Json& argument) {
    return Runtime("Python").Call(name, {argument});
}

// One step down of a conversation in which each side calls the other.
Json descend(const std::string& pythonFunction, int depth) {
    if (depth == 0) return Json::array({"C++ 0"});
    Json steps = Runtime("Python").Call(pythonFunction, {depth - 1});
    steps.push_back("C++ " + std::to_string(depth));
    return steps;
}

// Makes an object of a Python class, fills it through its method, and gives its content back.
Json collect(const std::string& className, const std::vector<int>& items) {
    const Runtime python("Python");
    const Json collector = python.Create(className);
    for (const int item : items) python.CallMethod(collector, "add", {item});
    const Json collected = python.GetAttribute(collector, "items");
    python.Release(collector);
    return collected;
}

void fail(const std::string& message) {
    throw std::out_of_range(message);
}

}  // namespace

QUORVALEN_PLUGIN {
    Quorvalen::Cpp::Register("add", &add);
    Quorvalen::Cpp::Register("call_back", &callBack);
    Quorvalen::Cpp::Register("descend", &descend);
    Quorvalen::Cpp::Register("collect", &collect);
    Quorvalen::Cpp::Register("fail", &fail);
}
