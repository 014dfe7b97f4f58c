// The result codes of the four fault-reporting functions.
#ifndef REPORT_EVENT_PLATFORM_HOST_FTE_FTE_CODES_H
#define REPORT_EVENT_PLATFORM_HOST_FTE_FTE_CODES_H

namespace host_platform::fte {

enum FteCode : int {
    FTE_OK = 0,
    FTE_NULL_ARGUMENT = 1,  // a null pointer, or an empty callable
    FTE_NO_RESOURCE = 2,    // out of memory or threads, or copying the callable threw
    FTE_QUEUE_FULL = 3,     // too many reports wait for delivery

    // A serialized fault event that is not what FaultRecordFormat.h says.
    FTE_TRUNCATED = 10,  // shorter than the header, or than the length that the header states
    FTE_TOO_LONG = 11,   // longer than any record may be
    FTE_BAD_MAGIC = 12,
    FTE_BAD_VERSION = 13,
    FTE_TRAILING = 14,      // longer than the length that the header states
    FTE_INCONSISTENT = 15,  // the parts do not add up to the length that the header states
    FTE_BAD_NAME = 16,      // longer than 128 bytes, or with a NUL in it
};

}  // namespace host_platform::fte

#endif  // REPORT_EVENT_PLATFORM_HOST_FTE_FTE_CODES_H
