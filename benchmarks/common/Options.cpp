#include "benchmarks/common/Options.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace bench {
namespace {

constexpr size_t SIZE_MIN = 16;
constexpr size_t SIZE_MAX_RECORD = 3960;
constexpr uint64_t COUNT_MAX = 100000000;
constexpr uint64_t LATENCY_WARM_UP = 100;
constexpr double RATE_DEFAULT_HZ = 2000;
constexpr double RATE_MIN_HZ = 0.1;
constexpr double RATE_MAX_HZ = 1e6;

double PaceFromEnvironment()
{
    const char* text = std::getenv("ROAD_RATE_HZ");
    if (text == nullptr || *text == '\0') {
        return RATE_DEFAULT_HZ;
    }
    char* end = nullptr;
    const double rate = std::strtod(text, &end);
    if (*end != '\0' || !std::isfinite(rate) || rate < RATE_MIN_HZ || rate > RATE_MAX_HZ) {
        throw std::invalid_argument(std::string("ROAD_RATE_HZ must be a number from 0.1 to 1000000, not '") + text +
                                    "'");
    }
    return rate;
}

}  // namespace

uint64_t ParseNumber(const std::string& what, const std::string& text, uint64_t lowest, uint64_t highest)
{
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    if (parsed.ec != std::errc() || parsed.ptr != end || value < lowest || value > highest) {
        throw std::invalid_argument(what + " must be a number from " + std::to_string(lowest) + " to " +
                                    std::to_string(highest) + ", not '" + text + "'");
    }
    return value;
}

Options ParseOptions(const std::string& mode, const std::string& size, const std::string& count)
{
    Options options;
    if (mode != "throughput" && mode != "latency") {
        throw std::invalid_argument("the mode must be throughput or latency, not '" + mode + "'");
    }
    options.mode = mode == "latency" ? Mode::LATENCY : Mode::THROUGHPUT;
    options.size = ParseNumber("SIZE", size, SIZE_MIN, SIZE_MAX_RECORD);
    options.count = ParseNumber("COUNT", count, 1, COUNT_MAX);
    options.rateHz = PaceFromEnvironment();
    options.warmUp = options.mode == Mode::LATENCY ? LATENCY_WARM_UP : 0;
    return options;
}

}  // namespace bench
