#include <cstring>

#include "platform/host/iam/HostService.h"
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

void AddResource(const IAMHostResource* served, void* listing)
{
    Json& resource = static_cast<Listing*>(listing)->resources[served->name];
    resource = {{"resource", served->name},
                {"pid", served->pid},
                {"answers", served->answers != 0},
                {"readers", Json::array()},
                {"observers", Json::array()}};
    for (size_t i = 0; i < served->readerCount; ++i) {
        const IAMHostReader& reader = served->readers[i];
        if (reader.observer != 0) {
            resource["observers"].push_back({{"pid", reader.pid}});
        } else {
            resource["readers"].push_back({{"pid", reader.pid}, {"current", reader.current != 0}});
        }
    }
}

}  // namespace

void Quiet()
{
    SlogHostQuiet(TellDroppedRecord);
}

Listing List()
{
    Listing listing;
    char path[256] = {};
    listing.directory = IAMHostRuntimeDirectory(path, sizeof(path)) == 0 ? path : "";
    listing.error = -IAMHostList(AddResource, &listing);
    return listing;
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
