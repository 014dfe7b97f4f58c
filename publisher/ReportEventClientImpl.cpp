// The publishing half: registering the service and its pool, following the readers, publishing records.
#include "publisher/ReportEventClientImpl.h"

#include <syslog.h>

#include "common/NoCancellation.h"
#include "publisher/GrpOwnerLogLevel.h"
#include "report_event/EventRecord.h"
#include "report_event/ResultCodes.h"

namespace ProcMgr {

namespace {

using namespace ::ReportEvent;  // the result codes and the largest record

// The service's and the pool's numbers, as the middleware wants them.
constexpr uint32_t SERVICE_SETTINGS[] = {500, 0, 10, 1};
constexpr uint32_t POOL_SIZE = 0x3DE000;
constexpr uint32_t POOL_BLOCK_COUNT = 1000;

}  // namespace

IAMDataPackage ReportEventClientImpl::dataPakg_ = {&poolHandle_, &blockHdl_, 1};
int32_t ReportEventClientImpl::serverStatus_ = NEVER_OPENED;
std::mutex ReportEventClientImpl::poolMutex_;
IAMShmBlockHandle ReportEventClientImpl::blockHdl_ = {};
IAMShmPoolHandle ReportEventClientImpl::poolHandle_ = {};
IAMRTFSMgrFile* ReportEventClientImpl::iamRtfsFile_ = nullptr;

ReportEventClientImpl::ReportEventClientImpl()
{
    // Builds the level table before this object exists, so that it is destroyed after it: a close notification that is
    // delivered while the destructor destroys the pool still logs.
    GetSyslogLevel(GRP_OWNER_LOG_INFO);
}

// Takes no lock: publishing has stopped by now, and IAM may deliver a close notification, which takes the lock, while
// it destroys the pool.
ReportEventClientImpl::~ReportEventClientImpl()
{
    if (poolRegistered_) {
        IAMShmDestroyPool(dataPakg_.pool);
    }
}

int ReportEventClientImpl::RegisterResService(const std::string& name)
{
    const NoCancellation noCancellation;
    const int result = RegisterService(name);
    return result == RESULT_OK ? RegisterPool(name) : result;
}

int ReportEventClientImpl::RegisterService(const std::string& name)
{
    const IAMFileOperations operations = {nullptr, nullptr, MyOpen, MyClose, nullptr};
    IAMRTServiceRecord record = {
        name.c_str(),
        &operations,
        {SERVICE_SETTINGS[0], SERVICE_SETTINGS[1], SERVICE_SETTINGS[2], SERVICE_SETTINGS[3]},
    };
    syslog(GetSyslogLevel(GRP_OWNER_LOG_WARNING), "IAMRegisterRTService begin. serviceName=%s", name.c_str());
    const int ret = IAMRegisterRTService(&record);
    if (ret < 0) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "IAMRegisterRTService failed err=%d", ret);
        return RESULT_SERVICE_FAILED;
    }
    syslog(GetSyslogLevel(GRP_OWNER_LOG_WARNING), "IAMRegisterRTService success. serviceName=%s", name.c_str());
    return RESULT_OK;
}

// A reader that opens the resource while this is in progress waits in MyOpen until the pool is there.
int ReportEventClientImpl::RegisterPool(const std::string& name)
{
    IAMShmPoolConfig config = {name.c_str(), POOL_SIZE, POOL_BLOCK_COUNT};
    const std::lock_guard<std::mutex> lock(poolMutex_);
    syslog(GetSyslogLevel(GRP_OWNER_LOG_INFO), "IAMShmRegisterPoolWithConfig begin, fileName=%s", name.c_str());
    const int ret = IAMShmRegisterPoolWithConfig(&config, dataPakg_.pool);
    if (ret < 0) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "IAMShmRegisterPoolWithConfig failed, fileName=%s, ret=%d",
               name.c_str(), ret);
        return RESULT_POOL_FAILED;
    }
    syslog(GetSyslogLevel(GRP_OWNER_LOG_INFO), "IAMShmRegisterPoolWithConfig success, fileName=%s", name.c_str());
    poolRegistered_ = true;
    return RESULT_OK;
}

int ReportEventClientImpl::MyOpen(IAMRTFSMgrFile* file)
{
    const std::lock_guard<std::mutex> lock(poolMutex_);
    if (file == nullptr) {
        return -1;
    }
    if (file->name != nullptr) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_WARNING), "MyOpen is called, %s", file->name);
    }
    iamRtfsFile_ = file;
    serverStatus_ = OPEN;
    return 0;
}

int ReportEventClientImpl::MyClose(IAMRTFSMgrFile* file)
{
    const std::lock_guard<std::mutex> lock(poolMutex_);
    if (file == nullptr) {
        return -1;
    }
    if (file->name != nullptr) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_WARNING), "MyClose is called, %s", file->name);
    }
    if (iamRtfsFile_ == file) {
        iamRtfsFile_ = nullptr;
        serverStatus_ = CLOSED;
    }
    return 0;
}

int ReportEventClientImpl::ReportEvent(const char* buf, unsigned int size)
{
    const std::lock_guard<std::mutex> lock(poolMutex_);
    if (serverStatus_ == NEVER_OPENED || serverStatus_ == CLOSED) {
        return RESULT_OK;
    }
    if (iamRtfsFile_ == nullptr || buf == nullptr) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "ReportEvent: null pointer");
        return RESULT_NULL_POINTER;
    }
    if (size > RECORD_SIZE_MAX) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "ReportEvent: fault event bufSize=%u is bigger than %d", size,
               static_cast<int>(RECORD_SIZE_MAX));
        return RESULT_WRONG_SIZE;
    }
    if (IAMShmHandleMalloc(dataPakg_.pool, size, dataPakg_.block) != 0) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "ReportEvent: IAMShmHandleMalloc block failed");
        return RESULT_NO_BLOCK;
    }
    int ret = IAMShmWrite(dataPakg_.block, buf, size, 0);
    if (ret != 0) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "ReportEvent: memcpy_s write block failed, err=%d", ret);
        FreeBlock();
        return RESULT_WRITE_FAILED;
    }
    ret = IAMRTDataEnqueue(iamRtfsFile_->dataHandle, &dataPakg_);
    if (ret != 0) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "ReportEvent: IAMRTDataEnqueue failed, err=%d", ret);
        FreeBlock();
        return RESULT_ENQUEUE_FAILED;
    }
    return RESULT_OK;
}

void ReportEventClientImpl::FreeBlock()
{
    if (IAMShmFree(dataPakg_.pool, dataPakg_.block) != 0) {
        syslog(GetSyslogLevel(GRP_OWNER_LOG_ERROR), "ReportEvent: IAMShmFree failed");
    }
}

}  // namespace ProcMgr

ReportEventClient::~ReportEventClient() = default;

ReportEventClient& ReportEventClient::GetInstance()
{
    static ProcMgr::ReportEventClientImpl instance;
    return instance;
}
