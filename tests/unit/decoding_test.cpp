// From a record's bytes to the event log and the client's callback.
#include <new>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string TOO_SHORT = "log 3 deserialize data failed, header is null or size error";
const std::string NO_DEVICE_CALLBACK = "log 3 report event failed, reportEventMidCb is nullptr";
const std::string WRONG_SIZE =
    "log 3 deserialized buf size is not eqaul with size of struct dsmi_event=360\n | "
    "log 3 MidFTEDeSerialize err ret=0xF10205";

static std::string EventLog(int assertion)
{
    return Text("event eventName=disk; eventId=0x0; deviceId=0; nodeId=0; assertion=", assertion,
                "; osId=0; severity=0; eventSerialNum=0; notifySerialNum=0; eventArisedTime=0;");
}

// A fault event with three data identifiers: three bytes, none, one.
static int DecodeThreeDids(const unsigned char*, unsigned int, FTEInfo* info, UDSInfo* uds)
{
    *info = {60001, 0, 4000000001, 250, 4000000002, {}};
    std::fill(std::begin(info->eventName), std::end(info->eventName), 'n');
    *uds = {60002, 3, new DidInfo[3]};
    const std::string data[] = {"abc", "", "z"};
    for (uint16_t i = 0; i < 3; ++i) {
        DidInfo& entry = uds->didInfo[i];
        entry.did = static_cast<uint16_t>(0xF190 + i);
        entry.len = static_cast<uint16_t>(data[i].size());
        entry.data = data[i].empty() ? nullptr : new unsigned char[data[i].size()];
        std::copy(data[i].begin(), data[i].end(), entry.data);
    }
    return 0;
}

class Decoding : public LibraryTest {
protected:
    // A raw record is decoded and delivered without heap use; whatever a fault event needs is released.
    void Check(const std::string& journal, bool delivered, Bytes record, size_t size = 362)
    {
        record.resize(size);
        const HeapUse before = heap;
        EXPECT_EQ(delivered, server_->DeSerializeDataAndCallback(record.data(), static_cast<unsigned int>(size)));
        EXPECT_EQ(before.live, heap.live);
        EXPECT_TRUE(record[0] == 0x00 || before.allocations == heap.allocations);
        EXPECT_EQ(journal, Journal("log event deliver fte memcpy_s")) << testing::PrintToString(record);
    }
};

TEST_F(Decoding, EveryRawRecordIsDeliveredOrRefusedAsItsBytesSay)
{
    for (const size_t size : {1, 2}) {
        Check(TOO_SHORT, false, Raw(0x01, "disk"), size);
    }
    for (const size_t size : {3, 361, 363, 3960}) {
        Check(WRONG_SIZE, false, Raw(0x01, "disk"), size);
        Check(WRONG_SIZE, false, Raw(0x11, "disk"), size);
    }
    for (int header = 2; header < 256; ++header) {
        if (header != 0x11) {
            Check(Text("log 3 invalid header, header=0x", std::hex, header), false,
                  Raw(static_cast<unsigned char>(header), "disk"));
        }
    }
    for (const unsigned char forceLog : {0, 1, 0x80}) {
        for (const unsigned char assertion : {0, 1, 2}) {
            const bool isLogged = forceLog != 0 || assertion == 0;
            Check((isLogged ? EventLog(assertion) + " | " : "") + "device disk", true,
                  Raw(0x01, "disk", forceLog, assertion));
            Check("security disk", true, Raw(0x11, "disk", forceLog, assertion));
        }
    }
    server_->reportEventMidCb = server_->idsEventReportCb = nullptr;
    Check(EventLog(1) + " | " + NO_DEVICE_CALLBACK, false, Raw(0x01, "disk", 1));
    Check(NO_DEVICE_CALLBACK, false, Raw(0x11, "disk", 1));
    EXPECT_FALSE(server_->DeSerializeDataAndCallback(nullptr, 362));
    EXPECT_EQ("check 3 | " + TOO_SHORT, Journal());
}

// Every byte of the event names its own offset, and none is a terminator.
TEST_F(Decoding, ARawEventIsCarriedByteForByteAndLoggedFieldByField)
{
    Bytes bytes(360);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(0x80 | i);
    }
    dsmi_event sent;
    std::memcpy(&sent, bytes.data(), sizeof(sent));
    server_->reportEventMidCb = [&](const dsmi_event& event) {
        EXPECT_EQ(0, std::memcmp(&sent, &event, sizeof(event)));
    };
    const RawRecord record = MakeRawRecord(FAULT_EVENT, true, sent);
    EXPECT_TRUE(server_->DeSerializeDataAndCallback(record.bytes, sizeof(record.bytes)));
    EXPECT_EQ("event eventName=" + std::string(bytes.begin() + 40, bytes.begin() + 328) +
                  "; eventId=0x8B8A8988; deviceId=36236; nodeId=143; assertion=147; osId=200; severity=146; "
                  "eventSerialNum=-1751738988; notifySerialNum=-1684366952; eventArisedTime=12080525177006498208;",
              Journal("log event"));
}

TEST_F(Decoding, AFaultEventIsConvertedWholeAndItsArrayReleasedOnEveryWayOut)
{
    const Bytes record = {0x00, 0x00, 'p', 'q', 'r'};
    const std::string converted = "FTEDeSerialize(pqr) | event eventName=" + std::string(128, 'n') +
                                  "; eventId=60001; deviceId=250; nodeId=4000000001; assertion=0; osId=4000000002; | "
                                  "memcpy_s(128, 128)";
    const auto check = [&](const std::string& journal, bool delivered) { Check(journal, delivered, record, 5); };
    deserialize = DecodeThreeDids;
    check(converted + " | log 3 report event failed, reportEventCb is nullptr", false);

    EventInfo expected;
    std::memset(&expected, 0, sizeof(expected));  // padding included
    expected.eventId = 60001;
    expected.nodeId = 4000000001;
    expected.deviceId = 250;
    expected.osId = 4000000002;
    std::fill(std::begin(expected.eventPara.buf), std::end(expected.eventPara.buf), 'n');
    std::string diagnosis;
    server_->reportEventCb = [&](const EventInfo& event, const UDSInfoForCpp& uds) {
        const Offstage offstage;
        EXPECT_EQ(0, std::memcmp(&expected, &event, sizeof(event)));
        diagnosis += Text(uds.udsId);
        for (const DidInfoForCpp& did : uds.didInfo) {
            diagnosis += Text(" ", did.did, "=", std::string(did.data.begin(), did.data.end()));
        }
    };
    check(converted, true);
    EXPECT_EQ("60002 61840=abc 61841= 61842=z", diagnosis);
    Results("memcpy_s", {34});
    check(converted + " | log 3 memcpy_s eventInfoTmp.eventPara.buf failed. ret=34", false);
    deserialize = [](auto... arguments) { return DecodeThreeDids(arguments...) - 77; };
    check("FTEDeSerialize(pqr) | log 3 FTEDeSerialize err ret=-77", false);
    deserialize = [](auto, auto, FTEInfo* info, auto) {
        info->assertion = 1;
        return 0;
    };
    server_->reportEventCb = [](const EventInfo&, const UDSInfoForCpp& uds) { EXPECT_TRUE(uds.didInfo.empty()); };
    const std::string line = " | event eventName=; eventId=0; deviceId=0; nodeId=0; assertion=1; osId=0;";
    Check("FTEDeSerialize(p) | memcpy_s(128, 128)", true, {0x00, 0, 'p'}, 3);
    Check("FTEDeSerialize(p)" + line + " | memcpy_s(128, 128)", true, {0x00, 1, 'p'}, 3);
}

// Whatever throws: each allocation in turn, and at last the callback.
TEST_F(Decoding, AnExceptionPassesAndLeavesNothingBehind)
{
    deserialize = DecodeThreeDids;
    const unsigned char record[] = {0x00, 0x00, 'p'};
    const std::string thrown(100, 'c');
    server_->reportEventCb = [thrown](const EventInfo&, const UDSInfoForCpp&) { throw thrown; };
    const auto decode = [&] { server_->DeSerializeDataAndCallback(record, sizeof(record)); };
    const HeapUse before = heap;
    EXPECT_THROW(decode(), std::string);
    const int64_t allocations = heap.allocations - before.allocations;
    EXPECT_LT(4, allocations);  // the copied callback, the vector of records, the bytes of two of them, what is thrown
    for (int64_t failing = 1; failing <= allocations; ++failing) {
        heap.failing = failing;
        EXPECT_THROW(decode(), std::bad_alloc) << failing;
        EXPECT_EQ(before.live, heap.live) << failing;
    }
}

TEST_F(Decoding, OnlyAResultOfOneLetsADiagnosticThroughAndNothingFiltersTheEventLog)
{
    server_->reportEventMidCb = nullptr;
    for (const int result : {0, 2, -1}) {
        Next("check", {nullptr, result}, 3);
        Check(EventLog(1), false, Raw(0x01, "disk", 1));
        Check("", false, Raw(0x01, "disk"), 100);
    }
}

}  // namespace recording
