#include "utf8blocks.h"

namespace llib_utf8 {

std::atomic<DecodeBlocksFunction> gBlockDecoder{nullptr};
std::atomic<EncodeBlocksFunction> gBlockEncoder{nullptr};

namespace {

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

// Until this runs (a conversion from another library's start-up code, say), the step-by-step
// paths serve.
struct ChooseAtLoad {
    ChooseAtLoad() { LimitBlockLevel(kBlocksAvx512); }
} gChooseAtLoad;

} // namespace

void LimitBlockLevel(BlockLevel limit) {
    const int level = ProcessorLevel() < limit ? ProcessorLevel() : limit;
#if defined(__x86_64__)
    gBlockDecoder.store(level >= kBlocksAvx512 ? DecodeBlocksAvx512
                        : level >= kBlocksAvx2 ? DecodeBlocksAvx2
                                               : nullptr,
                        std::memory_order_relaxed);
    gBlockEncoder.store(level >= kBlocksAvx512 ? EncodeBlocksAvx512
                        : level >= kBlocksAvx2 ? EncodeBlocksAvx2
                                               : nullptr,
                        std::memory_order_relaxed);
#else
    (void)level;
#endif
}

} // namespace llib_utf8
