// MT19937-64, the published 64-bit Mersenne Twister with its published
// single-value seeding: the same output stream as std::mt19937_64.
//
// An engine lives for one row (or one block of rows) and is never shared. It is
// spelled out here because the library's twist tests the low bit of each word with
// a branch that random state mispredicts half of the time; this twist selects with
// a mask and makes dare and della several times faster, with identical outputs.
#pragma once

#include <cstdint>

namespace tevrin {

struct RowEngine {
    static constexpr int kWords = 312;
    uint64_t state[kWords];
    int index = kWords;  // the first output regenerates the state

    explicit RowEngine(uint64_t seed = 5489u);
    uint64_t operator()();
    void discard(uint64_t count);
};

}  // namespace tevrin
