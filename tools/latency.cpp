#include "latency.hpp"

namespace kavro::tool {

int64_t grid_lateness_ns(int64_t atNs, int64_t originNs, int64_t periodNs, int64_t earlyMarginNs) {
    int64_t rel = atNs - originNs + earlyMarginNs;
    int64_t k = rel / periodNs;
    if (rel % periodNs < 0) --k;  // floor for times before the origin
    return atNs - (originNs + k * periodNs);
}

void LatencyStats::add(int64_t latenessNs) {
    if (count == 0 || latenessNs < minNs) minNs = latenessNs;
    if (count == 0 || latenessNs > maxNs) maxNs = latenessNs;
    ++count;
    sumNs += latenessNs;
    if (latenessNs < 0) {
        ++early;
        ++histogram[0];
        return;
    }
    const int64_t us = latenessNs / 1000;
    ++histogram[us < kMaxUs ? us : kMaxUs];
}

double LatencyStats::mean_us() const {
    return count == 0 ? 0.0 : static_cast<double>(sumNs) / static_cast<double>(count) / 1000.0;
}

int64_t LatencyStats::percentile_us(double p) const {
    if (count == 0) return 0;
    uint64_t need = static_cast<uint64_t>(p * static_cast<double>(count) + 0.999999);
    if (need < 1) need = 1;
    if (need > count) need = count;
    uint64_t seen = 0;
    for (int i = 0; i <= kMaxUs; ++i) {
        seen += histogram[i];
        if (seen >= need) return i;
    }
    return kMaxUs;
}

void LatencyStats::print(FILE *out) const {
    std::fprintf(out, "ticks %llu (early %llu)\n", (unsigned long long)count, (unsigned long long)early);
    std::fprintf(out, "min %.1f us  avg %.1f us  p50 %lld us  p99 %lld us  p99.9 %lld us  max %.1f us\n",
                 minNs / 1000.0, mean_us(), (long long)percentile_us(0.5), (long long)percentile_us(0.99),
                 (long long)percentile_us(0.999), maxNs / 1000.0);
    static const int edges[] = {0, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, kMaxUs};
    const int nEdges = static_cast<int>(sizeof edges / sizeof edges[0]);
    uint64_t peak = 1;
    uint64_t bins[sizeof edges / sizeof edges[0]] = {};
    for (int b = 0; b < nEdges; ++b) {
        const int lo = edges[b], hi = b + 1 < nEdges ? edges[b + 1] : kMaxUs + 1;
        for (int i = lo; i < hi; ++i) bins[b] += histogram[i];
        if (bins[b] > peak) peak = bins[b];
    }
    for (int b = 0; b < nEdges; ++b) {
        char range[32];
        if (b + 1 < nEdges)
            std::snprintf(range, sizeof range, "%5d..%-5d us", edges[b], edges[b + 1]);
        else
            std::snprintf(range, sizeof range, "%5d..       us", edges[b]);
        const int bar = static_cast<int>(bins[b] * 50 / peak);
        std::fprintf(out, "  %s %10llu %.*s\n", range, (unsigned long long)bins[b], bar,
                     "##################################################");
    }
}

}  // namespace kavro::tool
