// The subscription half: registration, subscriptions, read threads, decoding, fault self-report.
//
// One source file, because every log line of the half names this file and its own line. Its sections follow the road of
// a subscription: logging, shared state, the registration front, starting and stopping, the read thread, decoding, the
// fault-reporting library, the end.
#include "subscriber/ReportEventServerImpl.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <utility>

#include "c_sec.h"
#include "common/NoCancellation.h"
#include "fte.h"
#include "iam.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "slog.h"

// Weak, so that a process without the fault-reporting library loads this one and lives: it publishes, receives raw
// events, and meets a failure where the library would have to be called (CallFaultReporting).
#pragma weak FTEDeSerialize
#pragma weak FTERegisterCallback
#pragma weak FTEUnregisterCallback
#pragma weak MidFTEReport

// ---------------------------------------------------------------------------------------------------------------------
// Logging. Macros, so that a message carries the line of its own statement. Every message asks for its level itself,
// right before it is written; the event log is never filtered by level.

#define SOURCE_FILE "ReportEventServerImpl.cpp"

#define LOG_TEXT(level, text)                                                       \
    do {                                                                            \
        if (CheckLogLevel(SLOG_MODULE, (level)) == 1) {                             \
            DlogInner(SLOG_MODULE, (level), "[%s:%d]" text, SOURCE_FILE, __LINE__); \
        }                                                                           \
    } while (false)

#define LOG(level, format, ...)                                                                    \
    do {                                                                                           \
        if (CheckLogLevel(SLOG_MODULE, (level)) == 1) {                                            \
            DlogInner(SLOG_MODULE, (level), "[%s:%d]" format, SOURCE_FILE, __LINE__, __VA_ARGS__); \
        }                                                                                          \
    } while (false)

#define LOG_EVENT(format, ...) DlogEventInner(SLOG_EVENT_MODULE, "[%s:%d]" format, SOURCE_FILE, __LINE__, __VA_ARGS__)

namespace ReportEvent {

const std::string PM_FAULT_RES_FILE = PM_FAULT_RESOURCE;
const std::string SEA_PM_FAULT_RES_FILE = SEA_PM_FAULT_RESOURCE;
const std::string PM_PROCESS_NAME = "process-manager";
const std::string SEA_PM_PROCESS_NAME = "sea_process-manager";
const std::string SEC_EVENT_RES_FILE = SECURITY_RESOURCE;

namespace {

constexpr int SLOG_MODULE = 54;
constexpr int SLOG_EVENT_MODULE = 0x1000036;  // module 54, event-log bit set

constexpr int LEVEL_NOTICE = 2;
constexpr int LEVEL_ERROR = 3;
constexpr int LEVEL_LIFECYCLE = 16;

constexpr size_t READ_BUF_SIZE = RECORD_SIZE_MAX;
constexpr std::chrono::seconds RECONNECT_TIME_LIMIT{5};
constexpr std::chrono::milliseconds RECONNECT_PAUSE{100};

// ---------------------------------------------------------------------------------------------------------------------
// Shared state. Both locks are leaves: nothing that blocks, logs or runs a callback happens under them.

// Guards the two tables and the `fd` of their entries. Entries are inserted and erased by the caller, and an entry
// outlives its thread: so the caller may walk a table, and keep hold of an entry, without the lock.
std::mutex tableMutex;

// Orders the replacement of a callback with its copying by a delivery.
std::mutex callbackMutex;

// Set by the first registration and never reset. The caller's alone.
bool signalHandlerInstalled = false;

// Stores `replacement`. What was stored before dies with the parameter, outside the lock: its destructor is client
// code.
template <typename Callback>
void ReplaceCallback(Callback& stored, Callback replacement)
{
    const std::lock_guard<std::mutex> lock(callbackMutex);
    stored.swap(replacement);
}

template <typename Callback>
Callback CopyCallback(const Callback& stored)
{
    const std::lock_guard<std::mutex> lock(callbackMutex);
    return stored;
}

// Takes the descriptor out of an entry. Whoever gets a number here owns it and closes it; -1 means that another thread
// has taken it before. Numbers are never compared: the system may hand out the same one again at any moment.
int TakeDescriptor(EventSourceInfo& info)
{
    const std::lock_guard<std::mutex> lock(tableMutex);
    return std::exchange(info.fd, -1);
}

void CloseDescriptor(int fd)
{
    if (fd >= 0) {
        close(fd);
    }
}

using SourceMap = std::map<std::string, EventSourceInfo>;

SourceMap::iterator FindEntry(SourceMap& table, const std::string& name)
{
    const std::lock_guard<std::mutex> lock(tableMutex);
    return table.find(name);
}

const char* TableName(EventType type)
{
    return type == SECURITY_EVENT ? "secEvtSrcMap_" : "faultEvtSrcMap_";
}

// Calls a function of the fault-reporting library. A null one is absent from the process, which is a failure like any
// other.
template <typename... Parameters, typename... Arguments>
int CallFaultReporting(int (*function)(Parameters...), Arguments&&... arguments)
{
    return function == nullptr ? -1 : function(std::forward<Arguments>(arguments)...);
}

}  // namespace

ReportEventServerImpl::SourceMap& ReportEventServerImpl::Table(EventType type)
{
    return type == SECURITY_EVENT ? secEvtSrcMap_ : faultEvtSrcMap_;
}

std::atomic<bool>& ReportEventServerImpl::RunningFlag(EventType type)
{
    return type == SECURITY_EVENT ? secEvtRunning_ : faultEvtRunning_;
}

// ---------------------------------------------------------------------------------------------------------------------
// The registration front.

namespace {

// Runs on whatever thread a SIGPIPE hits, between any two of its statements: a read that has just failed must still
// find its errno.
void ServerSignalHandler(int signal)
{
    const int savedErrno = errno;
    LOG(LEVEL_LIFECYCLE, "server catch signal=%d", signal);
    errno = savedErrno;
}

void InstallSignalHandler()
{
    struct sigaction action = {};
    action.sa_handler = ServerSignalHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGPIPE, &action, nullptr);
    signalHandlerInstalled = true;
}

}  // namespace

int ReportEventServerImpl::FmRegisterMidReportEventImpl(
    const std::vector<std::string>& groupOwnerList,
    const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& eventCallback,
    const std::function<void(const dsmi_event&)>& deviceCallback)
{
    const NoCancellation noCancellation;
    ReplaceCallback(reportEventCb, eventCallback);
    ReplaceCallback(reportEventMidCb, deviceCallback);
    if (!signalHandlerInstalled) {
        InstallSignalHandler();
    }
    const int ret = StartSubscribeEvent(groupOwnerList, FAULT_EVENT);
    if (ret != RESULT_OK) {
        LOG(LEVEL_ERROR, "subscribe fault event failed, ret=0x%X\n", static_cast<unsigned int>(ret));
    }
    InitPmFaultReport();
    return ret;
}

int ReportEventServerImpl::FmUnregisterReportEventImpl(const std::vector<std::string>& groupOwnerList)
{
    const NoCancellation noCancellation;
    const int ret = StopSubscribeEvent(groupOwnerList, FAULT_EVENT);
    if (ret != RESULT_OK) {
        LOG(LEVEL_ERROR, "stop subscribe fault event failed, ret=0x%X\n", static_cast<unsigned int>(ret));
    }
    FinishPmFaultReport();
    return ret;
}

int ReportEventServerImpl::RegIDSEventReportHandlerImpl(const std::function<void(const dsmi_event&)>& securityCallback)
{
    const NoCancellation noCancellation;
    ReplaceCallback(idsEventReportCb, securityCallback);
    if (!signalHandlerInstalled) {
        InstallSignalHandler();
    }
    const int ret = StartSubscribeEvent({SEC_EVENT_RES_FILE}, SECURITY_EVENT);
    if (ret != RESULT_OK) {
        LOG(LEVEL_ERROR, "subscribe security event failed, ret=0x%X\n", static_cast<unsigned int>(ret));
    }
    return ret;
}

int ReportEventServerImpl::UnregIDSEventReportHandlerImpl()
{
    const NoCancellation noCancellation;
    const int ret = StopSubscribeEvent({SEC_EVENT_RES_FILE}, SECURITY_EVENT);
    if (ret != RESULT_OK) {
        LOG(LEVEL_ERROR, "stop subscribe security event failed, ret=0x%X\n", static_cast<unsigned int>(ret));
    }
    return ret;
}

// ---------------------------------------------------------------------------------------------------------------------
// Starting and stopping.

namespace {

// Logs why a name is refused; true when it is not.
bool CheckFileNameIsValid(const std::string& fileName)
{
    switch (CheckResourceName(fileName)) {
        case NameFault::NONE:
            return true;
        case NameFault::HAS_DOT:
            LOG(LEVEL_ERROR, "Illegal fileName, find '.', cannot open file=%s", fileName.c_str());
            return false;
        case NameFault::NO_COLON:
            LOG(LEVEL_ERROR, "Illegal fileName, cannot find ':', cannot open file=%s", fileName.c_str());
            return false;
        case NameFault::WRONG_PREFIX:
        case NameFault::HAS_NUL:
            break;
    }
    LOG(LEVEL_ERROR, "CheckFileNameIsValid failed prefix=%s, fileName=%s", RESOURCE_PATH_PREFIX, fileName.c_str());
    return false;
}

// Adds the acceptable names of a fault-event list to `names`.
int CollectFaultFileNames(const std::vector<std::string>& groupOwnerList, std::set<std::string>& names)
{
    int result = RESULT_OK;
    for (const std::string& name : groupOwnerList) {
        if (!CheckFileNameIsValid(name)) {
            result = RESULT_BAD_NAME;
        } else if (!names.insert(name).second) {
            LOG(LEVEL_ERROR, "resFile=%s is repeated, please check your input groupOwnerList", name.c_str());
            result = RESULT_BAD_NAME;
        }
    }
    return result;
}

// Ends the read thread of an entry whose running flag is clear. Closing first wakes a thread that is blocked in a read;
// looking again after the join finds the descriptor that a reconnection stored in between. Returns the number that was
// closed first.
int CloseAndJoin(EventSourceInfo& info)
{
    const int fd = TakeDescriptor(info);
    CloseDescriptor(fd);
    if (info.readThread.joinable()) {
        info.readThread.join();
    }
    CloseDescriptor(TakeDescriptor(info));
    return fd;
}

// The field `fd` keeps its value.
void JoinReadThread(const std::string& resFile, EventSourceInfo& info)
{
    const bool hasThread = info.readThread.joinable();
    const int fd = CloseAndJoin(info);
    if (hasThread) {
        LOG(LEVEL_LIFECYCLE, "JoinReadThread: join thead of resfile=%s success", resFile.c_str());
    }
    const std::lock_guard<std::mutex> lock(tableMutex);
    info.fd = fd;
}

}  // namespace

// Closes and joins what an earlier subscription of the family left in its table, while the flag is still false: so no
// old thread takes the close for a lost connection, and none comes back to life when the flag goes true.
void ReportEventServerImpl::RetireLeftovers(EventType type)
{
    for (auto& [name, info] : Table(type)) {
        JoinReadThread(name, info);
        TakeDescriptor(info);  // the number is closed: nobody owns it any more
    }
}

int ReportEventServerImpl::StartSubscribeEvent(const std::vector<std::string>& groupOwnerList, EventType type)
{
    if (RunningFlag(type)) {
        return RESULT_OK;
    }
    std::set<std::string> names;
    int result = RESULT_OK;
    if (type == SECURITY_EVENT) {
        names.insert(groupOwnerList.begin(), groupOwnerList.end());
    } else {
        result = CollectFaultFileNames(groupOwnerList, names);
    }
    RetireLeftovers(type);
    RunningFlag(type) = true;
    for (const std::string& name : names) {
        if (SubscribeFile(name, type) != RESULT_OK) {
            result = RESULT_OPEN_FAILED;
        }
    }
    return result;
}

// Opens one file and starts its read thread. The entry stands before the thread does, because the thread may lose its
// connection and look the entry up at once. If the thread cannot be started, no entry and no descriptor stays behind.
int ReportEventServerImpl::SubscribeFile(const std::string& name, EventType type)
{
    const int fd = open(name.c_str(), O_RDWR);
    if (fd < 0) {
        LOG(LEVEL_ERROR, "Open file failed. resFile=%s fd=%d", name.c_str(), fd);
        return RESULT_OPEN_FAILED;
    }
    LOG(LEVEL_NOTICE, "Open file success. resFile=%s, fd=%d", name.c_str(), fd);
    SourceMap& table = Table(type);
    try {
        EventSourceInfo* info = nullptr;
        {
            const std::lock_guard<std::mutex> lock(tableMutex);
            info = &table[name];
            info->fd = fd;
        }
        info->readThread = std::thread(&ReportEventServerImpl::ReadData, this, fd, name, type);
    } catch (...) {
        {
            const std::lock_guard<std::mutex> lock(tableMutex);
            table.erase(name);
        }
        CloseDescriptor(fd);
        throw;
    }
    return RESULT_OK;
}

int ReportEventServerImpl::StopSubscribeEvent(const std::vector<std::string>& groupOwnerList, EventType type)
{
    // Cleared before any descriptor is closed: a read that fails because of the close must find it so.
    if (!RunningFlag(type).exchange(false)) {
        return RESULT_OK;
    }
    int result = RESULT_OK;
    SourceMap& table = Table(type);
    for (const std::string& name : groupOwnerList) {
        const auto entry = FindEntry(table, name);
        if (entry == table.end()) {
            LOG(LEVEL_ERROR, "Illegal fileName=%s, cannot find resfile in %s", name.c_str(), TableName(type));
            result = RESULT_BAD_NAME;
            continue;
        }
        const bool hasThread = entry->second.readThread.joinable();
        CloseAndJoin(entry->second);
        if (hasThread) {
            LOG(LEVEL_LIFECYCLE, "StopSubscribeEvent: join thead of resfile=%s success", name.c_str());
        }
        const std::lock_guard<std::mutex> lock(tableMutex);
        table.erase(entry);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------------------------------
// The read thread.

namespace {

enum class ReadFailure { PASSING, CONNECTION_LOST, FATAL };

ReadFailure ClassifyReadFailure(int error)
{
    switch (error) {
        case ETIMEDOUT:
        case EAGAIN:
        case EIO:
            return ReadFailure::PASSING;
        case EPIPE:
        case EBADMSG:
        case EBADFD:
        case EBADF:
            return ReadFailure::CONNECTION_LOST;
        default:
            return ReadFailure::FATAL;
    }
}

bool IsProcessManagerFile(const std::string& name)
{
    return name == PM_FAULT_RES_FILE || name == SEA_PM_FAULT_RES_FILE;
}

// The system keeps 15 characters; whoever stands in for prctl sees more. Without allocation: nothing here catches
// std::bad_alloc.
void NameThisThread(const std::string& resFile)
{
    char name[64];
    std::snprintf(name, sizeof(name), "Rd_%s", resFile.c_str());
    prctl(PR_SET_NAME, name);
}

void ClearBuffer(unsigned char* buffer)
{
    memset_s(buffer, READ_BUF_SIZE, 0, READ_BUF_SIZE);
}

}  // namespace

void ReportEventServerImpl::ReadData(int fd, const std::string& name, EventType type)
{
    NameThisThread(name);
    const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[READ_BUF_SIZE]);
    if (buffer == nullptr) {
        const int error = errno;
        LOG(LEVEL_ERROR, "unique point fail, errno=%d %s", error, name.c_str());
        return;
    }
    ClearBuffer(buffer.get());
    const std::atomic<bool>& running = RunningFlag(type);
    bool readAgain = false;  // after a passing failure, without another look at the flag
    while (readAgain || running) {
        readAgain = false;
        const int64_t count = IAMFastRead(fd, buffer.get(), READ_BUF_SIZE);
        const int error = errno;
        if (count >= 0) {
            if (!DeSerializeDataAndCallback(buffer.get(), static_cast<unsigned int>(count))) {
                LOG(LEVEL_ERROR, "fault deserialize/callback failed, data read from %s", name.c_str());
            }
            ClearBuffer(buffer.get());
            continue;
        }
        if (!running) {
            return;
        }
        switch (ClassifyReadFailure(error)) {
            case ReadFailure::PASSING:
                readAgain = true;
                break;
            case ReadFailure::CONNECTION_LOST:
                if (IsProcessManagerFile(name)) {
                    ReportPmEvent(name);
                    return;
                }
                if (!TryReconnectServer(fd, name, type)) {
                    LOG(LEVEL_ERROR, "Reconnect %s failed, ret=%ld errno=%d", name.c_str(), static_cast<long>(count),
                        error);
                    return;
                }
                break;
            case ReadFailure::FATAL:
                LOG(LEVEL_ERROR, "ReadData IAMFastRead %s failed, ret=%ld errno=%d", name.c_str(),
                    static_cast<long>(count), error);
                return;
        }
    }
}

namespace {

// Opens `name` again and again until it succeeds, the time is up or the family stops. Returns a descriptor or -1.
int ReopenUntilDeadline(const std::string& name, const std::atomic<bool>& running)
{
    const auto deadline = std::chrono::steady_clock::now() + RECONNECT_TIME_LIMIT;
    while (running && std::chrono::steady_clock::now() <= deadline) {
        const int fd = open(name.c_str(), O_RDONLY);
        if (fd >= 0) {
            return fd;
        }
        std::this_thread::sleep_for(RECONNECT_PAUSE);
    }
    return -1;
}

}  // namespace

bool ReportEventServerImpl::TryReconnectServer(int& fd, const std::string& name, EventType type)
{
    SourceMap& table = Table(type);
    int lostFd = fd;
    {
        // The entry owns the descriptor. If a stop has taken it, the number may belong to another file by now; without
        // an entry it is the one that was handed in.
        const std::lock_guard<std::mutex> lock(tableMutex);
        const auto entry = table.find(name);
        if (entry != table.end()) {
            lostFd = std::exchange(entry->second.fd, -1);
        }
    }
    CloseDescriptor(lostFd);
    fd = ReopenUntilDeadline(name, RunningFlag(type));
    if (fd < 0) {
        LOG(LEVEL_LIFECYCLE, "Reconnect %s. (file=%s,fd=%d)", "failed", name.c_str(), fd);
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(tableMutex);
        table[name].fd = fd;
    }
    LOG(LEVEL_LIFECYCLE, "Reconnect %s. (file=%s,fd=%d)", "success", name.c_str(), fd);
    return true;
}

// ---------------------------------------------------------------------------------------------------------------------
// Decoding.

namespace {

// A text area that may lack its terminator, as a string that has one.
template <size_t Size>
class TerminatedText {
public:
    explicit TerminatedText(const char (&area)[Size])
    {
        const size_t length = strnlen(area, Size);
        std::memcpy(text_, area, length);
        text_[length] = '\0';
    }

    const char* c_str() const
    {
        return text_;
    }

private:
    char text_[Size + 1];
};

void WriteDsmiEventLog(const dsmi_event& event, bool forceLog, EventType family)
{
    if (family == SECURITY_EVENT || (!forceLog && event.assertion != 0)) {
        return;
    }
    const TerminatedText eventName(event.eventName);
    LOG_EVENT(
        "eventName=%s; eventId=0x%X; deviceId=%u; nodeId=%u; assertion=%u; osId=%u; severity=%u; eventSerialNum=%d; "
        "notifySerialNum=%d; eventArisedTime=%llu;",
        eventName.c_str(), event.eventId, static_cast<unsigned int>(event.deviceId),
        static_cast<unsigned int>(event.nodeId), static_cast<unsigned int>(event.assertion),
        static_cast<unsigned int>(event.osId), static_cast<unsigned int>(event.severity), event.eventSerialNum,
        event.notifySerialNum, static_cast<unsigned long long>(event.eventArisedTime));
}

void WriteFteEventLog(const FTEInfo& info, bool forceLog)
{
    if (!forceLog && info.assertion != 0) {
        return;
    }
    const TerminatedText eventName(info.eventName);
    LOG_EVENT("eventName=%s; eventId=%u; deviceId=%u; nodeId=%u; assertion=%u; osId=%u;", eventName.c_str(),
              static_cast<unsigned int>(info.eventId), static_cast<unsigned int>(info.deviceId), info.nodeId,
              static_cast<unsigned int>(info.assertion), info.osId);
}

int MidFTEDeSerialize(const unsigned char* payload, unsigned int payloadLen, dsmi_event& event)
{
    if (payloadLen != sizeof(event)) {
        LOG(LEVEL_ERROR, "deserialized buf size is not eqaul with size of struct dsmi_event=%u\n",
            static_cast<unsigned int>(sizeof(event)));
        return RESULT_WRONG_SIZE;
    }
    std::memcpy(&event, payload, sizeof(event));
    return RESULT_OK;
}

bool DeSerializeDsmiEventAndCallback(const unsigned char* payload, unsigned int payloadLen,
                                     std::function<void(const dsmi_event&)> logFunc,
                                     std::function<void(const dsmi_event&)> callback)
{
    dsmi_event event = {};
    const int ret = MidFTEDeSerialize(payload, payloadLen, event);
    if (ret != RESULT_OK) {
        LOG(LEVEL_ERROR, "MidFTEDeSerialize err ret=0x%X", static_cast<unsigned int>(ret));
        return false;
    }
    logFunc(event);
    if (!callback) {
        LOG_TEXT(LEVEL_ERROR, "report event failed, reportEventMidCb is nullptr");
        return false;
    }
    callback(event);
    return true;
}

// What FTEDeSerialize fills. Owns the array of data identifiers from before the call on, whatever comes of it.
struct FteOutput {
    FTEInfo info;
    UDSInfo uds;

    // All bytes zero, padding included, which an initializer does not promise.
    FteOutput()
    {
        std::memset(&info, 0, sizeof(info));
        std::memset(&uds, 0, sizeof(uds));
    }
    FteOutput(const FteOutput&) = delete;
    FteOutput& operator=(const FteOutput&) = delete;
    ~FteOutput()
    {
        delete[] uds.didInfo;
    }
};

// All bytes zero before the fields are set, padding included.
int ConvertEventInfo(const FTEInfo& info, EventInfo& converted)
{
    std::memset(&converted, 0, sizeof(converted));
    converted.eventId = info.eventId;
    converted.assertion = info.assertion;
    converted.nodeId = info.nodeId;
    converted.deviceId = info.deviceId;
    converted.osId = info.osId;
    return memcpy_s(converted.eventPara.buf, sizeof(converted.eventPara.buf), info.eventName, sizeof(info.eventName));
}

UDSInfoForCpp ConvertUdsInfo(const UDSInfo& uds)
{
    UDSInfoForCpp converted;
    converted.udsId = uds.udsId;
    converted.didInfo.resize(uds.didNum);
    for (size_t i = 0; i < converted.didInfo.size(); ++i) {
        const DidInfo& entry = uds.didInfo[i];
        converted.didInfo[i].did = entry.did;
        converted.didInfo[i].data.assign(entry.data, entry.data + entry.len);
    }
    return converted;
}

bool DeSerializeFteEventAndCallback(const unsigned char* payload, unsigned int payloadLen,
                                    std::function<void(const FTEInfo&)> logFunc,
                                    std::function<void(const EventInfo&, const UDSInfoForCpp&)> callback)
{
    FteOutput decoded;
    int ret = CallFaultReporting(FTEDeSerialize, payload, payloadLen, &decoded.info, &decoded.uds);
    if (ret != 0) {
        LOG(LEVEL_ERROR, "FTEDeSerialize err ret=%d", ret);
        return false;
    }
    logFunc(decoded.info);
    EventInfo eventInfo;
    ret = ConvertEventInfo(decoded.info, eventInfo);
    if (ret != 0) {
        LOG(LEVEL_ERROR, "memcpy_s eventInfoTmp.eventPara.buf failed. ret=%d", ret);
        return false;
    }
    const UDSInfoForCpp udsInfo = ConvertUdsInfo(decoded.uds);
    if (!callback) {
        LOG_TEXT(LEVEL_ERROR, "report event failed, reportEventCb is nullptr");
        return false;
    }
    callback(eventInfo, udsInfo);
    return true;
}

}  // namespace

bool ReportEventServerImpl::DeSerializeDataAndCallback(const unsigned char* data, unsigned int len) const
{
    if (data == nullptr || len < RECORD_SIZE_MIN) {
        LOG_TEXT(LEVEL_ERROR, "deserialize data failed, header is null or size error");
        return false;
    }
    const uint8_t header = data[0];
    if (!IsValidRecordHeader(header)) {
        LOG(LEVEL_ERROR, "invalid header, header=0x%x", static_cast<unsigned int>(header));
        return false;
    }
    const bool forceLog = data[1] != 0;
    const unsigned char* payload = data + RECORD_PREFIX_SIZE;
    const unsigned int payloadLen = len - static_cast<unsigned int>(RECORD_PREFIX_SIZE);
    // The log writers capture two small values at most, so that a std::function holds them without allocating.
    if (header == RECORD_HEADER_FTE_FAULT) {
        return DeSerializeFteEventAndCallback(
            payload, payloadLen, [forceLog](const FTEInfo& info) { WriteFteEventLog(info, forceLog); },
            CopyCallback(reportEventCb));
    }
    const EventType family = RecordFamily(header);
    return DeSerializeDsmiEventAndCallback(
        payload, payloadLen,
        [forceLog, family](const dsmi_event& event) { WriteDsmiEventLog(event, forceLog, family); },
        CopyCallback(family == SECURITY_EVENT ? idsEventReportCb : reportEventMidCb));
}

// ---------------------------------------------------------------------------------------------------------------------
// The fault-reporting library.

namespace {

constexpr uint16_t PM_LOST_DEVICE_ID = 0xFFFF;
constexpr uint8_t PM_LOST_SEVERITY = 2;
constexpr uint8_t PM_LOST_ASSERTION = 1;

constexpr size_t THREAD_NAME_SIZE = 16;

}  // namespace

void ReportEventServerImpl::InitPmFaultReport()
{
    const std::function<int(const unsigned char*, unsigned int)> callback =
        [this](const unsigned char* data, unsigned int len) { return FaultReportCallback(data, len); };
    const int ret = CallFaultReporting(FTERegisterCallback, callback);
    if (ret != 0) {
        LOG(LEVEL_ERROR, "FTERegister pm fault report Callback failed, ret=0x%X", static_cast<unsigned int>(ret));
    }
}

void ReportEventServerImpl::FinishPmFaultReport()
{
    const int ret = CallFaultReporting(FTEUnregisterCallback);
    LOG(LEVEL_LIFECYCLE, "FTEUnregisterCallback ret=0x%X", static_cast<unsigned int>(ret));
}

int ReportEventServerImpl::FaultReportCallback(const unsigned char* data, const unsigned int& len) const
{
    if (DeSerializeDataAndCallback(data, len)) {
        return 0;
    }
    char threadName[THREAD_NAME_SIZE] = {};
    prctl(PR_GET_NAME, threadName);
    LOG(LEVEL_ERROR, "fault reported failed by thread=%s", threadName);
    return -1;
}

void ReportEventServerImpl::ReportPmEvent(const std::string& resFile) const
{
    FTEReportInfo report = {};
    memset_s(report.procName, sizeof(report.procName), 0, sizeof(report.procName));
    report.eventId = PM_LOST_EVENT_ID;
    report.reserved4 = 0;
    report.deviceId = PM_LOST_DEVICE_ID;
    report.severity = PM_LOST_SEVERITY;
    report.assertion = PM_LOST_ASSERTION;
    const std::string& pmName = resFile == SEA_PM_FAULT_RES_FILE ? SEA_PM_PROCESS_NAME : PM_PROCESS_NAME;
    const int copied = strncpy_s(report.procName, sizeof(report.procName), pmName.c_str(), pmName.length());
    if (copied != 0) {
        LOG(LEVEL_ERROR, "ReportPmEvent strncpys_s failed. errno=%d pmName=%s EVENT_SPEC_SIZE_MAX=%d", copied,
            pmName.c_str(), static_cast<int>(EVENT_SPEC_SIZE_MAX));
        return;
    }
    const TerminatedText procName(report.procName);
    LOG(LEVEL_ERROR, "FTEReport begin, eventId=0x%X, severity=%u, assertion=%u, deviceId=%u, procName=%s",
        report.eventId, static_cast<unsigned int>(report.severity), static_cast<unsigned int>(report.assertion),
        static_cast<unsigned int>(report.deviceId), procName.c_str());
    const int res = CallFaultReporting(MidFTEReport, &report);
    if (res != 0) {
        LOG(LEVEL_ERROR,
            "PROCMGR FTEReport err res=0x%X, eventId=0x%X, severity=%u, assertion=%u, deviceId=%u, procName=%s",
            static_cast<unsigned int>(res), report.eventId, static_cast<unsigned int>(report.severity),
            static_cast<unsigned int>(report.assertion), static_cast<unsigned int>(report.deviceId), procName.c_str());
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The end, and the one instance.

ReportEventServerImpl::~ReportEventServerImpl()
{
    LOG_TEXT(LEVEL_LIFECYCLE, "~ReportEventServerImpl...");
    faultEvtRunning_ = false;
    secEvtRunning_ = false;
    for (auto& [name, info] : faultEvtSrcMap_) {
        JoinReadThread(name, info);
    }
    for (auto& [name, info] : secEvtSrcMap_) {
        JoinReadThread(name, info);
    }
    DlogFlush();
}

}  // namespace ReportEvent

ReportEventServer::~ReportEventServer() = default;

ReportEventServer& ReportEventServer::GetInstance()
{
    static ReportEvent::ReportEventServerImpl instance;
    return instance;
}
