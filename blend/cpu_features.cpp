#include "blend/cpu_features.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace tevrin {
namespace {

CpuFeatures read_cpu_features() {
    CpuFeatures f;
#if defined(__x86_64__)
    __builtin_cpu_init();
    f.avx2 = __builtin_cpu_supports("avx2");
    f.fma = __builtin_cpu_supports("fma");
    // F16C is read from CPUID: clang 14 does not know its name in
    // __builtin_cpu_supports. Its instructions are VEX encoded, so they need AVX.
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    f.f16c = __builtin_cpu_supports("avx") && __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 &&
             (ecx & bit_F16C) != 0;
#endif
    return f;
}

}  // namespace

const CpuFeatures& cpu_features() {
    static const CpuFeatures features = read_cpu_features();
    return features;
}

}  // namespace tevrin
