// A host program as users write it: opens the bridge, runs a command, and ends in one of several
// ways while the interpreter is up. Exits with 0 when everything went well.
//
//   EndingHost <bridge> <way>    return, exit, thread, delete, delete-on-thread, close,
//                                return-under-commands, exit-on-worker
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "Native/Interfaces/IReceiver.h"

using Quorvalen::Native::Interfaces::IReceiver;

namespace {

void RunCommand(IReceiver* receiver) {
    std::string command(11, '\0');
    command[0] = 5;
    command[9] = 8;
    command += "import threading, math, json";
    auto* bytes = reinterpret_cast<unsigned char*>(command.data());
    const int length = receiver->SendCommand(bytes, static_cast<int>(command.size()));
    std::string response(static_cast<std::size_t>(length), '\0');
    receiver->ReadResponse(reinterpret_cast<unsigned char*>(response.data()), length);
}

// Threads that send commands until the process is gone.
void KeepBusy(IReceiver* receiver) {
    static std::atomic<int> busy{0};
    for (int i = 0; i < 4; ++i) {
        std::thread([receiver] {
            for (;;) {
                RunCommand(receiver);
                ++busy;
            }
        }).detach();
    }
    while (busy < 100) std::this_thread::yield();
}

}  // namespace

int main(int, char** arguments) {
    void* library = dlopen(arguments[1], RTLD_NOW);
    if (library == nullptr) return 2;
    IReceiver* receiver =
        reinterpret_cast<IReceiver* (*)(int)>(dlsym(library, "CreateReceiver"))(1);
    const std::string way = arguments[2];
    if (way == "thread") {
        std::thread([&] {
            receiver->Initialize(8, 5, 0);
            RunCommand(receiver);
        }).join();
        return 0;
    }
    receiver->Initialize(8, 5, 0);
    RunCommand(receiver);
    std::thread([&] { RunCommand(receiver); }).join();
    if (way == "exit") std::exit(0);
    if (way == "return-under-commands" || way == "exit-on-worker") KeepBusy(receiver);
    if (way == "exit-on-worker") {
        std::thread([&] {
            RunCommand(receiver);
            std::exit(0);
        }).join();
    }
    if (way == "delete") delete receiver;
    if (way == "delete-on-thread") std::thread([&] { delete receiver; }).join();
    if (way == "close") dlclose(library);
    return 0;
}
