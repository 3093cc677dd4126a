#include "fuse/compare_sums.h"

#include <cassert>
#include <cmath>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tevrin {

namespace {

constexpr int kLanes = 8;

struct Lanes {
    double v[kLanes] = {};

    double total() const {
        return ((v[0] + v[1]) + (v[2] + v[3])) + ((v[4] + v[5]) + (v[6] + v[7]));
    }
};

// The sums of one donor against the reference; the reference's own squares go
// along with the first donor (`rr` not null), so the reference is read once.
struct PairLanes {
    Lanes* rr = nullptr;
    Lanes ss, dd;
};

// Element i goes to lane i % 8: the wide paths below handle the whole groups of
// eight with lane j in vector element j, and leave the rest to this loop, which
// starts at a multiple of eight.
void add_pairs_plain(const float* r, const float* s, int64_t from, int64_t count, PairLanes& p) {
    for (int64_t i = from; i < count; ++i) {
        const double x = r[i];
        const double y = s[i];
        const double diff = y - x;
        if (p.rr != nullptr) {
            p.rr->v[i % kLanes] = std::fma(x, x, p.rr->v[i % kLanes]);
        }
        p.ss.v[i % kLanes] = std::fma(y, y, p.ss.v[i % kLanes]);
        p.dd.v[i % kLanes] = std::fma(diff, diff, p.dd.v[i % kLanes]);
    }
}

#if defined(__x86_64__)
__attribute__((target("avx512f"))) int64_t add_pairs_avx512(const float* r, const float* s,
                                                            int64_t count, PairLanes& p) {
    const __m512d zero = _mm512_setzero_pd();
    __m512d rr = zero, ss = zero, dd = zero;
    int64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        const __m512d x = _mm512_maskz_cvtps_pd(0xff, _mm256_loadu_ps(r + i));
        const __m512d y = _mm512_maskz_cvtps_pd(0xff, _mm256_loadu_ps(s + i));
        const __m512d diff = _mm512_sub_pd(y, x);
        rr = _mm512_fmadd_pd(x, x, rr);
        ss = _mm512_fmadd_pd(y, y, ss);
        dd = _mm512_fmadd_pd(diff, diff, dd);
    }
    if (p.rr != nullptr) {
        _mm512_storeu_pd(p.rr->v, rr);
    }
    _mm512_storeu_pd(p.ss.v, ss);
    _mm512_storeu_pd(p.dd.v, dd);
    return i;
}

// Lanes 0-3 and 4-7 in two registers each.
__attribute__((target("avx2,fma"))) int64_t add_pairs_avx2(const float* r, const float* s,
                                                           int64_t count, PairLanes& p) {
    const __m256d zero = _mm256_setzero_pd();
    __m256d rr0 = zero, rr1 = zero, ss0 = zero, ss1 = zero;
    __m256d dd0 = zero, dd1 = zero;
    int64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        const __m256d x0 = _mm256_cvtps_pd(_mm_loadu_ps(r + i));
        const __m256d x1 = _mm256_cvtps_pd(_mm_loadu_ps(r + i + 4));
        const __m256d y0 = _mm256_cvtps_pd(_mm_loadu_ps(s + i));
        const __m256d y1 = _mm256_cvtps_pd(_mm_loadu_ps(s + i + 4));
        const __m256d e0 = _mm256_sub_pd(y0, x0);
        const __m256d e1 = _mm256_sub_pd(y1, x1);
        rr0 = _mm256_fmadd_pd(x0, x0, rr0);
        rr1 = _mm256_fmadd_pd(x1, x1, rr1);
        ss0 = _mm256_fmadd_pd(y0, y0, ss0);
        ss1 = _mm256_fmadd_pd(y1, y1, ss1);
        dd0 = _mm256_fmadd_pd(e0, e0, dd0);
        dd1 = _mm256_fmadd_pd(e1, e1, dd1);
    }
    if (p.rr != nullptr) {
        _mm256_storeu_pd(p.rr->v, rr0);
        _mm256_storeu_pd(p.rr->v + 4, rr1);
    }
    _mm256_storeu_pd(p.ss.v, ss0);
    _mm256_storeu_pd(p.ss.v + 4, ss1);
    _mm256_storeu_pd(p.dd.v, dd0);
    _mm256_storeu_pd(p.dd.v + 4, dd1);
    return i;
}
#endif

int64_t add_pairs_none(const float*, const float*, int64_t, PairLanes&) {
    return 0;
}

using WideFn = int64_t (*)(const float*, const float*, int64_t, PairLanes&);

WideFn pick_wide_fn() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f")) {
        return add_pairs_avx512;
    }
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
        return add_pairs_avx2;
    }
#endif
    return add_pairs_none;
}

}  // namespace

BlockSums sum_block(const float* reference, const std::vector<const float*>& donors,
                    int64_t count) {
    assert(!donors.empty() && donors.size() <= BlockSums{}.pairs.size());
    static const WideFn wide = pick_wide_fn();
    BlockSums sums;
    Lanes rr;
    for (size_t d = 0; d < donors.size(); ++d) {
        PairLanes p;
        p.rr = d == 0 ? &rr : nullptr;
        const int64_t whole = wide(reference, donors[d], count, p);
        add_pairs_plain(reference, donors[d], whole, count, p);
        sums.pairs[d] = PairSums{p.ss.total(), p.dd.total()};
    }
    sums.rr = rr.total();
    return sums;
}

void add_block(BlockSums& total, const BlockSums& block, size_t donors) {
    total.rr += block.rr;
    for (size_t d = 0; d < donors; ++d) {
        total.pairs[d].ss += block.pairs[d].ss;
        total.pairs[d].dd += block.pairs[d].dd;
    }
}

}  // namespace tevrin
