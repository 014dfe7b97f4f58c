// Every latency of a run, in buckets no wider than 1/256 of their value: percentiles of 100 million samples in little
// memory.
#ifndef REPORT_EVENT_BENCHMARKS_HISTOGRAM_H
#define REPORT_EVENT_BENCHMARKS_HISTOGRAM_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

class Histogram {
public:
    void Add(int64_t nanoseconds)
    {
        const uint64_t value = nanoseconds < 0 ? 0 : static_cast<uint64_t>(nanoseconds);
        ++buckets_[BucketOf(value)];
        ++samples_;
        max_ = std::max(max_, value);
    }

    // The value below or at which the given share of the samples lies; 0 when there are none.
    double Quantile(double share) const
    {
        const auto rank = static_cast<uint64_t>(std::ceil(share * double(samples_)));
        uint64_t seen = 0;
        for (size_t bucket = 0; bucket < buckets_.size(); ++bucket) {
            seen += buckets_[bucket];
            if (samples_ != 0 && seen >= std::max<uint64_t>(rank, 1)) {
                return std::min(UpperEndOf(bucket), double(max_));
            }
        }
        return 0;
    }

    uint64_t Max() const
    {
        return max_;
    }

private:
    // Values below 512 have a bucket each; above, every doubling is divided into 256.
    static constexpr unsigned SHARE_BITS = 8;
    static constexpr size_t SHARES = size_t{1} << SHARE_BITS;

    static size_t BucketOf(uint64_t value)
    {
        if (value < 2 * SHARES) {
            return value;
        }
        const unsigned shift = 63 - static_cast<unsigned>(__builtin_clzll(value)) - SHARE_BITS;
        return shift * SHARES + static_cast<size_t>(value >> shift);
    }
    static double UpperEndOf(size_t bucket)
    {
        if (bucket < 2 * SHARES) {
            return double(bucket);
        }
        const size_t shift = bucket / SHARES - 1;
        return std::ldexp(double(bucket - shift * SHARES + 1), static_cast<int>(shift)) - 1;
    }

    std::vector<uint64_t> buckets_ = std::vector<uint64_t>((64 - SHARE_BITS + 1) * SHARES);
    uint64_t samples_ = 0;
    uint64_t max_ = 0;
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_HISTOGRAM_H
