// A bridge library that carries the same exported names as the bridge under test. A test opens it
// with RTLD_GLOBAL first: the bridge must keep to its own variables, functions, directory and
// singletons.
#include <string>

int operationMode = 77;
bool firstCall = false;
void* receiver = &operationMode;
void* transmitter = &operationMode;
std::string errorMessage = "namesake";
void* pythonFunction = &operationMode;

void emptyFunctionInNativeLib() {}
void AtStartUp() {
    operationMode = 78;
}
int SetOperationModeForTransmitter() {
    operationMode = 79;
    return 0;
}
void* getPythonCallbackFunction() {
    return nullptr;
}

namespace Quorvalen::Native::LibrariesFinder {
class LibrariesFinder {
  public:
    static std::string getThisLibraryPath();
    static const std::string& getPathToDir();
};
std::string LibrariesFinder::getThisLibraryPath() {
    return "/namesake/";
}
const std::string& LibrariesFinder::getPathToDir() {
    static const std::string directory = "/namesake/";
    return directory;
}
}  // namespace Quorvalen::Native::LibrariesFinder

extern "C" {
void* CreateReceiver(int) {
    return &operationMode;
}
void* CreateTransmitter(int) {
    return &operationMode;
}
void* GetReceiver() {
    return receiver;
}
void* GetTransmitter() {
    return transmitter;
}
int SendCommand(unsigned char*, int) {
    return 555;
}
int ReadResponse(unsigned char*, int) {
    return 555;
}
const char* GetNativeError() {
    return "namesake";
}
}
