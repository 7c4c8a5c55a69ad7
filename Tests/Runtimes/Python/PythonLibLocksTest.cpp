// Which lock guards which creation, and what happens when taking one fails or a constructor does.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <system_error>

#include "Tests/Native/AllocationShim.h"
#include "Tests/Support/Bridge.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/LockShim.h"

using Quorvalen::Native::Definitions::RuntimeOperationMode;
using Quorvalen::Native::Interfaces::IReceiver;
using Quorvalen::Native::Interfaces::ITransmitter;

namespace {

class PythonLibLocksTest : public testing::Test {
  protected:
    PythonLibLocksTest() { layout.WithServices(); }

    const void* Lock(const std::string& name) const { return bridge.Address(name); }
    bool IsFree(const std::string& name) const {
        auto& lock = bridge.Variable<pthread_rwlock_t>(name);
        if (pthread_rwlock_trywrlock(&lock) != 0) return false;
        pthread_rwlock_unlock(&lock);
        return true;
    }
    int Mode() const {
        return static_cast<int>(bridge.Variable<RuntimeOperationMode>("operationMode"));
    }
    int SendCommand() const {
        unsigned char message[1] = {};
        return bridge.C<int(unsigned char*, int)>("SendCommand")(message, 1);
    }

    Layout layout;
    Bridge bridge{layout};
};

using Locks = std::vector<const void*>;

// The code of the std::system_error that `operation` raises, 0 when it raises none.
template <typename Operation>
int SystemErrorOf(Operation operation) {
    try {
        operation();
    } catch (const std::system_error& error) {
        return error.code() == std::error_code(EDEADLK, std::generic_category())
                   ? error.code().value()
                   : -1;
    }
    return 0;
}

TEST_F(PythonLibLocksTest, OneLockOrdersTheCreationOfBothSingletons) {
    bridge.CreateReceiver(1);
    bridge.CreateTransmitter(1);
    EXPECT_EQ((Locks{Lock("createReceiverMutex"), Lock("createReceiverMutex")}), LockShim::Taken());
}

TEST_F(PythonLibLocksTest, TheForwardingEntryPointsCreateUnderALockOfTheirOwn) {
    SendCommand();
    EXPECT_EQ((Locks{Lock("setOperationModeForTransmitterMutex")}), LockShim::Taken());
    SendCommand();
    bridge.Cpp<int()>("SetOperationModeForTransmitter()")();
    EXPECT_EQ(1U, LockShim::Taken().size());
}

TEST_F(PythonLibLocksTest, WhatExistsIsReturnedWithoutALock) {
    bridge.CreateReceiver(1);
    bridge.CreateTransmitter(1);
    LockShim::Clear();
    bridge.CreateReceiver(1);
    bridge.CreateTransmitter(0);
    bridge.C<void*()>("GetReceiver")();
    bridge.C<void*()>("GetTransmitter")();
    SendCommand();
    EXPECT_EQ(Locks{}, LockShim::Taken());
}

TEST_F(PythonLibLocksTest, LocksAreFreeAfterwards) {
    bridge.CreateReceiver(1);
    bridge.CreateTransmitter(1);
    SendCommand();
    EXPECT_TRUE(IsFree("createReceiverMutex"));
    EXPECT_TRUE(IsFree("createTransmitterMutex"));
    EXPECT_TRUE(IsFree("setOperationModeForTransmitterMutex"));
}

TEST_F(PythonLibLocksTest, TheLockIsFreeAfterAConstructorThatRaised) {
    EXPECT_NE("no exception", FailureOf([&] { bridge.CreateReceiver(-1); }));
    EXPECT_TRUE(IsFree("createReceiverMutex"));
}

TEST_F(PythonLibLocksTest, ADeadlockEscapesFromCreateReceiver) {
    LockShim::AnswerOnce(EDEADLK);
    EXPECT_EQ(35, SystemErrorOf([&] { bridge.CreateReceiver(1); }));
    EXPECT_EQ(nullptr, bridge.Variable<IReceiver*>("receiver"));
    EXPECT_EQ(-1, Mode());
    EXPECT_EQ("Undefined error", bridge.NativeError());
    EXPECT_EQ("", ContentsOf(ErrorLogFile(layout.Root())));
    EXPECT_NE(nullptr, bridge.CreateReceiver(1));
}

TEST_F(PythonLibLocksTest, ADeadlockEscapesFromCreateTransmitter) {
    LockShim::AnswerOnce(EDEADLK);
    EXPECT_EQ(35, SystemErrorOf([&] { bridge.CreateTransmitter(0); }));
    EXPECT_EQ(nullptr, bridge.Variable<ITransmitter*>("transmitter"));
    EXPECT_EQ(-1, Mode());
    EXPECT_NE(nullptr, bridge.CreateTransmitter(0));
}

TEST_F(PythonLibLocksTest, ADeadlockEscapesFromSetOperationModeForTransmitter) {
    const auto set = bridge.Cpp<int()>("SetOperationModeForTransmitter()");
    LockShim::AnswerOnce(EDEADLK);
    EXPECT_EQ(35, SystemErrorOf(set));
    EXPECT_EQ(-1, Mode());
    EXPECT_EQ(0, set());
}

TEST_F(PythonLibLocksTest, ADeadlockInsideSendCommandIsItsStatusAndTheNextOneStartsUp) {
    LockShim::AnswerOnce(EDEADLK);
    EXPECT_EQ(-2, SendCommand());
    EXPECT_EQ(std::error_code(EDEADLK, std::generic_category()).message(), bridge.NativeError());
    EXPECT_TRUE(bridge.Variable<bool>("firstCall"));
    EXPECT_EQ(nullptr, bridge.Variable<ITransmitter*>("transmitter"));
    SendCommand();
    EXPECT_FALSE(bridge.Variable<bool>("firstCall"));
    EXPECT_NE(nullptr, bridge.Variable<ITransmitter*>("transmitter"));
}

TEST_F(PythonLibLocksTest, OtherResultsOfTheLockCallAreNotLookedAt) {
    LockShim::AnswerOnce(EAGAIN);
    EXPECT_NE(nullptr, bridge.CreateReceiver(1));
    LockShim::AnswerOnce(EINVAL);
    EXPECT_NE(nullptr, bridge.CreateTransmitter(1));
}

// Every allocation of a creation fails once, the first, the second and so on, until none is left.
// Returns how many there were.
template <typename Create>
int FailEachAllocationOf(Create create, const std::function<void()>& checkAfterFailure) {
    const void* const bridge = AllocationShim::LibraryOf(reinterpret_cast<void*>(create));
    for (int failing = 1;; ++failing) {
        AllocationShim::FailIn(bridge, failing);
        const std::string failure = FailureOf([&] { create(1); });
        if (!AllocationShim::FailNoMore()) return failing - 1;
        EXPECT_EQ("std::bad_alloc", failure) << "allocation " << failing;
        checkAfterFailure();
    }
}

TEST_F(PythonLibLocksTest, AReceiverThatCannotBeBuiltLeavesNothingBehind) {
    const auto create = bridge.C<IReceiver*(int)>("CreateReceiver");
    const IReceiver* const& receiver = bridge.Variable<const IReceiver*>("receiver");
    const int failures = FailEachAllocationOf(create, [&] {
        EXPECT_EQ(nullptr, receiver);
        EXPECT_EQ(1, Mode());
        EXPECT_TRUE(IsFree("createReceiverMutex"));
    });
    EXPECT_LE(2, failures);  // the receiver and its launcher, at least
    EXPECT_NE(nullptr, receiver);
}

TEST_F(PythonLibLocksTest, ATransmitterThatCannotBeBuiltLeavesNothingBehind) {
    const auto create = bridge.C<ITransmitter*(int)>("CreateTransmitter");
    const ITransmitter* const& transmitter = bridge.Variable<const ITransmitter*>("transmitter");
    const int failures = FailEachAllocationOf(create, [&] {
        EXPECT_EQ(nullptr, transmitter);
        EXPECT_TRUE(IsFree("createReceiverMutex"));
    });
    EXPECT_LE(1, failures);
    EXPECT_NE(nullptr, transmitter);
}

}  // namespace
