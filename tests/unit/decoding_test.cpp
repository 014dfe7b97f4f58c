// From a record's bytes to the event log and the client's callback.
#include <new>
#include <stdexcept>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string TOO_SHORT = "log 3 deserialize data failed, header is null or size error";
const std::string NO_DEVICE_CALLBACK = "log 3 report event failed, reportEventMidCb is nullptr";
const std::string WRONG_SIZE =
    "log 3 deserialized buf size is not eqaul with size of struct dsmi_event=360\n | "
    "log 3 MidFTEDeSerialize err ret=0xF10205";

static std::string EventLog(int assertion) {
    return Text("event eventName=disk; eventId=0x0; deviceId=0; nodeId=0; assertion=", assertion,
                "; osId=0; severity=0; eventSerialNum=0; notifySerialNum=0; eventArisedTime=0;");
}

// A fault event with three data identifiers: three bytes, none, one.
static int DecodeThreeDids(const unsigned char*, unsigned int, FTEInfo* info, UDSInfo* uds) {
    *info = {60001, 0, 4000000001, 250, 4000000002, {}};
    std::fill(std::begin(info->eventName), std::end(info->eventName), 'n');
    *uds = {60002, 3, new DidInfo[3]};
    const std::string data[] = {"abc", "", "z"};
    for (size_t i = 0; i < 3; ++i) {
        uds->didInfo[i].did = static_cast<uint16_t>(0xF190 + i);
        uds->didInfo[i].len = static_cast<uint16_t>(data[i].size());
        uds->didInfo[i].data = data[i].empty() ? nullptr : new unsigned char[data[i].size()];
        std::copy(data[i].begin(), data[i].end(), uds->didInfo[i].data);
    }
    return 0;
}

const Bytes FAULT = {0x00, 0x00, 'p', 'q', 'r'};
const std::string FAULT_LOG = "event eventName=" + std::string(128, 'n') +
                              "; eventId=60001; deviceId=250; nodeId=4000000001; assertion=0; osId=4000000002;";

class Decoding : public LibraryTest {
protected:
    bool Decode(Bytes record, size_t size) {
        record.resize(size);
        return server_->DeSerializeDataAndCallback(record.data(), static_cast<unsigned int>(size));
    }
};

TEST_F(Decoding, EveryRawRecordIsDeliveredOrRefusedAsItsBytesSay) {
    const auto check = [&](const std::string& journal, bool delivered, const Bytes& record, size_t size = 362) {
        ClearJournal();
        EXPECT_EQ(delivered, Decode(record, size));
        EXPECT_EQ(journal, Journal("log event deliver fte")) << testing::PrintToString(record);
    };
    for (const size_t size : {0, 1, 2}) { check(TOO_SHORT, false, Raw(0x01, "disk"), size); }
    for (const size_t size : {3, 361, 363, 3960}) {
        check(WRONG_SIZE, false, Raw(0x01, "disk"), size);
        check(WRONG_SIZE, false, Raw(0x11, "disk"), size);
    }
    for (int header = 2; header < 256; ++header) {
        if (header != 0x11) {
            const std::string message = Text("log 3 invalid header, header=0x", std::hex, header);
            check(message, false, Raw(static_cast<unsigned char>(header), "disk"));
        }
    }
    for (const unsigned char forceLog : {0, 1, 0x80}) {
        for (const unsigned char assertion : {0, 1, 2}) {
            const std::string line = forceLog != 0 || assertion == 0 ? EventLog(assertion) + " | " : "";
            check(line + "device disk", true, Raw(0x01, "disk", forceLog, assertion));
            check("security disk", true, Raw(0x11, "disk", forceLog, assertion));
            size_t dids = 99;
            deserialize = [=](const unsigned char*, unsigned int, FTEInfo* info, UDSInfo*) {
                return info->assertion = assertion, 0;
            };
            Get(eventCallback) = [&](const EventInfo&, const UDSInfoForCpp& uds) { dids = uds.didInfo.size(); };
            EXPECT_TRUE(Decode({0x00, forceLog, 'p'}, 3));
            EXPECT_EQ(0u, dids);
            EXPECT_EQ(line.empty() ? 0u : 1u, Count("event "));
        }
    }
    Get(deviceCallback) = Get(securityCallback) = nullptr;
    check(EventLog(1) + " | " + NO_DEVICE_CALLBACK, false, Raw(0x01, "disk", 1));
    check(NO_DEVICE_CALLBACK, false, Raw(0x11, "disk", 1));
    ClearJournal();
    EXPECT_FALSE(server_->DeSerializeDataAndCallback(nullptr, 362));
    EXPECT_EQ("check 3 | " + TOO_SHORT, Journal());
}

TEST_F(Decoding, ARawEventIsCarriedByteForByteAndLoggedFieldByField) {
    Bytes record(362, 'x');  // no terminator anywhere
    const auto put = [&](size_t offset, uint64_t value, size_t width) {
        std::memcpy(record.data() + 2 + offset, &value, width);
    };
    record[0] = 0x01;
    put(8, 0x8C03A001, 4);
    put(12, 40001, 2);
    put(15, 201, 1);
    put(18, 202, 1);
    put(19, 203, 1);
    put(20, static_cast<uint64_t>(-5), 4);
    put(24, static_cast<uint64_t>(-6), 4);
    put(32, 0xFFFFFFFFFFFFFFFE, 8);
    put(328, 204, 1);
    Bytes received;
    Get(deviceCallback) = [&](const dsmi_event& event) {
        const auto bytes = reinterpret_cast<const unsigned char*>(&event);
        received.assign(bytes, bytes + sizeof(event));
    };
    ASSERT_TRUE(Decode(record, 362));
    EXPECT_EQ(Bytes(record.begin() + 2, record.end()), received);
    EXPECT_EQ("event eventName=" + std::string(288, 'x') +
                  "; eventId=0x8C03A001; deviceId=40001; nodeId=201; assertion=203; osId=204; severity=202; "
                  "eventSerialNum=-5; notifySerialNum=-6; eventArisedTime=18446744073709551614;",
              Journal());
}

TEST_F(Decoding, AFaultEventIsConvertedWholeAndItsArrayReleasedOnEveryWayOut) {
    int calls = 0;
    const auto callback = [&](const EventInfo& event, const UDSInfoForCpp& uds) {
        ++calls;
        EXPECT_EQ("60001 0 4000000001 250 4000000002 " + std::string(128, 'n') + " 60002",
                  Text(event.eventId, " ", +event.assertion, " ", event.nodeId, " ", +event.deviceId, " ", event.osId,
                       " ", std::string(event.eventPara.buf, 128), " ", uds.udsId));
        std::string dids;
        for (const DidInfoForCpp& did : uds.didInfo) {
            dids += Text(did.did, "=", std::string(did.data.begin(), did.data.end()), " ");
        }
        EXPECT_EQ("61840=abc 61841= 61842=z ", dids);
    };
    const auto check = [&](const std::string& journal, bool delivered) {
        ClearJournal();
        const int64_t liveBefore = heap.live;
        EXPECT_EQ(delivered, Decode(FAULT, FAULT.size()));
        EXPECT_EQ(liveBefore, heap.live);
        EXPECT_EQ("FTEDeSerialize(pqr) | " + journal, Journal("fte event log memcpy_s"));
    };
    deserialize = DecodeThreeDids;
    check(FAULT_LOG + " | memcpy_s(128, 128) | log 3 report event failed, reportEventCb is nullptr", false);
    Get(eventCallback) = callback;
    check(FAULT_LOG + " | memcpy_s(128, 128)", true);
    Results("memcpy_s", {34});
    check(FAULT_LOG + " | memcpy_s(128, 128) | log 3 memcpy_s eventInfoTmp.eventPara.buf failed. ret=34", false);
    deserialize = [](auto... arguments) { return DecodeThreeDids(arguments...) - 77; };
    check("log 3 FTEDeSerialize err ret=-77", false);
    EXPECT_EQ(1, calls);
}

TEST_F(Decoding, ExceptionsPassAndLeaveNothingBehind) {
    deserialize = DecodeThreeDids;
    Get(eventCallback) = [](const EventInfo&, const UDSInfoForCpp&) { throw std::runtime_error("client"); };
    int64_t liveBefore = heap.live;
    EXPECT_THROW(server_->DeSerializeDataAndCallback(FAULT.data(), 5), std::runtime_error);
    EXPECT_EQ(liveBefore, heap.live);

    Get(eventCallback) = [captured = std::string(100, 'c')](const EventInfo&, const UDSInfoForCpp&) {};
    int failures = -1;
    for (bool failed = true; failed;) {
        liveBefore = heap.live;
        heap.failing = ++failures + 1;
        failed = false;
        try {
            server_->DeSerializeDataAndCallback(FAULT.data(), 5);
        } catch (const std::bad_alloc&) { failed = true; }
        heap.failing = 0;
        ASSERT_EQ(liveBefore, heap.live) << "allocation " << failures;
    }
    EXPECT_GE(failures, 4);  // the copied callback, the vector of records, the bytes of two of them
}

TEST_F(Decoding, OnlyAResultOfOneLetsADiagnosticThroughAndNothingFiltersTheEventLog) {
    for (const int result : {0, 2, -1}) {
        ClearJournal();
        Always("check", nullptr, result);
        Decode(Raw(0x01, "disk"), 100);
        Get(deviceCallback) = nullptr;
        Decode(Raw(0x01, "disk", 1), 362);
        EXPECT_EQ("check 3 | check 3 | " + EventLog(1) + " | check 3", Journal());
    }
}

TEST_F(Decoding, RawRecordsAreDecodedAndDeliveredWithoutHeapUse) {
    static int delivered = 0;
    Get(deviceCallback) = Get(securityCallback) = [](const dsmi_event&) { ++delivered; };
    const Bytes records[] = {Raw(0x01, "disk", 1), Raw(0x11, "login")};
    const int64_t before = heap.allocations;
    for (int i = 0; i < 1000; ++i) { server_->DeSerializeDataAndCallback(records[i % 2].data(), 362); }
    EXPECT_EQ(before, heap.allocations);
    EXPECT_EQ(1000, delivered);
}

}  // namespace recording
