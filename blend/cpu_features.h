// What vector instructions this CPU offers. The kernels with a vector path
// (blending, decoding, encoding, comparing) choose it at run time from these
// answers; everywhere else, and off x86-64, they run their plain loops.
//
// Thread-safe: the answers are read from the CPU once, by the first caller.
#pragma once

namespace tevrin {

struct CpuFeatures {
    bool avx2 = false;
    bool f16c = false;  // conversions between half and single precision
    bool fma = false;
};

const CpuFeatures& cpu_features();

}  // namespace tevrin
