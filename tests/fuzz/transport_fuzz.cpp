// What one process of the host platform takes from another in memory: ring entries, counts. The input is a script of
// what a service and its reader do; nothing outside the mappings is touched, no block is lost or held twice, and as
// long as nobody scribbles, every record arrives once, in order, unaltered, or is counted as lost to an observer.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/BlockQueue.h"
#include "platform/host/iam/service/Reader.h"
#include "platform/host/iam/wire/Messages.h"
#include "platform/host/iam/wire/SharedMemory.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace host_platform;
using namespace host_platform::iam;

constexpr uint32_t ENTRIES = 8;
constexpr PoolShape SHAPE{ENTRIES * 64, ENTRIES, 64};

// Where one who reads or observes maps what it was sent, and what it must find there.
class ReadingSide {
public:
    ReadingSide(const UniqueFd& service, const UniqueFd& own, uint32_t entries, const UniqueFd& pool)
    {
        Mapping ring;
        Mapping words;
        Require(!MapSharedMemory(pool, SHAPE.bytes, Writer::SERVICE, records_).Failed());
        Require(!MapSharedMemory(service, RingBytes(entries), Writer::SERVICE, ring).Failed());
        Require(!MapSharedMemory(own, READER_WORDS_BYTES, Writer::READER, words).Failed());
        Require(!MapSharedMemory(own, READER_WORDS_BYTES, Writer::READER, own_).Failed());
        ring_ = RingReader(std::move(ring), std::move(words), entries);
    }

    // It is woken once, and only when it sleeps.
    void Expect(const std::string& record, bool woken)
    {
        Require(scribbled_ || woken == asleep_);
        asleep_ = false;
        expected_.push_back(record);
    }

    void Read()
    {
        if (ring_.Look() != RingReader::State::READY) {
            Require(expected_.empty() || scribbled_);  // its own count, which the service has believed
            return;
        }
        const auto place = LocateRecord(ring_.Front(), SHAPE);
        Require(place.has_value());
        const std::string copy(reinterpret_cast<const char*>(records_.get()) + place->offset, place->length);
        Require(ring_.RevokedMeanwhile() || scribbled_ || expected_.front() == copy);
        expected_.pop_front();
        ring_.Pop();
    }

    void FallAsleep()
    {
        const bool empty = ring_.Look() == RingReader::State::EMPTY;
        asleep_ = asleep_ || (empty && ring_.FallAsleep() == RingReader::State::EMPTY);
    }

    void ScribbleOverItsMemory(FuzzedDataProvider& input)
    {
        constexpr size_t LAST = READER_WORDS_BYTES / sizeof(uint64_t) - 1;
        auto* const words = reinterpret_cast<std::atomic<uint64_t>*>(own_.get());
        words[input.ConsumeIntegralInRange<size_t>(0, LAST)] = input.ConsumeIntegral<uint64_t>();
        scribbled_ = true;
    }

    bool HasScribbled() const
    {
        return scribbled_;
    }
    size_t Waiting() const
    {
        return expected_.size();
    }
    uint64_t Lost() const
    {
        return ring_.Lost();
    }

private:
    Mapping records_;
    Mapping own_;
    RingReader ring_;
    std::deque<std::string> expected_;
    bool asleep_ = false;
    bool scribbled_ = false;
};

// An observer as the service has it, and its own side, which may scribble over its memory.
class Observer {
public:
    explicit Observer(const BlockPool& pool)
    {
        Require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_) == 0);
        const UniqueFd other(ends_[1]);
        served_.emplace(UniqueFd(ends_[0]), 0);
        served_->role = Role::OBSERVER;
        ReceivedMessage ring;
        ReceivedMessage copies;
        Require(!served_->Offer().Failed() && !ReceiveMessage(other, ring).Failed());
        Require(!served_->Introduce(pool).Failed() && !ReceiveMessage(other, copies).Failed());
        Require(copies.message.bytes == SHAPE.bytes && copies.message.stride == SHAPE.blockStride);
        side_.emplace(ring.descriptors[0], ring.descriptors[1], ring.message.count, copies.descriptors[0]);
    }

    // It has as many blocks as the service; a record that finds none of them free is lost and counted.
    void Copy(const std::string& record)
    {
        const BellWord* wake = nullptr;
        const auto* const bytes = reinterpret_cast<const unsigned char*>(record.data());
        const uint64_t lostBefore = side_->Lost();
        const bool sound = served_->QueueCopy(bytes, static_cast<uint32_t>(record.size()), wake);
        const bool lost = side_->Lost() != lostBefore;
        Require(side_->HasScribbled() || (sound && lost == (side_->Waiting() == ENTRIES)));
        if (!sound) {
            served_->CutOff(nullptr, "its ring makes no sense");
        }
        if (served_->cutOffCause == nullptr && !lost) {
            side_->Expect(record, wake != nullptr);
        }
    }

    ReadingSide& Side()
    {
        return *side_;
    }

private:
    int ends_[2];
    std::optional<Reader> served_;
    std::optional<ReadingSide> side_;
};

// A service's queue and its reader, which may scribble over its own memory, and perhaps an observer.
class Session {
public:
    Session()
    {
        BlockQueue::Memories memories;
        Require(!pool_.Create(SHAPE).Failed());
        Require(!queue_.Create(ENTRIES, memories).Failed());
        reader_.emplace(memories.service, memories.reader, ENTRIES, pool_.Memory());
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
        reader_->Expect(record, queue_.Append(block, pool_).wake != nullptr);
        if (observer_) {
            observer_->Copy(record);
        }
    }

    void TakeBack()
    {
        const bool sound = queue_.TakeBackConsumed(pool_);
        Require(sound || reader_->HasScribbled() || cutOff_);
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

    ReadingSide& Reader()
    {
        return *reader_;
    }
    // It comes when it first does something.
    ReadingSide& Observer()
    {
        if (!observer_) {
            observer_.emplace(pool_);
        }
        return observer_->Side();
    }

private:
    BlockPool pool_;
    BlockQueue queue_;
    std::optional<ReadingSide> reader_;
    std::optional<::Observer> observer_;
    uint64_t uses_ = 0;
    bool cutOff_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    enum Act { PUBLISH, READ, TAKE_BACK, FALL_ASLEEP, SCRIBBLE, CUT_OFF, HOSTILE_ENTRY, kMaxValue = 6 };
    FuzzedDataProvider input(data, size);
    Session session;
    while (input.remaining_bytes() != 0) {
        const auto act = input.ConsumeEnum<Act>();
        const auto side = [&]() -> ReadingSide& { return input.ConsumeBool() ? session.Observer() : session.Reader(); };
        switch (act) {
            case PUBLISH:
                session.Publish(input.ConsumeIntegral<uint8_t>(), input.ConsumeIntegral<char>());
                break;
            case READ:
                side().Read();
                break;
            case TAKE_BACK:
                session.TakeBack();
                break;
            case FALL_ASLEEP:
                side().FallAsleep();
                break;
            case SCRIBBLE:
                side().ScribbleOverItsMemory(input);
                break;
            case CUT_OFF:
                session.CutOff();
                break;
            case HOSTILE_ENTRY: {  // of a service's ring
                const auto place = LocateRecord(input.ConsumeIntegral<uint64_t>(), SHAPE);
                Require(!place || place->offset + place->length <= SHAPE.bytes);
                break;
            }
        }
    }
    return 0;
}
