#include <cstring>

#include "platform/host/slog/HostLog.h"
#include "tools/Platform.h"
#include "tools/ToolSupport.h"

namespace tools::platform {

namespace {

// The library's last word about a record that it dropped; what came before it says why.
void TellDroppedRecord(const char* text)
{
    constexpr const char* LAST_WORD = "callback failed, data read from ";
    const char* const found = std::strstr(text, LAST_WORD);
    if (found != nullptr) {
        Notify(std::string(found + std::strlen(LAST_WORD)) + ": a record that cannot be decoded");
    }
}

}  // namespace

void Quiet()
{
    SlogHostQuiet(TellDroppedRecord);
}

}  // namespace tools::platform
