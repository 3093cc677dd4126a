#include "blend/row_engine.h"

namespace tevrin {

namespace {

constexpr int kShift = 156;
constexpr uint64_t kUpper = 0xffffffff80000000ull;
constexpr uint64_t kLower = 0x7fffffffull;
constexpr uint64_t kMatrix = 0xb5026f5aa96619e9ull;

uint64_t twist_word(uint64_t current, uint64_t next, uint64_t far) {
    const uint64_t y = (current & kUpper) | (next & kLower);
    return far ^ (y >> 1) ^ ((0 - (next & 1)) & kMatrix);
}

// Both passes are plain 64-bit integer work that the compiler vectorises; where
// the CPU has AVX2 they run four words at a time (the outputs are the same).
__attribute__((target_clones("avx2", "default"))) void temper(const uint64_t* mt, uint64_t* out) {
    for (int i = 0; i < RowEngine::kWords; ++i) {
        uint64_t z = mt[i];
        z ^= (z >> 29) & 0x5555555555555555ull;
        z ^= (z << 17) & 0x71d67fffeda60000ull;
        z ^= (z << 37) & 0xfff7eee000000000ull;
        out[i] = z ^ (z >> 43);
    }
}

__attribute__((target_clones("avx2", "default"))) void regenerate(uint64_t* mt) {
    constexpr int n = RowEngine::kWords;
    int i = 0;
    for (; i < n - kShift; ++i) {
        mt[i] = twist_word(mt[i], mt[i + 1], mt[i + kShift]);
    }
    for (; i < n - 1; ++i) {
        mt[i] = twist_word(mt[i], mt[i + 1], mt[i + kShift - n]);
    }
    mt[n - 1] = twist_word(mt[n - 1], mt[0], mt[kShift - 1]);
}

}  // namespace

RowEngine::RowEngine(uint64_t seed) {
    state[0] = seed;
    for (int i = 1; i < kWords; ++i) {
        state[i] = 6364136223846793005ull * (state[i - 1] ^ (state[i - 1] >> 62)) + uint64_t(i);
    }
}

void RowEngine::refill() {
    regenerate(state);
    temper(state, tempered);
    index = 0;
}

void RowEngine::discard(uint64_t count) {
    for (; count > 0; --count) {
        (*this)();
    }
}

}  // namespace tevrin
