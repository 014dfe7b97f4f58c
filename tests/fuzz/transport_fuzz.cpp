// What one process of the host platform takes from another: messages, ring entries, counts. The input is a script of
// what a service, its reader and a hostile peer do; nothing outside the mappings is touched, no block is lost or held
// twice, and as long as nobody scribbles, every record arrives once, in order, unaltered.
#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <string>

#include "platform/host/iam/BlockPool.h"
#include "platform/host/iam/Ring.h"
#include "platform/host/iam/SharedMemory.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace host_platform::iam;

constexpr uint32_t ENTRIES = 8;
constexpr PoolShape SHAPE{ENTRIES * 64, ENTRIES, 64};

struct Input {
    template <typename T> T Take() {
        T value{};
        const size_t count = std::min(size, sizeof(T));
        memcpy(&value, data, count);
        data += count, size -= count;
        return value;
    }
    const uint8_t* data;
    size_t size;
};

struct Session {
    Session() {
        UniqueFd fd;
        Mapping ends[2];
        Require(!pool.Create(SHAPE).Failed());
        Require(!MapSharedMemory(pool.Fd(), SHAPE.bytes, Sharing::READ_ONLY, records).Failed());
        Require(!CreateSharedMemory("fuzz-ring", RingBytes(ENTRIES), Sharing::READ_WRITE, fd, hostile).Failed());
        for (Mapping& end : ends) {
            Require(!MapSharedMemory(fd.Get(), RingBytes(ENTRIES), Sharing::READ_WRITE, end).Failed());
        }
        writer = RingWriter(std::move(ends[0]), ENTRIES);
        reader = RingReader(std::move(ends[1]), ENTRIES);
    }

    void Publish(uint8_t length, uint8_t fill) {
        if (pool.Exhausted() || cutOff) { return; }
        const std::string record(length % 65, static_cast<char>(fill));
        const auto size = static_cast<uint32_t>(record.size());
        const uint32_t block = pool.Allocate(size, ++sequence);
        Require(pool.IsAllocated(block, sequence) && pool.Write(block, record.data(), size, 0));
        writer.Append(block, pool.Queue(block, queue));
        expected.push_back(record);
    }

    void Read() {
        const auto state = reader.Look();
        if (state == RingReader::State::EMPTY || broken) { return; }
        const auto place = LocateRecord(reader.Front(), SHAPE);
        broken = state == RingReader::State::BROKEN || !place;
        Require(!broken || scribbled);
        if (broken) { return; }
        Require(place->offset + place->length <= SHAPE.bytes && place->length <= 64);
        const std::string copy(reinterpret_cast<const char*>(records.Bytes()) + place->offset, place->length);
        if (!scribbled && !reader.RevokedMeanwhile()) {
            Require(!expected.empty() && expected.front() == copy);
            expected.pop_front();
        }
        reader.Pop();
    }

    void TakeBack() {
        const uint64_t claimed = writer.ClaimedConsumed();
        const bool sound = CountIsSound(claimed, takenBack, queue.count);
        Require(sound || scribbled || cutOff);
        if (!sound) { return CutOff(); }
        pool.TakeBack(static_cast<uint32_t>(claimed - takenBack), queue);
        takenBack = claimed;
    }

    void CutOff() {
        writer.Revoke();
        takenBack += queue.count;
        pool.TakeBack(queue.count, queue);
        cutOff = true;
    }

    void Scribble(uint16_t place, uint64_t value) {
        reinterpret_cast<std::atomic<uint64_t>*>(hostile.Bytes())[place % (hostile.Size() / 8)] = value;
        scribbled = true;
    }

    // Every block is in one place, and all of them can be had once nothing is queued.
    ~Session() {
        Require(pool.Queued() == queue.count);
        CutOff();
        for (sequence = 0; !pool.Exhausted(); ++sequence) { pool.Allocate(0, sequence); }
        Require(sequence == ENTRIES);
    }

    BlockPool pool;
    BlockFifo queue;
    Mapping records, hostile;
    RingWriter writer;
    RingReader reader;
    std::deque<std::string> expected;
    uint64_t sequence = 0, takenBack = 0;
    bool scribbled = false, broken = false, cutOff = false;
};

void CheckMessage(Input& input) {
    const size_t size = input.Take<uint8_t>() % (sizeof(Message) + 2);
    const auto message = ParseMessage(input.Take<std::array<unsigned char, sizeof(Message) + 1>>().data(), size);
    if (!message) { return; }
    Require(size == sizeof(Message) && message->magic == PROTOCOL_MAGIC && message->version == PROTOCOL_VERSION &&
            message->type >= 1 && message->type <= 5);
    const auto type = static_cast<MessageType>(message->type);
    if (type == MessageType::POOL) {
        const PoolShape shape{message->bytes, message->count, message->stride};
        const auto last = LocateRecord(PackEntry(message->count - 1, message->stride), shape);
        Require(last && last->offset + last->length <= message->bytes);
        Require(!LocateRecord(PackEntry(shape.blockCount, 0), shape) &&
                !LocateRecord(PackEntry(0, shape.blockStride + 1), shape));
    }
    Require(type != MessageType::RING ||
            (message->bytes == RingBytes(message->count) && message->count <= RING_ENTRIES_MAX));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input{data, size};
    Session session;
    while (input.size != 0) {
        switch (input.Take<uint8_t>() % 7) {
            case 0: session.Publish(input.Take<uint8_t>(), input.Take<uint8_t>()); break;
            case 1: session.Read(); break;
            case 2: session.TakeBack(); break;
            case 3: session.reader.FallAsleep(), session.reader.WakeUp(); break;
            case 4: session.Scribble(input.Take<uint16_t>(), input.Take<uint64_t>()); break;
            case 5: CheckMessage(input); break;
            case 6: session.CutOff(); break;
        }
    }
    return 0;
}
