// Lateness statistics of `kavro latency`: the tick callback's times against
// the 2 ms grid, summarised without allocating while the ticks run.
#pragma once

#include <cstdint>
#include <cstdio>

namespace kavro::tool {

// Lateness of ticks against their grid points: minimum, mean, maximum,
// percentiles from a 1-microsecond histogram (0 .. kMaxUs-1, then one
// overflow bucket). Early ticks (negative lateness) count in min and mean
// and in the histogram's 0 bucket. No allocation: the histogram is inside.
struct LatencyStats {
    static constexpr int kMaxUs = 20000;
    uint64_t count = 0;
    uint64_t early = 0;
    int64_t minNs = 0;
    int64_t maxNs = 0;
    int64_t sumNs = 0;
    uint32_t histogram[kMaxUs + 1] = {};

    void add(int64_t latenessNs);
    double mean_us() const;
    // Smallest whole microsecond value at or below which a fraction p of the
    // ticks lie (p in 0..1); kMaxUs when it lies in the overflow bucket.
    int64_t percentile_us(double p) const;
    // Text report: the summary and a histogram in widening bins.
    void print(FILE *out) const;
};

// The lateness of `at` against the grid of `period` steps from `origin`,
// taking a time up to `earlyMarginNs` before a grid point as early service
// of that point (negative lateness).
int64_t grid_lateness_ns(int64_t atNs, int64_t originNs, int64_t periodNs, int64_t earlyMarginNs);

}  // namespace kavro::tool
