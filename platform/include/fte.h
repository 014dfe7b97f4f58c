// What the library expects of the platform's fault-reporting library (FTE).
//
// The four functions have C linkage and are resolved from the host process when libreport_event.so is loaded, which
// never names the library that holds them and refers to them weakly. In a process that lacks them, each call is a
// failure: a registration delivers nothing, a serialized event is refused, a lost process manager is not reported.
#ifndef REPORT_EVENT_PLATFORM_FTE_H
#define REPORT_EVENT_PLATFORM_FTE_H

#include <cstddef>
#include <cstdint>
#include <functional>

// One data-identifier record. Owns `data`, which FTEDeSerialize allocates with array new.
struct DidInfo {
    uint16_t did = 0;
    uint16_t len = 0;               // bytes at `data`
    unsigned char* data = nullptr;  // null when `len` is 0

    DidInfo() = default;
    DidInfo(const DidInfo&) = delete;
    DidInfo& operator=(const DidInfo&) = delete;
    ~DidInfo()
    {
        delete[] data;
    }
};

// The diagnostic information decoded along with an event. A plain view: whoever called FTEDeSerialize owns the array
// `didInfo` and releases it with `delete[]`, which releases each entry's data.
struct UDSInfo {
    uint16_t udsId;
    uint16_t didNum;   // entries in `didInfo`
    DidInfo* didInfo;  // one array, allocated with array new; null when there is none
};

constexpr size_t FTE_EVENT_NAME_SIZE = 128;

// A fault event as FTEDeSerialize decodes it.
struct FTEInfo {
    uint16_t eventId;
    uint8_t assertion;
    uint32_t nodeId;
    uint8_t deviceId;
    uint32_t osId;
    char eventName[FTE_EVENT_NAME_SIZE];  // text; may fill the whole area without a terminator
};

constexpr size_t EVENT_SPEC_SIZE_MAX = 256;

// A fault that this process reports about another one. Host byte order.
struct FTEReportInfo {
    uint32_t eventId;
    uint8_t reserved4;  // written as 0
    uint8_t reserved5;
    uint16_t deviceId;
    uint8_t severity;
    uint8_t assertion;
    uint8_t reserved10[32];
    char procName[EVENT_SPEC_SIZE_MAX];  // NUL-terminated name of the process concerned
    uint8_t reserved298[2];
};

static_assert(sizeof(DidInfo) == 16 && offsetof(DidInfo, len) == 2 && offsetof(DidInfo, data) == 8, "DidInfo layout");
static_assert(sizeof(UDSInfo) == 16 && offsetof(UDSInfo, didNum) == 2 && offsetof(UDSInfo, didInfo) == 8,
              "UDSInfo layout");
static_assert(sizeof(FTEInfo) == 144 && offsetof(FTEInfo, assertion) == 2 && offsetof(FTEInfo, nodeId) == 4 &&
                  offsetof(FTEInfo, deviceId) == 8 && offsetof(FTEInfo, osId) == 12 &&
                  offsetof(FTEInfo, eventName) == 16,
              "FTEInfo layout");
static_assert(sizeof(FTEReportInfo) == 300 && offsetof(FTEReportInfo, reserved4) == 4 &&
                  offsetof(FTEReportInfo, deviceId) == 6 && offsetof(FTEReportInfo, severity) == 8 &&
                  offsetof(FTEReportInfo, assertion) == 9 && offsetof(FTEReportInfo, reserved10) == 10 &&
                  offsetof(FTEReportInfo, procName) == 42 && offsetof(FTEReportInfo, reserved298) == 298,
              "FTEReportInfo layout");

extern "C" {

// Decodes one serialized fault event of `length` bytes. `info` and `uds` arrive all zero. Returns 0 after filling both;
// any other value is a failure. The caller releases `uds->didInfo` after success and after failure alike, so at every
// return it is either null or an array that `delete[]` may release. Does its own checks of the bytes. Called from
// several threads at once.
int FTEDeSerialize(const unsigned char* data, unsigned int length, FTEInfo* info, UDSInfo* uds);

// Registers the callable to which the library delivers faults for this process: a serialized event record (header
// included) and its length; it returns 0 when the fault was delivered and -1 when not. Keeps its own copy. A repeated
// registration replaces the callable. Calls it on threads of the library's choosing, never on the caller's thread from
// inside this call. Returns 0 on success.
int FTERegisterCallback(const std::function<int(const unsigned char*, unsigned int)>& callback);

// Ends the delivery. Once it has returned, the callable is not running and is not called again; called from inside the
// callable, only the call in flight goes on. Returns 0 on success.
int FTEUnregisterCallback(void);

// Reports a fault. The record is read only during the call. May be called from any thread. Returns 0 on success.
int MidFTEReport(FTEReportInfo* report);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_FTE_H
