// What the library expects of the platform's secure-function library.
//
// Every function has C linkage, may be called from any thread, keeps no state, returns 0 on success and a non-zero
// code on failure. None of them aborts the process or runs a constraint handler that does.
#ifndef REPORT_EVENT_PLATFORM_C_SEC_H
#define REPORT_EVENT_PLATFORM_C_SEC_H

#include <cstddef>

extern "C" {

// Copies `count` bytes from `src` to `dest`, which has room for `destMax` bytes. The ranges must not overlap.
// Fails, without writing past `destMax`, when a pointer is null, `destMax` is 0 or `count` is larger than `destMax`;
// where `dest` and `destMax` are usable, the destination is zeroed on failure.
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

// Sets the first `count` bytes of `dest`, which has room for `destMax` bytes, to the low byte of `value`.
// Fails when `dest` is null, `destMax` is 0 or `count` is larger than `destMax`; in the last case all `destMax` bytes
// are set.
int memset_s(void* dest, size_t destMax, int value, size_t count);

// Copies at most `count` characters of `src` into `dest`, which has room for `destMax` characters, and always adds a
// terminator. Fails when a pointer is null, `destMax` is 0 or the copied text and its terminator do not fit; where
// `dest` and `destMax` are usable, `dest` is then the empty string.
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_C_SEC_H
