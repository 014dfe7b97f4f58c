// Publishing on a pool and a queue that take everything and keep nothing: the cost of the library alone. What is
// defined here stands in front of the host platform's own.
#include <cstdint>

#include "benchmarks/micro/Program.h"
#include "benchmarks/micro/PublishLoop.h"
#include "iam.h"
#include "publisher/ReportEventClientImpl.h"

extern "C" {

int IAMShmHandleMalloc(IAMShmPoolHandle*, uint32_t, IAMShmBlockHandle*)
{
    return 0;
}

int IAMShmWrite(IAMShmBlockHandle*, const char*, uint32_t, uint32_t)
{
    return 0;
}

int IAMRTDataEnqueue(uint64_t, IAMDataPackage*)
{
    return 0;
}

}  // extern "C"

namespace bench {

void RegisterNullPlatformRow()
{
    AddRow("ReportEvent/null_platform", [](benchmark::State& state) {
        IAMRTFSMgrFile file{};
        ProcMgr::ReportEventClientImpl::MyOpen(&file);
        PublishInLoop(state, ReportEventClient::GetInstance());
        ProcMgr::ReportEventClientImpl::MyClose(&file);
    });
}

}  // namespace bench
