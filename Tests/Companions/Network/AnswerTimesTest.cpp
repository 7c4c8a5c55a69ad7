// When the client looks for an answer without sleeping, and what it sees.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Companions/NetworkClient/DeadlineSocket.h"

namespace {

using namespace Quorvalen::Companions::Network;
using std::chrono::microseconds;

void Note(AnswerTimes& times, microseconds time, int count) {
    for (int i = 0; i < count; ++i) times.Note(time);
}

TEST(AnswerTimesTest, AreShortAfterMany) {
    AnswerTimes times;
    EXPECT_FALSE(times.AreShort());
    Note(times, microseconds(99), 255);
    EXPECT_FALSE(times.AreShort());
    Note(times, microseconds(99), 1);
    EXPECT_TRUE(times.AreShort());
}

TEST(AnswerTimesTest, OneThatIsNotShortEndsIt) {
    AnswerTimes times;
    Note(times, microseconds(0), 1000);
    Note(times, microseconds(100), 1);
    Note(times, microseconds(0), 255);
    EXPECT_FALSE(times.AreShort());
    Note(times, microseconds(0), 1);
    EXPECT_TRUE(times.AreShort());
}

TEST(AnswerTimesTest, ASocketLooksReadableWhenAnythingCanBeRead) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    EXPECT_FALSE(LooksReadable(ends[0]));
    ASSERT_EQ(1, send(ends[1], "x", 1, 0));
    EXPECT_TRUE(LooksReadable(ends[0]));
    char byte = 0;
    ASSERT_EQ(1, recv(ends[0], &byte, 1, 0));
    EXPECT_FALSE(LooksReadable(ends[0]));
    close(ends[1]);
    EXPECT_TRUE(LooksReadable(ends[0]));  // the end of the stream
    close(ends[0]);
}

}  // namespace
