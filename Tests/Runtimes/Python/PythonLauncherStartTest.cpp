// The start of the interpreter against a recording fake of the Python library.
#include <gtest/gtest.h>

#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/Launcher.h"
#include "Tests/Support/Scopes.h"

namespace {

class PythonLauncherStartTest : public testing::Test {
  protected:
    PythonLauncherStartTest() { layout.WithServices().WithReceiverFile(); }

    std::string PythonDirectory() const {
        return layout.NativePrefix() + "../../../../Binaries/Python";
    }

    Layout layout;
};

TEST_F(PythonLauncherStartTest, WalksTheWholeRoadInItsOrder) {
    UsePython(layout, "FakePython");
    Bridge bridge(layout);
    Launcher launcher(bridge, 1);
    Fakes::ClearTrace();
    EXPECT_EQ(0, launcher->Initialize(0));
    EXPECT_EQ(
        Lines({
            "Py_Initialize()",
            "Py_IsInitialized()",
            "PyGILState_Ensure() = 0",
            "PyRun_SimpleString(\"import sys; sys.path.insert(0, '" + PythonDirectory() + "')\")",
            "PyUnicode_DecodeFSDefault(\"quorvalen.core.receiver.Receiver\")",
            "PyImport_Import(module name)",
            "PyModule_GetDict(module)",
            "PyDict_GetItemString(dictionary, \"Receiver\")",
            "PyCallable_Check(Receiver)",
            "PyObject_GetAttrString(Receiver, \"heart_beat\")",
            "PyCallable_Check(heart_beat)",
            "PyObject_GetAttrString(Receiver, \"send_command\")",
            "PyCallable_Check(send_command)",
            "PyObject_GetAttrString(Receiver, \"initialize_exception_handler\")",
            "PyCallable_Check(initialize_exception_handler)",
            "PyObject_CallObject(initialize_exception_handler, null)",
            "PyGILState_Release(0)",
            "PyEval_SaveThread()",
        }),
        PythonTrace());
}

}  // namespace
