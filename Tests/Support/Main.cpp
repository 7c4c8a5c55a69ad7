// The main function of the test programs. The bridge's state belongs to the process, so a program
// runs exactly one test; ctest starts it once for each. The variables that the bridge reads are
// cleared first, whatever the developer has set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

// Asked by the leak sanitizer. It takes some thread-local blocks of opened libraries for something
// else (when one lies 16 bytes into a page) and crashes while it reads them at the program's end.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options() {
    return "use_tls=0";
}

// Asked too. The loader keeps its list of globally opened libraries and each thread's last error on
// memory that is not searched.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:add_to_global_resize\nleak:_dlerror_run\nleak:_dl_exception_create\n";
}

int main(int argumentCount, char** arguments) {
    for (const char* variable :
         {"QUORVALEN_PYTHON_RUNTIME_PATH", "QUORVALEN_PYTHON_VERSION", "QUORVALEN_LOGGING_LEVEL",
          "QUORVALEN_PYTHON_BRIDGE", "PYTHONPATH", "PYTHONHOME", "PYTHONSTARTUP"}) {
        unsetenv(variable);
    }
    testing::InitGoogleTest(&argumentCount, arguments);
    if (!testing::GTEST_FLAG(list_tests) && testing::GTEST_FLAG(filter) == "*") {
        std::cerr << "Every test needs a process of its own: run ctest, or name one test with "
                     "--gtest_filter.\n";
        return 1;
    }
    return RUN_ALL_TESTS();
}
