#include "Runtimes/Python/Native/AsymmetricBarrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

long MemoryBarrierCall(int command) {
    return syscall(SYS_membarrier, command, 0);
}

bool IsOffered() {
    const long offered = MemoryBarrierCall(MEMBARRIER_CMD_QUERY);
    return offered > 0 && (offered & MEMBARRIER_CMD_GLOBAL) != 0;
}

}  // namespace

const bool AsymmetricBarrier::heavyOneIsEnough = IsOffered();

// The faster kinds of the call need a registration, which would make every start wait instead.
bool AsymmetricBarrier::Heavy() {
    _mm_mfence();
    return !heavyOneIsEnough || MemoryBarrierCall(MEMBARRIER_CMD_GLOBAL) == 0;
}
