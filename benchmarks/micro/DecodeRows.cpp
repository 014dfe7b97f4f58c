// Decoding one record and calling the callback, for each kind of record, with the event-log line written and filtered.
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "benchmarks/micro/Allocations.h"
#include "benchmarks/micro/Program.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "report_event/EventRecord.h"
#include "report_event/ResourceNames.h"
#include "subscriber/ReportEventServerImpl.h"

namespace ReportEvent {

// Stores callbacks without a subscription: no file is opened, no thread runs.
struct ServerTestAccess {
    static void SetCallbacks(ReportEventServerImpl& server,
                             const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& onEvent,
                             const std::function<void(const dsmi_event&)>& onDevice)
    {
        server.reportEventCb = onEvent;
        server.reportEventMidCb = onDevice;
        server.idsEventReportCb = onDevice;
    }
};

}  // namespace ReportEvent

namespace bench {
namespace {

using Record = std::vector<unsigned char>;
using DeviceCallback = std::function<void(const dsmi_event&)>;

constexpr size_t DID_DATA = 8;
constexpr size_t DID_COUNTS[] = {0, 1, 16, 255};

void UseEvent(const EventInfo& event, const UDSInfoForCpp& uds)
{
    benchmark::DoNotOptimize(&event);
    benchmark::DoNotOptimize(&uds);
}

void UseDeviceEvent(const dsmi_event& event)
{
    benchmark::DoNotOptimize(&event);
}

const ReportEvent::ReportEventServerImpl& Server()
{
    static auto& server = static_cast<ReportEvent::ReportEventServerImpl&>(ReportEventServer::GetInstance());
    static const bool prepared = [] {
        ReportEvent::ServerTestAccess::SetCallbacks(server, UseEvent, UseDeviceEvent);
        return true;
    }();
    (void)prepared;
    return server;
}

void Decode(benchmark::State& state, const Record& record)
{
    const ReportEvent::ReportEventServerImpl& server = Server();
    const uint64_t before = AllocationCount();
    for (auto _ : state) {
        if (!server.DeSerializeDataAndCallback(record.data(), static_cast<unsigned int>(record.size()))) {
            state.SkipWithError("the record was not delivered");
            break;
        }
    }
    ReportAllocations(state, AllocationCount() - before);
}

// What no decoding of a raw record can do without: zero an event, fill it, copy the callback and call it.
void ZeroCopyCall(benchmark::State& state)
{
    const Record payload(sizeof(dsmi_event), 1);
    const DeviceCallback stored = UseDeviceEvent;
    const uint64_t before = AllocationCount();
    for (auto _ : state) {
        dsmi_event event;
        std::memset(&event, 0, sizeof(event));
        benchmark::DoNotOptimize(&event);
        benchmark::ClobberMemory();
        std::memcpy(&event, payload.data(), sizeof(event));
        benchmark::ClobberMemory();
        const DeviceCallback callback = stored;
        callback(event);
    }
    ReportAllocations(state, AllocationCount() - before);
}

Record RawRecord(ReportEvent::EventType family, bool logged)
{
    dsmi_event event{};
    event.eventId = ReportEvent::PM_LOST_EVENT_ID;
    event.assertion = 1;
    std::strcpy(event.eventName, "device event");
    const ReportEvent::RawRecord record = ReportEvent::MakeRawRecord(family, logged, event);
    return {record.bytes, record.bytes + sizeof(record.bytes)};
}

Record FaultRecord(size_t dids, bool logged)
{
    host_platform::fte::FaultEvent event;
    event.eventId = 0x4F01;
    event.assertion = 1;
    event.name = "fault event";
    for (size_t i = 0; i < dids; ++i) {
        event.dids.push_back({static_cast<uint16_t>(i), std::vector<unsigned char>(DID_DATA, 0x5A)});
    }
    return host_platform::fte::EncodeRecord(event, logged);
}

void AddDecodeRow(const std::string& name, const Record& record)
{
    AddRow("DeSerializeDataAndCallback/" + name, [record](benchmark::State& state) { Decode(state, record); });
}

}  // namespace

void RegisterDecodeRows()
{
    AddRow("Floor/zero_copy_call/360", ZeroCopyCall);
    AddDecodeRow("raw_security", RawRecord(ReportEvent::SECURITY_EVENT, false));
    for (const bool logged : {false, true}) {
        const std::string log = logged ? "/written" : "/filtered";
        AddDecodeRow("raw_fault" + log, RawRecord(ReportEvent::FAULT_EVENT, logged));
        for (const size_t dids : DID_COUNTS) {
            AddDecodeRow("fault/dids:" + std::to_string(dids) + log, FaultRecord(dids, logged));
        }
    }
}

}  // namespace bench
