#include "blend/row_engine.h"

#include "blend/cpu_features.h"

namespace tevrin {

namespace {

constexpr int kShift = 156;
constexpr uint64_t kUpper = 0xffffffff80000000ull;
constexpr uint64_t kLower = 0x7fffffffull;
constexpr uint64_t kMatrix = 0xb5026f5aa96619e9ull;

inline __attribute__((always_inline)) uint64_t twist_word(uint64_t current, uint64_t next,
                                                          uint64_t far) {
    const uint64_t y = (current & kUpper) | (next & kLower);
    return far ^ (y >> 1) ^ ((0 - (next & 1)) & kMatrix);
}

// Regenerates the state and tempers all of its outputs: plain 64-bit integer work
// that the compiler vectorises. It is inlined into two copies, one built for AVX2
// (four words at a time) and one for any x86-64 or other CPU; both give the same
// outputs. The copy is picked once at run time, without an ifunc, which the
// sanitizers cannot follow.
inline __attribute__((always_inline)) void refill_words(uint64_t* mt, uint64_t* out) {
    constexpr int n = RowEngine::kWords;
    int i = 0;
    for (; i < n - kShift; ++i) {
        mt[i] = twist_word(mt[i], mt[i + 1], mt[i + kShift]);
    }
    for (; i < n - 1; ++i) {
        mt[i] = twist_word(mt[i], mt[i + 1], mt[i + kShift - n]);
    }
    mt[n - 1] = twist_word(mt[n - 1], mt[0], mt[kShift - 1]);
    for (i = 0; i < n; ++i) {
        uint64_t z = mt[i];
        z ^= (z >> 29) & 0x5555555555555555ull;
        z ^= (z << 17) & 0x71d67fffeda60000ull;
        z ^= (z << 37) & 0xfff7eee000000000ull;
        out[i] = z ^ (z >> 43);
    }
}

void refill_plain(uint64_t* mt, uint64_t* out) {
    refill_words(mt, out);
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) void refill_avx2(uint64_t* mt, uint64_t* out) {
    refill_words(mt, out);
}

#endif

using RefillFn = void (*)(uint64_t*, uint64_t*);

RefillFn refill_for_cpu() {
#if defined(__x86_64__)
    return cpu_features().avx2 ? refill_avx2 : refill_plain;
#else
    return refill_plain;
#endif
}

}  // namespace

RowEngine::RowEngine(uint64_t seed) {
    state[0] = seed;
    for (int i = 1; i < kWords; ++i) {
        state[i] = 6364136223846793005ull * (state[i - 1] ^ (state[i - 1] >> 62)) + uint64_t(i);
    }
}

void RowEngine::refill() {
    refill_for_cpu()(state, tempered);
    index = 0;
}

}  // namespace tevrin
