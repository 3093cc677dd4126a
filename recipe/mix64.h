// The SplitMix64 step. Every seed of the system goes through it: the recipe
// generator's engine, each output tensor's seed and each row's draws. Pure; safe
// on any thread.
#pragma once

#include <cstdint>

namespace tevrin {

constexpr uint64_t mix64(uint64_t x) {
    uint64_t z = x + 0x9e3779b97f4a7c15ull;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

}  // namespace tevrin
