// What the two processes of a resource say to each other, as bytes: pure functions and layouts, no I/O.
//
// The reader connects to the service's socket and sends HELLO; the service answers RING with the two memories of the
// ring; the reader maps them and answers READY; the service lets its user know and answers CONNECTED. POOL carries the
// pool as soon as there is one, once for each connection, after RING. After READY the reader sends nothing more. An
// observer does the same; nobody is let know of it, and its pool is its own. Both run on one machine, so integers are
// in its byte order.
//
// Whoever wants to know the readers says LIST instead of HELLO; the service answers with one LISTING and hangs up.
//
// Nothing that a peer sent or wrote is used before a function of this file has found it sound.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_PROTOCOL_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace host_platform::iam {

constexpr uint32_t PROTOCOL_MAGIC = 0x52544D49;
constexpr uint16_t PROTOCOL_VERSION = 2;

constexpr uint32_t RING_ENTRIES = 1024;       // what this service offers; a pool never has more blocks
constexpr uint32_t RING_ENTRIES_MAX = 65536;  // what a reader accepts
constexpr uint64_t POOL_BYTES_MAX = uint64_t{1} << 30;
constexpr uint32_t POOL_BLOCKS_MAX = RING_ENTRIES;
constexpr uint32_t BLOCK_ALIGNMENT = 64;
constexpr uint32_t READER_LIMIT = 1024;    // of one service
constexpr uint32_t OBSERVER_BLOCKS = 128;  // at most; an observer's ring has as many entries

enum class MessageType : uint16_t { HELLO = 1, RING = 2, READY = 3, POOL = 4, CONNECTED = 5, LIST = 6, LISTING = 7 };
enum class Role : uint32_t { READER = 1, OBSERVER = 2 };

// Every message has this one form; fields that its type does not use are zero.
struct Message {
    uint32_t magic = PROTOCOL_MAGIC;
    uint16_t version = PROTOCOL_VERSION;
    uint16_t type = 0;
    uint64_t bytes = 0;   // RING: size of the service's memory; POOL: of the pool; LISTING: of the packet
    uint32_t count = 0;   // HELLO: a Role; RING: entries; POOL: blocks; LISTING: readers
    uint32_t stride = 0;  // POOL: distance between two blocks, and the room in each
};
static_assert(sizeof(Message) == 24, "no padding: a message is compared and sent as bytes");

constexpr Message Compose(MessageType type, uint64_t bytes, uint32_t count, uint32_t stride)
{
    return {PROTOCOL_MAGIC, PROTOCOL_VERSION, static_cast<uint16_t>(type), bytes, count, stride};
}

// What follows a LISTING in the same packet.
struct ListedReader {
    int32_t pid;
    uint32_t flags;
};
constexpr uint32_t LISTED_CURRENT = 1;
constexpr uint32_t LISTED_OBSERVER = 2;
struct ListingPacket {
    Message header;
    ListedReader readers[READER_LIMIT];
};
static_assert(offsetof(ListingPacket, readers) == sizeof(Message), "the packet is sent as it lies");

constexpr uint64_t ListingBytes(uint32_t readers)
{
    return sizeof(Message) + uint64_t{readers} * sizeof(ListedReader);
}

struct PoolShape {
    uint64_t bytes = 0;
    uint32_t blockCount = 0;
    uint32_t blockStride = 0;
};

// Words that different sides write, or that are written at different times, lie two cache lines apart, because
// processors fetch lines in pairs.
constexpr size_t RING_LINE = 128;
constexpr size_t SERVICE_WORDS_BYTES = 2 * RING_LINE;
constexpr size_t READER_WORDS_BYTES = 2 * RING_LINE;  // the whole of the reader's memory

// The size of the service's memory: its words, then the entries.
constexpr uint64_t RingBytes(uint32_t entries)
{
    return SERVICE_WORDS_BYTES + uint64_t{entries} * sizeof(uint64_t);
}

// How many descriptors travel with a message of this type: the service's and the reader's memory with RING, the pool
// with POOL.
constexpr size_t DescriptorCount(MessageType type)
{
    return type == MessageType::RING ? 2 : type == MessageType::POOL ? 1 : 0;
}

// The shape of a pool of this many bytes and blocks, or nothing if it cannot be had.
inline std::optional<PoolShape> ShapePool(uint64_t bytes, uint32_t blockCount)
{
    if (bytes > POOL_BYTES_MAX || blockCount == 0 || blockCount > POOL_BLOCKS_MAX) {
        return std::nullopt;
    }
    const uint64_t stride = bytes / blockCount / BLOCK_ALIGNMENT * BLOCK_ALIGNMENT;
    if (stride == 0) {
        return std::nullopt;
    }
    return PoolShape{bytes, blockCount, static_cast<uint32_t>(stride)};
}

inline bool RingMessageIsSound(const Message& message)
{
    const uint32_t entries = message.count;
    return entries >= 2 && entries <= RING_ENTRIES_MAX && (entries & (entries - 1)) == 0 &&
           message.bytes == RingBytes(entries) && message.stride == 0;
}

inline bool PoolMessageIsSound(const Message& message)
{
    return message.bytes <= POOL_BYTES_MAX && message.count > 0 && message.stride > 0 &&
           message.stride % BLOCK_ALIGNMENT == 0 && uint64_t{message.count} * message.stride <= message.bytes;
}

// The message in these bytes, or nothing if they are not exactly one.
inline std::optional<Message> ParseMessage(const unsigned char* bytes, size_t size)
{
    Message message;
    if (size != sizeof(message)) {
        return std::nullopt;
    }
    std::memcpy(&message, bytes, sizeof(message));
    if (message.magic != PROTOCOL_MAGIC || message.version != PROTOCOL_VERSION) {
        return std::nullopt;
    }
    bool sound = false;
    switch (static_cast<MessageType>(message.type)) {
        case MessageType::HELLO:
            sound = message.bytes == 0 && message.stride == 0 &&
                    (message.count == static_cast<uint32_t>(Role::READER) ||
                     message.count == static_cast<uint32_t>(Role::OBSERVER));
            break;
        case MessageType::READY:
        case MessageType::CONNECTED:
        case MessageType::LIST:
            sound = message.bytes == 0 && message.count == 0 && message.stride == 0;
            break;
        case MessageType::RING:
            sound = RingMessageIsSound(message);
            break;
        case MessageType::POOL:
            sound = PoolMessageIsSound(message);
            break;
        case MessageType::LISTING:
            sound =
                message.count <= READER_LIMIT && message.bytes == ListingBytes(message.count) && message.stride == 0;
            break;
    }
    return sound ? std::optional<Message>(message) : std::nullopt;
}

// A ring entry: the block in the low half, the length of the record in the high half.
constexpr uint64_t PackEntry(uint32_t block, uint32_t length)
{
    return uint64_t{length} << 32 | block;
}

struct RecordPlace {
    uint64_t offset;  // in the pool
    uint32_t length;
};

// Where the record of this entry lies, or nothing if that is not inside one block of the pool.
inline std::optional<RecordPlace> LocateRecord(uint64_t entry, const PoolShape& pool)
{
    const auto block = static_cast<uint32_t>(entry);
    const auto length = static_cast<uint32_t>(entry >> 32);
    if (block >= pool.blockCount || length > pool.blockStride) {
        return std::nullopt;
    }
    return RecordPlace{uint64_t{block} * pool.blockStride, length};
}

// Whether a peer's count of appended (or consumed) records can follow `known`, the count this side is sure of, when at
// most `room` lie between. The counts wrap; `room` is far smaller than that.
constexpr bool CountIsSound(uint32_t claimed, uint32_t known, uint32_t room)
{
    return claimed - known <= room;
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_PROTOCOL_H
