// A hint that brings the next record's cache lines over from another processor while this one is worked on.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_PREFETCH_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_PREFETCH_H

#include <algorithm>
#include <cstdint>

namespace host_platform::iam {

template <bool FOR_WRITING>
void Prefetch(const unsigned char* bytes, uint32_t length)
{
    constexpr uint32_t CACHE_LINE = 64;
    constexpr uint32_t MOST = 512;  // covers a raw record; the processor itself goes on along larger ones
    for (uint32_t at = 0; at < std::min(length, MOST); at += CACHE_LINE) {
        __builtin_prefetch(bytes + at, FOR_WRITING ? 1 : 0);
    }
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_PREFETCH_H
