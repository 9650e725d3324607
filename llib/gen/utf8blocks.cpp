#include "utf8blocks.h"

#include <atomic>

namespace llib_utf8 {
namespace {

std::atomic<int> gLevelLimit{kBlocksAvx512};

BlockLevel ProcessorLevel() {
#if defined(__x86_64__)
    // The decoder gathers bytes with VBMI and both coders compress with VBMI2; the encoder
    // also counts leading zeros (CD), shifts bytes out of quadwords (VBMI) and uses PDEP.
    static const BlockLevel level =
        __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512cd") &&
                __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") &&
                __builtin_cpu_supports("bmi2")
            ? kBlocksAvx512
        : __builtin_cpu_supports("avx2") ? kBlocksAvx2
                                         : kBlocksNone;
    return level;
#else
    return kBlocksNone;
#endif
}

int Level() {
    const int limit = gLevelLimit.load(std::memory_order_relaxed);
    const int level = ProcessorLevel();
    return level < limit ? level : limit;
}

} // namespace

#if defined(__x86_64__)

DecodeBlocksFunction BlockDecoder() {
    return Level() >= kBlocksAvx512 ? DecodeBlocksAvx512 : nullptr;
}

EncodeBlocksFunction BlockEncoder() {
    const int level = Level();
    return level >= kBlocksAvx512 ? EncodeBlocksAvx512
           : level >= kBlocksAvx2 ? EncodeBlocksAvx2
                                  : nullptr;
}

#else

DecodeBlocksFunction BlockDecoder() {
    return nullptr;
}

EncodeBlocksFunction BlockEncoder() {
    return nullptr;
}

#endif

void LimitBlockLevel(BlockLevel level) {
    gLevelLimit.store(level, std::memory_order_relaxed);
}

} // namespace llib_utf8
