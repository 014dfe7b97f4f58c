// What one process of the host platform takes from another: messages, ring entries, counts. The input is a script of
// what a service, its reader and a hostile peer do; nothing outside the mappings is touched, no block is lost or held
// twice, and as long as nobody scribbles, every record arrives once, in order, unaltered.
#include <fuzzer/FuzzedDataProvider.h>

#include <deque>
#include <string>

#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/wire/Ring.h"
#include "platform/host/iam/wire/SharedMemory.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace host_platform;
using namespace host_platform::iam;

constexpr uint32_t ENTRIES = 8;
constexpr PoolShape SHAPE{ENTRIES * 64, ENTRIES, 64};

struct Session {
    Session()
    {
        UniqueFd fd;
        Mapping written, read;
        Require(!pool.Create(SHAPE).Failed());
        Require(!MapSharedMemory(pool.Fd(), SHAPE.bytes, Sharing::READ_ONLY, records).Failed());
        Require(!CreateSharedMemory("fuzz-ring", RingBytes(ENTRIES), Sharing::READ_WRITE, fd, written).Failed());
        Require(!MapSharedMemory(fd.Get(), RingBytes(ENTRIES), Sharing::READ_WRITE, read).Failed());
        ring = reinterpret_cast<std::atomic<uint64_t>*>(written.Bytes());
        writer = RingWriter(std::move(written), ENTRIES);
        reader = RingReader(std::move(read), ENTRIES);
    }

    void Publish(uint8_t length, uint8_t fill)
    {
        if (pool.Exhausted() || cutOff) {
            return;
        }
        const auto& record = expected.emplace_back(length % 65, static_cast<char>(fill));
        const auto size = static_cast<uint32_t>(record.size());
        const uint32_t block = pool.Allocate(size, ++sequence);
        Require(pool.IsAllocated(block, sequence) && pool.Write(block, record.data(), size, 0));
        writer.Append(block, pool.Queue(block, queue));
    }

    void Read()
    {
        const auto state = reader.Look();
        if (state == RingReader::State::EMPTY || broken) {
            return;
        }
        const auto place = LocateRecord(reader.Front(), SHAPE);
        broken = state == RingReader::State::BROKEN || !place;
        Require(!broken || scribbled);
        if (broken) {
            return;
        }
        Require(place->offset + place->length <= SHAPE.bytes && place->length <= 64);
        const std::string copy(reinterpret_cast<const char*>(records.Bytes()) + place->offset, place->length);
        if (!scribbled && !reader.RevokedMeanwhile()) {
            Require(!expected.empty() && expected.front() == copy);
            expected.pop_front();
        }
        reader.Pop();
    }

    void TakeBack()
    {
        const uint64_t claimed = writer.ClaimedConsumed();
        const bool sound = CountIsSound(claimed, takenBack, queue.count);
        Require(sound || scribbled || cutOff);
        if (!sound) {
            return CutOff();
        }
        pool.TakeBack(static_cast<uint32_t>(claimed - takenBack), queue);
        takenBack = claimed;
    }

    void CutOff()
    {
        writer.Revoke();
        takenBack += queue.count;
        pool.TakeBack(queue.count, queue);
        cutOff = true;
    }

    // Every block is in one place, and all of them can be had once nothing is queued.
    ~Session()
    {
        Require(pool.Queued() == queue.count);
        CutOff();
        for (sequence = 0; !pool.Exhausted(); ++sequence) {
            pool.Allocate(0, sequence);
        }
        Require(sequence == ENTRIES);
    }

    BlockPool pool;
    BlockFifo queue;
    Mapping records;
    std::atomic<uint64_t>* ring;
    RingWriter writer;
    RingReader reader;
    std::deque<std::string> expected;
    uint64_t sequence = 0, takenBack = 0;
    bool scribbled = false, broken = false, cutOff = false;
};

void CheckMessage(const std::vector<uint8_t>& bytes)
{
    const auto message = ParseMessage(bytes.data(), bytes.size());
    if (!message) {
        return;
    }
    const auto [magic, version, type, size, count, stride] = *message;
    Require(bytes.size() == sizeof(Message) && magic == PROTOCOL_MAGIC && version == PROTOCOL_VERSION);
    Require(type >= 1 && type <= 5);
    if (type == uint16_t(MessageType::POOL)) {
        const PoolShape shape{size, count, stride};
        const auto last = LocateRecord(PackEntry(count - 1, stride), shape);
        Require(last && last->offset + last->length <= size);
        Require(!LocateRecord(PackEntry(count, 0), shape) && !LocateRecord(PackEntry(0, stride + 1), shape));
    }
    Require(type != uint16_t(MessageType::RING) || (size == RingBytes(count) && count <= RING_ENTRIES_MAX));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Session session;
    while (input.remaining_bytes() != 0) {
        const auto number = [&](uint64_t limit) { return input.ConsumeIntegralInRange<uint64_t>(0, limit); };
        switch (number(6)) {
            case 0:
                session.Publish(number(64), number(255));
                break;
            case 1:
                session.Read();
                break;
            case 2:
                session.TakeBack();
                break;
            case 3:
                session.reader.FallAsleep(), session.reader.WakeUp();
                break;
            case 4:
                session.ring[number(RingBytes(ENTRIES) / 8 - 1)] = number(UINT64_MAX), session.scribbled = true;
                break;
            case 5:
                CheckMessage(input.ConsumeBytes<uint8_t>(number(sizeof(Message) + 1)));
                break;
            case 6:
                session.CutOff();
                break;
        }
    }
    return 0;
}
