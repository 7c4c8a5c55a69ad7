// A command may cost the routing no memory: after the first one nothing is allocated between the
// exported function and the other library's receiver.
#include "Tests/Native/AllocationShim.h"
#include "Tests/Native/InMemoryFixture.h"

namespace {

class RoutingAllocationTest : public InMemoryTest {};

TEST_F(RoutingAllocationTest, AnInMemoryCommandAllocatesNothingAfterTheFirst) {
    With("FakeEchoBridge", "Netcore");
    const auto send = bridge.C<int(unsigned char*, int)>("SendCommand");
    const auto read = bridge.C<int(unsigned char*, int)>("ReadResponse");
    Bytes command = InMemoryCommand(kNetcore);
    Bytes response(command.size(), kNetcore);
    const long long before = AllocationShim::Count();
    EXPECT_EQ(11, send(command.data(), 11));
    EXPECT_EQ(0, read(response.data(), 11));
    const long long afterTheFirst = AllocationShim::Count();
    EXPECT_GT(afterTheFirst, before);  // the count counts: the first command builds the channel
    for (int i = 0; i < 1000; ++i) {
        send(command.data(), 11);
        read(response.data(), 11);
    }
    EXPECT_EQ(afterTheFirst, AllocationShim::Count());
    EXPECT_EQ(command, response);
}

}  // namespace
