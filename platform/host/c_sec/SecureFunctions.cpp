// The secure functions: checked sizes, a result code instead of an abort, a destination in a known state on failure.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "c_sec.h"

namespace {

// No object is larger than PTRDIFF_MAX: a bigger size is a negative number in disguise and must never be written.
bool IsUsable(const void* dest, size_t destMax)
{
    return dest != nullptr && destMax != 0 && destMax <= static_cast<size_t>(PTRDIFF_MAX);
}

}  // namespace

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count)
{
    if (dest == nullptr || destMax == 0) {
        return EINVAL;
    }
    if (src != nullptr && count <= destMax) {
        std::memcpy(dest, src, count);
        return 0;
    }
    if (IsUsable(dest, destMax)) {
        std::memset(dest, 0, destMax);
    }
    return src == nullptr ? EINVAL : ERANGE;
}

int memset_s(void* dest, size_t destMax, int value, size_t count)
{
    if (dest == nullptr || destMax == 0) {
        return EINVAL;
    }
    if (count <= destMax) {
        std::memset(dest, value, count);
        return 0;
    }
    if (IsUsable(dest, destMax)) {
        std::memset(dest, value, destMax);
    }
    return ERANGE;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count)
{
    if (dest == nullptr || destMax == 0) {
        return EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    // Looks no further into `src` than the answer needs: it may end without a terminator.
    const size_t length = strnlen(src, std::min(count, destMax));
    if (length >= destMax) {
        dest[0] = '\0';
        return ERANGE;
    }
    std::memcpy(dest, src, length);
    dest[length] = '\0';
    return 0;
}
