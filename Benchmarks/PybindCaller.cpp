// One round trip through pybind11 in the way of its manual. It is compiled once for each Python,
// against that Python's headers, and finds Python's functions among those that are loaded already.
#include <pybind11/pybind11.h>

#include <cstring>

namespace py = pybind11;

extern "C" __attribute__((visibility("default"))) long PybindRoundTrip(void* function,
                                                                       const char* bytes,
                                                                       long length, char* buffer) {
    py::gil_scoped_acquire lock;
    const py::handle callable(static_cast<PyObject*>(function));
    const auto result =
        callable(py::bytes(bytes, static_cast<std::size_t>(length))).cast<py::bytearray>();
    const auto size = static_cast<long>(result.size());
    std::memcpy(buffer, PyByteArray_AsString(result.ptr()), static_cast<std::size_t>(size));
    return size;
}
