// Prints as JSON what the runner of the soak must know of its processes: names, result codes, the fields of the boards.
#include <cstddef>
#include <iostream>
#include <nlohmann/json.hpp>

#include "report_event/ResultCodes.h"
#include "tests/soak/Board.h"

namespace {

// Where a field begins and how long it is, in words.
nlohmann::json Field(const char* name, size_t offset, size_t size)
{
    return {name, {offset / sizeof(soak::Word), size / sizeof(soak::Word)}};
}

}  // namespace

#define FIELD(structure, name) Field(#name, offsetof(soak::structure, name), sizeof(soak::structure::name))

int main()
{
    const nlohmann::json publisher = {
        FIELD(PublisherBoard, poolBlocks), FIELD(PublisherBoard, accepted), FIELD(PublisherBoard, calls),
        FIELD(PublisherBoard, slowCalls),  FIELD(PublisherBoard, slowest),  FIELD(PublisherBoard, noBlock),
        FIELD(PublisherBoard, otherCode),  FIELD(PublisherBoard, begun),    FIELD(PublisherBoard, returned)};
    const nlohmann::json subscriber = {FIELD(SubscriberBoard, opens), FIELD(SubscriberBoard, losses),
                                       FIELD(SubscriberBoard, altered), FIELD(SubscriberBoard, connections)};
    const nlohmann::json connection = {
        FIELD(Connection, resource),  FIELD(Connection, begun),    FIELD(Connection, ended),
        FIELD(Connection, openError), FIELD(Connection, reopened), FIELD(Connection, run),
        FIELD(Connection, first),     FIELD(Connection, next),     FIELD(Connection, missed),
        FIELD(Connection, disorder),  FIELD(Connection, failures), FIELD(Connection, error),
        FIELD(Connection, failed)};
    const nlohmann::json facts = {
        {"publisher", publisher},
        {"subscriber", subscriber},
        {"connection", connection},
        {"resources", soak::RESOURCE_NAMES},
        {"ordinary", soak::ORDINARY},
        {"process_manager", soak::PROCESS_MANAGER},
        {"security", soak::SECURITY},
        {"open_failed", ReportEvent::RESULT_OPEN_FAILED},
        {"threw", soak::THREW},
        {"bad_name", ReportEvent::RESULT_BAD_NAME},
        {"service_failed", ReportEvent::RESULT_SERVICE_FAILED},
    };
    std::cout << facts << std::endl;
}
