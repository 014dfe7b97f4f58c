// The bytes that are sent, and what the receiver compares them with: a fixed pattern with the record's number written
// into every cache line, so that a line left over from another record, or missing, never goes unnoticed.
#ifndef REPORT_EVENT_BENCHMARKS_STAMPED_RECORD_H
#define REPORT_EVENT_BENCHMARKS_STAMPED_RECORD_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace bench {

// Both ends hold one of these: the sender stamps it and sends it; the receiver stamps its own with the number that must
// come next and compares the whole. The sender's time is the one field that the receiver takes as it comes.
class StampedRecord {
public:
    static constexpr size_t FIELD = sizeof(uint64_t);
    static constexpr size_t SIZE_MIN = 2 * FIELD;  // one number and the time

    // A record that may hold anything anywhere: the number first, the time after it, then the number in every line.
    static StampedRecord Plain(size_t size, uint32_t seed = 1)
    {
        std::vector<size_t> numberOffsets{0};
        for (size_t at = LINE; at + FIELD <= size; at += LINE) {
            numberOffsets.push_back(at);
        }
        if (size >= SIZE_MIN + FIELD) {
            numberOffsets.push_back(size - FIELD);
        }
        return StampedRecord(Pattern(size, seed), std::move(numberOffsets), FIELD);
    }

    StampedRecord(std::vector<unsigned char> bytes, std::vector<size_t> numberOffsets, size_t timeOffset)
        : bytes_(std::move(bytes)), numberOffsets_(std::move(numberOffsets)), timeOffset_(timeOffset)
    {
        Stamp(0);
        StampTime(0);
    }

    static std::vector<unsigned char> Pattern(size_t size, uint32_t seed)
    {
        std::vector<unsigned char> bytes(size);
        uint32_t state = seed * 2654435761u + 1;
        for (unsigned char& byte : bytes) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<unsigned char>(state >> 24);
        }
        return bytes;
    }

    const unsigned char* Data() const
    {
        return bytes_.data();
    }
    size_t Size() const
    {
        return bytes_.size();
    }
    const std::vector<size_t>& NumberOffsets() const
    {
        return numberOffsets_;
    }
    size_t TimeOffset() const
    {
        return timeOffset_;
    }

    void Stamp(uint64_t number)
    {
        for (const size_t at : numberOffsets_) {
            std::memcpy(bytes_.data() + at, &number, FIELD);
        }
    }
    void StampTime(uint64_t time)
    {
        std::memcpy(bytes_.data() + timeOffset_, &time, FIELD);
    }

    uint64_t NumberIn(const unsigned char* received) const
    {
        uint64_t number;
        std::memcpy(&number, received + numberOffsets_.front(), FIELD);
        return number;
    }
    uint64_t TimeIn(const unsigned char* received) const
    {
        uint64_t time;
        std::memcpy(&time, received + timeOffset_, FIELD);
        return time;
    }
    bool Matches(const unsigned char* received, size_t size) const
    {
        return size == bytes_.size() && std::memcmp(received, bytes_.data(), size) == 0;
    }

private:
    static constexpr size_t LINE = 64;

    std::vector<unsigned char> bytes_;
    std::vector<size_t> numberOffsets_;
    size_t timeOffset_;
};

// A received record as plain bytes, with the check that goes with it.
class BytesCheck {
public:
    struct Received {
        const unsigned char* data;
        size_t size;
    };

    explicit BytesCheck(StampedRecord expected) : expected_(std::move(expected))
    {
    }

    void Expect(uint64_t number)
    {
        expected_.Stamp(number);
    }
    bool Matches(const Received& received)
    {
        if (received.size != expected_.Size()) {
            return false;
        }
        expected_.StampTime(TimeIn(received));
        return expected_.Matches(received.data, received.size);
    }
    // Asked only about a record that did not match, or for its time once it did.
    uint64_t NumberIn(const Received& received) const
    {
        return received.size >= expected_.Size() ? expected_.NumberIn(received.data) : UINT64_MAX;
    }
    uint64_t TimeIn(const Received& received) const
    {
        return expected_.TimeIn(received.data);
    }

private:
    StampedRecord expected_;
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_STAMPED_RECORD_H
