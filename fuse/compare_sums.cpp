#include "fuse/compare_sums.h"

#include <cassert>
#include <type_traits>

#include "blend/cpu_features.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tevrin {

namespace {

// Where the sums of one donor go; the reference's own squares go along with the
// first donor (`rr` not null), so the reference is read once for them.
struct PairLanes {
    double* rr;
    double* ss;
    double* dd;
};

// Element i goes to lane i % 16. The vector path hands over the rest of a row
// from a multiple of sixteen on, so the lanes are the same.
void add_pairs_plain(const float* r, const float* s, int64_t count, PairLanes p) {
    for (int64_t i = 0; i < count; ++i) {
        const int64_t lane = i % kSumLanes;
        const double x = r[i];
        const double y = s[i];
        const double diff = y - x;
        if (p.rr != nullptr) {
            p.rr[lane] += x * x;
        }
        p.ss[lane] += y * y;
        p.dd[lane] += diff * diff;
    }
}

#if defined(__x86_64__)
bool cpu_has_avx2_fma_f16c() {
    const CpuFeatures& cpu = cpu_features();
    return cpu.avx2 && cpu.fma && cpu.f16c;
}

// Four pairs into four lanes. A value's square is exact in double, so its fused
// multiply-add rounds as the plain path's multiply and add do; the square of the
// difference is rounded before it is added, as there.
template <bool with_rr>
__attribute__((target("avx2,fma"), always_inline)) inline void add_four(__m256d x, __m256d y,
                                                                        __m256d& rr, __m256d& ss,
                                                                        __m256d& dd) {
    const __m256d e = _mm256_sub_pd(y, x);
    if constexpr (with_rr) {
        rr = _mm256_fmadd_pd(x, x, rr);
    }
    ss = _mm256_fmadd_pd(y, y, ss);
    dd = _mm256_add_pd(dd, _mm256_mul_pd(e, e));
}

// Lanes 4k to 4k + 3 of each sum live in register k. T is float, or uint16_t for
// half-precision values, which F16C turns into floats exactly.
template <typename T, bool with_rr>
__attribute__((target("avx2,fma,f16c"))) void add_pairs_avx2(const T* r, const T* s, int64_t count,
                                                             PairLanes p) {
    __m256d rr[4], ss[4], dd[4];
    for (int k = 0; k < 4; ++k) {
        rr[k] = with_rr ? _mm256_load_pd(p.rr + 4 * k) : _mm256_setzero_pd();
        ss[k] = _mm256_load_pd(p.ss + 4 * k);
        dd[k] = _mm256_load_pd(p.dd + 4 * k);
    }
    int64_t i = 0;
    for (; i + kSumLanes <= count; i += kSumLanes) {
        if constexpr (std::is_same_v<T, float>) {
            for (int k = 0; k < 4; ++k) {
                add_four<with_rr>(_mm256_cvtps_pd(_mm_loadu_ps(r + i + 4 * k)),
                                  _mm256_cvtps_pd(_mm_loadu_ps(s + i + 4 * k)), rr[k], ss[k],
                                  dd[k]);
            }
        } else {
            for (int h = 0; h < 2; ++h) {
                const __m256 x = _mm256_cvtph_ps(
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + i + 8 * h)));
                const __m256 y = _mm256_cvtph_ps(
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 8 * h)));
                add_four<with_rr>(_mm256_cvtps_pd(_mm256_castps256_ps128(x)),
                                  _mm256_cvtps_pd(_mm256_castps256_ps128(y)), rr[2 * h], ss[2 * h],
                                  dd[2 * h]);
                add_four<with_rr>(_mm256_cvtps_pd(_mm256_extractf128_ps(x, 1)),
                                  _mm256_cvtps_pd(_mm256_extractf128_ps(y, 1)), rr[2 * h + 1],
                                  ss[2 * h + 1], dd[2 * h + 1]);
            }
        }
    }
    for (int k = 0; k < 4; ++k) {
        if constexpr (with_rr) {
            _mm256_store_pd(p.rr + 4 * k, rr[k]);
        }
        _mm256_store_pd(p.ss + 4 * k, ss[k]);
        _mm256_store_pd(p.dd + 4 * k, dd[k]);
    }
    if constexpr (std::is_same_v<T, float>) {
        add_pairs_plain(r + i, s + i, count - i, p);
    } else {
        float rest_r[kSumLanes], rest_s[kSumLanes];
        for (int64_t j = i; j < count; ++j) {
            rest_r[j - i] = _cvtsh_ss(r[j]);
            rest_s[j - i] = _cvtsh_ss(s[j]);
        }
        add_pairs_plain(rest_r, rest_s, count - i, p);
    }
}

template <typename T>
void add_row_avx2(SumLanes& lanes, const T* reference, const T* const* donors, size_t donor_count,
                  int64_t count) {
    add_pairs_avx2<T, true>(reference, donors[0], count,
                            PairLanes{lanes.rr, lanes.pairs[0].ss, lanes.pairs[0].dd});
    for (size_t d = 1; d < donor_count; ++d) {
        add_pairs_avx2<T, false>(reference, donors[d], count,
                                 PairLanes{nullptr, lanes.pairs[d].ss, lanes.pairs[d].dd});
    }
}
#endif

// Lanes added in a fixed tree: neighbours first.
double lane_total(const double* lanes) {
    double level[kSumLanes];
    for (int i = 0; i < kSumLanes; ++i) {
        level[i] = lanes[i];
    }
    for (int n = kSumLanes / 2; n >= 1; n /= 2) {
        for (int i = 0; i < n; ++i) {
            level[i] = level[2 * i] + level[2 * i + 1];
        }
    }
    return level[0];
}

}  // namespace

void add_row(SumLanes& lanes, const float* reference, const float* const* donors,
             size_t donor_count, int64_t count, SumPath path) {
    assert(donor_count > 0 && donor_count <= kMaxDonors);
#if defined(__x86_64__)
    if (path == SumPath::fastest && cpu_has_avx2_fma_f16c()) {
        add_row_avx2(lanes, reference, donors, donor_count, count);
        return;
    }
#endif
    for (size_t d = 0; d < donor_count; ++d) {
        add_pairs_plain(
            reference, donors[d], count,
            PairLanes{d == 0 ? lanes.rr : nullptr, lanes.pairs[d].ss, lanes.pairs[d].dd});
    }
}

bool adds_half_rows() {
#if defined(__x86_64__)
    return cpu_has_avx2_fma_f16c();
#else
    return false;
#endif
}

void add_half_row(SumLanes& lanes, const uint16_t* reference, const uint16_t* const* donors,
                  size_t donor_count, int64_t count) {
    assert(adds_half_rows() && donor_count > 0 && donor_count <= kMaxDonors);
#if defined(__x86_64__)
    add_row_avx2(lanes, reference, donors, donor_count, count);
#else
    (void)lanes, (void)reference, (void)donors, (void)donor_count, (void)count;
#endif
}

BlockSums lane_totals(const SumLanes& lanes, size_t donors) {
    BlockSums sums;
    sums.rr = lane_total(lanes.rr);
    for (size_t d = 0; d < donors; ++d) {
        sums.pairs[d] = PairSums{lane_total(lanes.pairs[d].ss), lane_total(lanes.pairs[d].dd)};
    }
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
