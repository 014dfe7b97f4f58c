// What one process of the host platform takes from another: messages, ring entries, counts. The input is a script of
// what a service, its reader and a hostile peer do; nothing outside the mappings is touched, no block is lost or held
// twice, and as long as nobody scribbles, every record arrives once, in order, unaltered.
#include <fuzzer/FuzzedDataProvider.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/BlockQueue.h"
#include "platform/host/iam/wire/SharedMemory.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace host_platform;
using namespace host_platform::iam;

constexpr uint32_t ENTRIES = 8;
constexpr PoolShape SHAPE{ENTRIES * 64, ENTRIES, 64};

void Scribble(const Mapping& memory, FuzzedDataProvider& input)
{
    auto* const words = reinterpret_cast<std::atomic<uint64_t>*>(memory.get());
    const size_t count = memory.get_deleter().size / sizeof(uint64_t);
    words[input.ConsumeIntegralInRange<size_t>(0, count - 1)] = input.ConsumeIntegral<uint64_t>();
}

// Where the first record of this ring lies, if it is ready and makes sense.
std::optional<RecordPlace> FirstRecord(RingReader& reader)
{
    if (reader.Look() != RingReader::State::READY) {
        return std::nullopt;
    }
    const auto place = LocateRecord(reader.Front(), SHAPE);
    Require(!place || place->offset + place->length <= SHAPE.bytes);
    return place;
}

// A service's queue and its reader, which may scribble over its own memory.
class Session {
public:
    Session()
    {
        BlockQueue::Memories memories;
        Mapping service;
        Mapping own;
        Require(!pool_.Create(SHAPE).Failed());
        Require(!MapSharedMemory(pool_.Memory(), SHAPE.bytes, Writer::SERVICE, records_).Failed());
        Require(!queue_.Create(ENTRIES, memories).Failed());
        Require(!MapSharedMemory(memories.service, RingBytes(ENTRIES), Writer::SERVICE, service).Failed());
        Require(!MapSharedMemory(memories.reader, READER_WORDS_BYTES, Writer::READER, own).Failed());
        Require(!MapSharedMemory(memories.reader, READER_WORDS_BYTES, Writer::READER, readersMemory_).Failed());
        reader_ = RingReader(std::move(service), std::move(own), ENTRIES);
    }

    // Every block is in one place, and all of them can be had once nothing is queued.
    ~Session()
    {
        Require(pool_.Queued() == queue_.Queued());
        CutOff();
        uint32_t blocks = 0;
        for (; !pool_.Exhausted(); ++blocks) {
            pool_.Allocate(0, blocks);
        }
        Require(blocks == ENTRIES);
    }

    void Publish(uint8_t length, char fill)
    {
        if (pool_.Exhausted() || cutOff_) {
            return;
        }
        const std::string record(length % 65, fill);
        const auto size = static_cast<uint32_t>(record.size());
        const uint32_t block = pool_.Allocate(size, ++uses_);
        Require(pool_.IsAllocated(block, uses_) && pool_.Write(block, record.data(), size, 0));
        const bool mustWake = queue_.Append(block, pool_).wake != nullptr;
        Require(scribbled_ || mustWake == asleep_);  // once, and only one that sleeps
        asleep_ = false;
        expected_.push_back(record);
    }

    void Read()
    {
        const auto place = FirstRecord(reader_);
        Require(place || expected_.empty());
        if (!place) {
            return;
        }
        const std::string copy(reinterpret_cast<const char*>(records_.get()) + place->offset, place->length);
        Require(reader_.RevokedMeanwhile() || scribbled_ || expected_.front() == copy);
        expected_.pop_front();
        reader_.Pop();
    }

    void FallAsleep()
    {
        const bool empty = reader_.Look() == RingReader::State::EMPTY;
        asleep_ = asleep_ || (empty && reader_.FallAsleep() == RingReader::State::EMPTY);
    }

    void TakeBack()
    {
        const bool sound = queue_.TakeBackConsumed(pool_);
        Require(sound || scribbled_ || cutOff_);
        if (!sound) {
            CutOff();
        }
    }

    void CutOff()
    {
        queue_.MarkRevoked();
        queue_.TakeBackAll(pool_);
        cutOff_ = true;
    }

    void ScribbleOverReadersMemory(FuzzedDataProvider& input)
    {
        Scribble(readersMemory_, input);
        scribbled_ = true;
    }

private:
    BlockPool pool_;
    BlockQueue queue_;
    Mapping records_;
    Mapping readersMemory_;
    RingReader reader_;
    std::deque<std::string> expected_;
    uint64_t uses_ = 0;
    bool asleep_ = false;
    bool scribbled_ = false;
    bool cutOff_ = false;
};

// A reader whose service scribbles over the ring.
class HostileService {
public:
    HostileService()
    {
        UniqueFd fd;
        UniqueFd readersFd;
        Mapping service;
        Mapping readersView;
        Mapping own;
        Require(!CreateSharedMemory("fuzz", RingBytes(ENTRIES), Writer::SERVICE, fd, memory_).Failed());
        Require(!MapSharedMemory(fd, RingBytes(ENTRIES), Writer::SERVICE, service).Failed());
        Require(!CreateSharedMemory("fuzz", READER_WORDS_BYTES, Writer::READER, readersFd, readersView).Failed());
        Require(!MapSharedMemory(readersFd, READER_WORDS_BYTES, Writer::READER, own).Failed());
        reader_ = RingReader(std::move(service), std::move(own), ENTRIES);
    }

    void ScribbleAndRead(FuzzedDataProvider& input)
    {
        Scribble(memory_, input);
        reader_.FallAsleep();
        reader_.WakeUp();
        if (reader_.HasSecond()) {
            LocateRecord(reader_.Second(), SHAPE);
        }
        if (FirstRecord(reader_)) {
            reader_.Pop();
        }
    }

private:
    Mapping memory_;
    RingReader reader_;
};

void CheckMessage(const std::vector<uint8_t>& bytes)
{
    const auto message = ParseMessage(bytes.data(), bytes.size());
    if (!message) {
        return;
    }
    const auto [magic, version, type, size, count, stride] = *message;
    Require(bytes.size() == sizeof(Message) && magic == PROTOCOL_MAGIC && version == PROTOCOL_VERSION);
    if (type == static_cast<uint16_t>(MessageType::POOL)) {
        const PoolShape shape{size, count, stride};
        const auto last = LocateRecord(PackEntry(count - 1, stride), shape);
        Require(last && last->offset + last->length <= size);
        Require(!LocateRecord(PackEntry(count, 0), shape) && !LocateRecord(PackEntry(0, stride + 1), shape));
    }
    const bool isRing = type == static_cast<uint16_t>(MessageType::RING);
    Require(!isRing || (size == RingBytes(count) && count <= RING_ENTRIES_MAX));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    enum Act { PUBLISH, READ, TAKE_BACK, FALL_ASLEEP, SCRIBBLE, MESSAGE, CUT_OFF, HOSTILE_SERVICE, kMaxValue = 7 };
    FuzzedDataProvider input(data, size);
    Session session;
    std::optional<HostileService> hostileService;
    while (input.remaining_bytes() != 0) {
        switch (input.ConsumeEnum<Act>()) {
            case PUBLISH:
                session.Publish(input.ConsumeIntegral<uint8_t>(), input.ConsumeIntegral<char>());
                break;
            case READ:
                session.Read();
                break;
            case TAKE_BACK:
                session.TakeBack();
                break;
            case FALL_ASLEEP:
                session.FallAsleep();
                break;
            case SCRIBBLE:
                session.ScribbleOverReadersMemory(input);
                break;
            case MESSAGE:
                CheckMessage(input.ConsumeBytes<uint8_t>(sizeof(Message)));
                break;
            case CUT_OFF:
                session.CutOff();
                break;
            case HOSTILE_SERVICE:
                if (!hostileService) {
                    hostileService.emplace();
                }
                hostileService->ScribbleAndRead(input);
                break;
        }
    }
    return 0;
}
