// MT19937-64, the published 64-bit Mersenne Twister with its published
// single-value seeding: the same output stream as std::mt19937_64.
//
// An engine lives for one row (or one block of rows) and is never shared. It is
// spelled out here because the library's twist tests the low bit of each word with
// a branch that random state mispredicts half of the time; this twist selects with
// a mask, and tempers a whole state at once in a loop the compiler vectorises;
// dare and della run several times faster, with identical outputs.
//
// Threads: an engine is owned by one call on one thread.
#pragma once

#include <cstdint>

namespace tevrin {

struct RowEngine {
    static constexpr int kWords = 312;
    uint64_t state[kWords];
    uint64_t tempered[kWords];  // the outputs of the current state, made in one pass
    int index = kWords;         // the first output regenerates the state

    explicit RowEngine(uint64_t seed = 5489u);
    uint64_t operator()() {
        if (index == kWords) {
            refill();
        }
        return tempered[index++];
    }
    void refill();  // regenerates the state and tempers all of its outputs
};

}  // namespace tevrin
