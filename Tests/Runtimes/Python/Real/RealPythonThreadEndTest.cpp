// The end of threads, of forked children and of commands within commands while the interpreter
// lives until the process ends: nothing hangs, nothing crashes, nothing is given back twice.
#include <pthread.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "Tests/Runtimes/Python/Real/LongLivedPython.h"
#include "Tests/Runtimes/Python/TestThreads.h"

namespace {

class RealPythonThreadEndTest : public LongLivedPython {
  protected:
    // Python code that calls the host's function: with the interpreter lock given up as for any C
    // function ("CFUNCTYPE"), or held throughout ("PYFUNCTYPE").
    std::string Calling(const std::string& type) {
        return "import ctypes\nctypes." + type + "(None)(" + CallBackAddress() + ")()\n";
    }
    void LeaveEndedThreads(int count) {
        for (int i = 0; i < count; ++i) std::thread([&] { Run(kKeepObject); }).join();
    }

    static constexpr const char* kKeepObject =
        "import sys, threading\n"
        "if not hasattr(sys, 'own'): sys.own = threading.local()\n"
        "sys.own.data = [object()]";

    // Returns when the worker's thread has a state that is kept, with an object in it.
    void KeepAnObjectOn(Worker& worker) {
        const auto kept = std::make_shared<std::promise<void>>();
        worker.Begin([this, kept] {
            Run(kKeepObject);
            kept->set_value();
        });
        kept->get_future().wait();
    }
};

QUORVALEN_ON_EVERY_PYTHON(RealPythonThreadEndTest);

TEST_P(RealPythonThreadEndTest, AThreadEndsWhileTheHolderOfTheInterpreterLockJoinsIt) {
    Initialize();
    const int before = ThreadStates();
    Worker other;
    KeepAnObjectOn(other);
    CallBack([&] { other.Then([] {}); });  // joins
    EXPECT_EQ(Command(Calling("PYFUNCTYPE")), Run(Calling("PYFUNCTYPE")));
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

TEST_P(RealPythonThreadEndTest, ThreadsEndWhileALongCallHoldsTheInterpreterLock) {
    Initialize();
    const int before = ThreadStates();
    std::promise<void> inside;
    std::promise<void> release;
    CallBack([&] {
        inside.set_value();
        release.get_future().wait();
    });
    Worker ending;
    KeepAnObjectOn(ending);
    std::thread holder([&] { Run(Calling("PYFUNCTYPE")); });
    inside.get_future().wait();
    ending.Then([] {});
    release.set_value();
    holder.join();
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

TEST_P(RealPythonThreadEndTest, ACommandWithinACommandGivesStatesBack) {
    Initialize();
    Run(kKeepObject);
    const int before = ThreadStates();
    for (const char* type : {"CFUNCTYPE", "CFUNCTYPE"}) {
        CallBack([&] {
            LeaveEndedThreads(3);
            EXPECT_EQ("inner", Run("result = bytearray(b'inner')"));
            EXPECT_EQ("inner", Run("result = bytearray(b'inner')"));
        });
        const std::string outer = Calling(type) + "result = bytearray(b'outer')";
        EXPECT_EQ("outer", Run(outer));
        std::thread([&] { EXPECT_EQ("outer", Run(outer)); }).join();
        Run("pass");
        EXPECT_EQ(before, ThreadStates());
    }
}

// Destroying a thread's data runs Python code on the thread that gives the state back; that code
// may send commands itself.
TEST_P(RealPythonThreadEndTest, ADestructorOfAThreadsDataSendsACommand) {
    Initialize();
    Run("import sys; sys.log = []");
    const int before = ThreadStates();
    CallBack([&] {
        LeaveEndedThreads(1);
        Run("import sys; sys.log.append('inner')");
    });
    const std::string keep =
        "import sys, threading, ctypes\n"
        "class Sends(object):\n"
        "    def __del__(self): self.call()\n"
        "Sends.call = staticmethod(ctypes.CFUNCTYPE(None)(" +
        CallBackAddress() +
        "))\n"
        "if not hasattr(sys, 'sends'): sys.sends = threading.local()\n"
        "sys.sends.data = Sends()";
    const std::string log = "import sys; result = bytearray(repr(sys.log).encode())";
    for (int i = 0; i < 3; ++i) std::thread([&] { Run(keep); }).join();
    const std::string logged = Run(log);
    std::thread([&] { Run("pass"); }).join();
    EXPECT_EQ("['inner', 'inner', 'inner']", Run(log)) << logged;
    EXPECT_EQ(before, ThreadStates());
}

TEST_P(RealPythonThreadEndTest, ThreadsThatExitOrAreCancelledGiveTheirStatesBack) {
    Initialize();
    Run("pass");
    const int before = ThreadStates();
    for (int round = 0; round < 20; ++round) {
        std::thread([&] {
            Run(kKeepObject);
            pthread_exit(nullptr);
        }).join();
        std::promise<void> ready;
        std::thread cancelled([&] {
            Run(kKeepObject);
            ready.set_value();
            for (;;) pause();
        });
        ready.get_future().wait();
        pthread_cancel(cancelled.native_handle());
        cancelled.join();
    }
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

// The system has forgotten the thread's state by then, so such a command runs on one of its own.
TEST_P(RealPythonThreadEndTest, ACommandFromAKeysFunctionAtTheThreadsEndIsAnswered) {
    Initialize();
    Run(kKeepObject);
    const int before = ThreadStates();
    static std::function<void()> last;
    static std::string answer;
    last = [&] { answer = Run("result = bytearray(b'last')"); };
    pthread_key_t earlier = 0;
    ASSERT_EQ(0, pthread_key_create(&earlier, [](void*) { last(); }));
    for (int round = 0; round < 3; ++round) {
        answer.clear();
        std::thread([&] {
            Run(kKeepObject);
            pthread_setspecific(earlier, &earlier);
        }).join();
        EXPECT_EQ("last", answer);
    }
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
    pthread_key_delete(earlier);
}

TEST_P(RealPythonThreadEndTest, TheFirstCommandOfAThreadAtItsEndIsAnswered) {
    Initialize();
    Run(kKeepObject);
    const int before = ThreadStates();
    static std::function<void()> last;
    static std::string answer;
    last = [&] { answer = Run("result = bytearray(b'first')"); };
    pthread_key_t key = 0;
    ASSERT_EQ(0, pthread_key_create(&key, [](void*) { last(); }));
    std::thread([&] { pthread_setspecific(key, &key); }).join();
    EXPECT_EQ("first", answer);
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
    pthread_key_delete(key);
}

// Python frees the other threads' states in the child of its own fork; a host's fork copies them.
TEST_P(RealPythonThreadEndTest, AChildOfTheHostsForkSendsCommands) {
    Initialize();
    LeaveEndedThreads(3);
    EXPECT_EQ(0, StatusOfChild([&] {
                  EXPECT_EQ("child", Run("result = bytearray(b'child')"));
                  std::thread([&] { EXPECT_EQ(Command("pass"), Run("pass")); }).join();
                  EXPECT_EQ("child", Run("result = bytearray(b'child')"));
              }));
    EXPECT_EQ(Command("pass"), Run("pass"));
}

TEST_P(RealPythonThreadEndTest, AChildOfPythonsForkSendsCommands) {
    Initialize();
    Run(kKeepObject);
    const int before = ThreadStates();
    CallBack([&] {
        alarm(60);
        if (Run("result = bytearray(b'child')") != "child") _exit(1);
        std::thread([&] { Run(kKeepObject); }).join();
        Run("pass");
        _exit(ThreadStates() == 1 ? 0 : 2);
    });
    const auto forkOn = [&] {
        LeaveEndedThreads(0);
        return Run("import os, sys, ctypes\ncall = ctypes.CFUNCTYPE(None)(" + CallBackAddress() +
                   ")\npid = os.fork()\nif pid == 0: call()\n"
                   "result = bytearray(str(os.waitpid(pid, 0)[1]).encode())");
    };
    EXPECT_EQ("0", forkOn());
    std::thread([&] { EXPECT_EQ("0", forkOn()); }).join();
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

// Threads that ended between the fork's command being let in and the fork itself.
TEST_P(RealPythonThreadEndTest, StatesThatWaitAtThePythonForkAreNotGivenBackInTheChild) {
    Initialize();
    const int before = ThreadStates();
    Worker ending;
    KeepAnObjectOn(ending);
    int calls = 0;
    CallBack([&] {
        if (++calls == 1) return ending.Then([] {});
        alarm(60);
        _exit(Run("result = bytearray(b'child')") == "child" && ThreadStates() == 1 ? 0 : 1);
    });
    EXPECT_EQ("0", Run("import os, ctypes\ncall = ctypes.CFUNCTYPE(None)(" + CallBackAddress() +
                       ")\ncall()\npid = os.fork()\nif pid == 0: call()\n"
                       "result = bytearray(str(os.waitpid(pid, 0)[1]).encode())"));
    Run("pass");
    EXPECT_EQ(before, ThreadStates());
}

}  // namespace
