// The names of the runtimes and of their bridge libraries.
#include <gtest/gtest.h>

#include <limits>

#include "Tests/Support/Bridge.h"

namespace {

class RuntimeNameHandlerTest : public testing::Test {
  protected:
    std::string Name(int runtime) const {
        return bridge.Cpp<std::string(int)>(
            "Quorvalen::Native::RuntimeNameHandler::RuntimeNameHandler::GetRuntimeName(int)")(
            runtime);
    }
    std::string Library(int runtime) const {
        return bridge.Cpp<std::string(int)>(
            "Quorvalen::Native::RuntimeNameHandler::RuntimeNameHandler::getRuntimeLibraryName"
            "(int)")(runtime);
    }

    Layout layout;
    Bridge bridge{layout};
};

TEST_F(RuntimeNameHandlerTest, EveryKnownIdHasItsNameAndItsLibrary) {
    const std::vector<std::string> names = {"Clr",  "Go",     "Jvm", "Netcore", "Perl",   "Python",
                                            "Ruby", "Nodejs", "Cpp", "Php",     "Python2"};
    for (int id = 0; id <= 10; ++id) {
        const std::string& name = names[static_cast<std::size_t>(id)];
        EXPECT_EQ(name, Name(id));
        EXPECT_EQ("libQuorvalen" + name + "RuntimeNative.so", Library(id));
    }
}

TEST_F(RuntimeNameHandlerTest, IdsOutsideTheTableAreUnknown) {
    for (const int id :
         {11, -1, 255, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_EQ("Unknown", Name(id)) << id;
        EXPECT_EQ("Unknown", Library(id)) << id;
    }
}

TEST_F(RuntimeNameHandlerTest, Python2HasALibraryOfItsOwn) {
    EXPECT_EQ("libQuorvalenPython2RuntimeNative.so", Library(10));
    EXPECT_NE(Library(5), Library(10));
}

}  // namespace
