// The main function of the test programs. The bridge's state belongs to the process, so a program
// runs exactly one test; ctest starts it once for each. The variables that the bridge reads are
// cleared first, whatever the developer has set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

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
