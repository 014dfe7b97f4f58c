#include "tools/ListCommand.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>

#include "tools/EventJson.h"
#include "tools/Platform.h"
#include "tools/ToolSupport.h"

namespace tools {

namespace {

Json ToJson(const std::string& name, const platform::Resource& resource)
{
    Json readers = Json::array();
    Json observers = Json::array();
    for (const platform::Reader& reader : resource.readers) {
        if (reader.isObserver) {
            observers.push_back({{"pid", reader.pid}});
        } else {
            readers.push_back({{"pid", reader.pid}, {"current", reader.isCurrent}});
        }
    }
    return {{"resource", name},
            {"pid", resource.pid},
            {"answers", resource.answers},
            {"readers", std::move(readers)},
            {"observers", std::move(observers)}};
}

// "4711(process_manager)"
std::string DescribeProcess(const Json& pid)
{
    std::string name;
    std::getline(std::ifstream("/proc/" + pid.dump() + "/comm"), name);
    return pid.dump() + "(" + name + ")";
}

std::string Align(const std::string& name, const std::string& server, const std::string& readers,
                  const std::string& observers)
{
    char text[1024];
    std::snprintf(text, sizeof(text), "%-22s %-24s %-25s %s", name.c_str(), server.c_str(), readers.c_str(),
                  observers.c_str());
    const std::string row = text;
    return row.substr(0, row.find_last_not_of(' ') + 1);
}

std::string ToRow(const Json& resource)
{
    std::string readers;
    for (const Json& reader : resource["readers"]) {
        readers +=
            (readers.empty() ? "" : " ") + DescribeProcess(reader["pid"]) + (reader["current"] == true ? "*" : "");
    }
    std::string observers;
    for (const Json& observer : resource["observers"]) {
        observers += (observers.empty() ? "" : " ") + DescribeProcess(observer["pid"]);
    }
    return Align(resource["resource"].get<std::string>(), DescribeProcess(resource["pid"]),
                 resource["answers"] == true ? readers : "(does not answer)", observers);
}

}  // namespace

int ListResources(bool json)
{
    const platform::Listing listing = platform::List();
    const std::string directory = platform::RuntimeDirectory();
    if (listing.error != 0) {
        Complain(directory + ": " + std::generic_category().message(listing.error));
        return EXIT_RUNTIME_FAILURE;
    }
    if (listing.resources.empty()) {
        Notify("no resource is served in " + directory);
        return EXIT_SUCCESS;
    }
    std::string text = json ? "" : Align("RESOURCE", "SERVED BY", "READERS", "OBSERVERS") + '\n';
    for (const auto& [name, resource] : listing.resources) {
        const Json object = ToJson(name, resource);
        text += (json ? ToLine(object) : Printable(ToRow(object))) + '\n';
    }
    Output output(STDOUT_FILENO);
    output.Write(text, -1);
    return AfterOutput(output.Error(), EXIT_SUCCESS);
}

}  // namespace tools
