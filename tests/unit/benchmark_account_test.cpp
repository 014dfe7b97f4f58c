// The account that the benchmarks keep of what arrives: a record that is lost, repeated, late or damaged must show.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "benchmarks/common/Arrivals.h"
#include "benchmarks/common/Histogram.h"
#include "benchmarks/common/StampedRecord.h"

namespace bench {
namespace {

constexpr uint64_t COUNT = 5;
constexpr size_t SIZE = 362;
constexpr int PLACE = 7;
const uint64_t SENT = TimeAndPlace(INT64_MAX - 999, PLACE);  // the clock comes to its end meanwhile
const uint64_t RECEIVED = TimeAndPlace(INT64_MIN + 1000, PLACE);

struct Arriving {
    uint64_t number;
    int damagedByte = -1;  // one bit of it is wrong
    size_t size = SIZE;
};

TEST(Account, CountsEveryRecordThatDidNotArriveOnceInPlaceAndWhole)
{
    const struct {
        const char* name;
        std::vector<Arriving> records;
        uint64_t lost;
        bool complete;
    } cases[] = {
        {"all in order", {{0}, {1}, {2}, {3}, {4}}, 0, true},
        {"one missing", {{0}, {1}, {3}, {4}}, 1, true},
        {"the last missing", {{0}, {1}, {2}, {3}}, 1, false},
        {"one repeated", {{0}, {1}, {1}, {2}, {3}, {4}}, 1, true},
        {"two swapped", {{0}, {2}, {1}, {3}, {4}}, 2, true},
        {"damaged in the pattern", {{0}, {1, 100}, {2}, {3}, {4}}, 1, true},
        {"damaged in the first number", {{0}, {1, 0}, {2}, {3}, {4}}, 1, true},
        {"too short for a time", {{0}, {1, -1, 15}, {2}, {3}, {4}}, 1, true},
        {"one byte short", {{0}, {1, -1, SIZE - 1}, {2}, {3}, {4}}, 1, true},
        {"one byte too long", {{0}, {1, -1, SIZE + 1}, {2}, {3}, {4}}, 1, true},
    };
    for (const auto& [name, records, lost, complete] : cases) {
        SCOPED_TRACE(name);
        Arrivals arrivals({Mode::LATENCY, SIZE, COUNT, 0});
        BytesCheck check(StampedRecord::Plain(SIZE));
        for (const Arriving& arriving : records) {
            StampedRecord sent = StampedRecord::Plain(SIZE);
            sent.Stamp(arriving.number);
            sent.StampTime(SENT);
            std::vector<unsigned char> bytes(sent.Data(), sent.Data() + sent.Size());
            if (arriving.damagedByte >= 0) {
                bytes[static_cast<size_t>(arriving.damagedByte)] ^= 1;
            }
            bytes.resize(arriving.size);
            arrivals.Take(check, {bytes.data(), bytes.size()}, RECEIVED);
        }

        pollfd done{arrivals.DoneFd(), POLLIN, 0};
        EXPECT_EQ(poll(&done, 1, 0), complete ? 1 : 0);
        EXPECT_EQ(arrivals.Lost(), lost);
        EXPECT_EQ(arrivals.Taken(), records.size());
        EXPECT_EQ(arrivals.Latencies().Max(), 2000u);
    }
}

TEST(Account, LeavesTheWarmUpOutOfTheLatenciesButMissesNoneOfIt)
{
    constexpr uint64_t WARM_UP = 3;
    const uint64_t late = TimeAndPlace(INT64_MIN + 900000, PLACE);
    Arrivals arrivals({Mode::LATENCY, SIZE, COUNT, 0, WARM_UP});
    BytesCheck check(StampedRecord::Plain(SIZE));
    StampedRecord sent = StampedRecord::Plain(SIZE);
    sent.StampTime(SENT);
    for (uint64_t number = 1; number < WARM_UP + COUNT; ++number) {
        sent.Stamp(number);
        arrivals.Take(check, {sent.Data(), sent.Size()}, number < WARM_UP ? late : RECEIVED + number % 2);
    }

    pollfd done{arrivals.DoneFd(), POLLIN, 0};
    EXPECT_EQ(poll(&done, 1, 0), 1);
    EXPECT_EQ(arrivals.Lost(), 1u);
    EXPECT_EQ(arrivals.Latencies().Max(), 2000u);
    EXPECT_EQ(arrivals.SamePlace(), 2U);  // the others were received at the next one
}

TEST(Account, QuantilesAreWithinHalfAPercentOfTheValues)
{
    Histogram histogram;
    EXPECT_EQ(histogram.Quantile(0.5), 0);
    for (int64_t value = 1; value <= 1000000; ++value) {
        histogram.Add(value);
    }
    for (const double share : {0.0001, 0.01, 0.5, 0.99, 0.9999}) {
        EXPECT_NEAR(histogram.Quantile(share), share * 1e6, share * 1e6 * 0.005) << share;
    }
    EXPECT_EQ(histogram.Quantile(1), 1e6);
    histogram.Add(INT64_MAX);
    EXPECT_EQ(histogram.Max(), static_cast<uint64_t>(INT64_MAX));
    EXPECT_EQ(histogram.Quantile(1), double(INT64_MAX));
}

}  // namespace
}  // namespace bench
