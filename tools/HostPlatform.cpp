#include <cstring>

#include "platform/host/iam/HostService.h"
#include "platform/host/slog/HostLog.h"
#include "tools/EventJson.h"
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

void AddResource(const IAMHostResource* served, void* listing)
{
    Resource resource = {served->pid, served->answers != 0, {}};
    for (size_t i = 0; i < served->readerCount; ++i) {
        const IAMHostReader& reader = served->readers[i];
        resource.readers.push_back({reader.pid, reader.current != 0, reader.observer != 0});
    }
    static_cast<Listing*>(listing)->resources.emplace(served->name, std::move(resource));
}

}  // namespace

void Quiet()
{
    SlogHostQuiet(TellDroppedRecord);
}

Listing List()
{
    Listing listing;
    listing.error = -IAMHostList(AddResource, &listing);
    return listing;
}

std::string RuntimeDirectory()
{
    char path[256] = {};
    return IAMHostRuntimeDirectory(path, sizeof(path)) == 0 ? path : "";
}

void Observe()
{
    IAMHostObserve(1);
}

uint64_t LostRecords(const std::string& resource)
{
    return IAMHostLostRecords(resource.c_str());
}

bool HasLostPlace(const std::string& resource)
{
    return IAMHostLostPlace(resource.c_str()) != 0;
}

std::string SourceOfThisThread(const std::vector<std::string>& /*files*/)
{
    const char* const resource = IAMHostResourceOfThisThread();
    return resource == nullptr ? std::string(FAULT_REPORTING) : resource;
}

}  // namespace tools::platform
