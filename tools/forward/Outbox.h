// Events on their way to the broker, in a file: what is in it outlives the process, and leaves it when the broker has
// acknowledged it.
#ifndef REPORT_EVENT_TOOLS_FORWARD_OUTBOX_H
#define REPORT_EVENT_TOOLS_FORWARD_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/Output.h"
#include "tools/forward/Sqlite.h"

namespace tools::forward {

struct StoredEvent {
    int64_t sequence;
    std::string source;  // the end of its topic: RESOURCE/KIND
    std::string object;  // JSON
};

// Any thread. Errors are SqliteError, or std::runtime_error for a file that is not an outbox of this version; after an
// error of Append or Remove, what the call was to do has not been done.
//
// Memory does not grow with what the file holds. When it holds `limit` events, or the disk has no more room, the oldest
// are dropped. What was dropped is told by an event of the outbox's own, at most one at a time: {"kind":"dropped"} with
// how many, the first and the last. It is made when somebody reads, and is never dropped itself.
class Outbox {
public:
    // With `powerSafe`, what Append has stored is there after a power cut, too.
    Outbox(const std::string& path, uint64_t limit, bool powerSafe);

    // Made with the file; no two outboxes have the same.
    const std::string& Identifier() const
    {
        return identifier_;
    }

    // Returns once the event is stored.
    void Append(const std::string& source, const std::string& object);

    // The oldest events behind `sequence`, at most `most` of them. When these are fewer, Arrival becomes readable
    // with the next one.
    std::vector<StoredEvent> ReadAfter(int64_t sequence, size_t most);
    int Arrival() const
    {
        return arrival_.Get();
    }
    // Removes events up to this one.
    void Remove(int64_t sequence);

private:
    struct Drops {
        int64_t count = 0;
        int64_t first = 0;
        int64_t last = 0;
    };
    // What is known without reading events; all but last stands in the file as well.
    struct State {
        int64_t removed = 0;  // the events have the numbers behind this one, without a gap,
        int64_t last = 0;     // up to this one
        int64_t notice = 0;   // the event that tells of drops, which may be left over; 0 when there is none
        Drops drops;          // that it does not tell of
    };
    struct Statements {
        explicit Statements(Database& database);
        Statement insert;
        Statement read;
        Statement remove;
        Statement state;
    };

    void Prepare(bool powerSafe);
    void Create();
    void Load();
    bool Grow();
    void Insert(int64_t sequence, const std::string& source, const std::string& object);
    void InsertMakingRoom(const std::string& source, const std::string& object);
    void MakeRoom(bool mayDrop);
    void RemoveStored(int64_t sequence, int64_t spared);
    void DropOldest(int64_t count);
    void TellDrops();
    void Change(const std::function<void(State&)>& change);

    const int64_t limit_;
    const FileDescriptor arrival_;
    std::mutex mutex_;  // guards what follows; held while the disk is written to
    Database database_;
    std::unique_ptr<Statements> statements_;
    std::string identifier_;
    State state_;
    bool isAwaited_ = false;  // a reader has taken all
};

}  // namespace tools::forward

#endif  // REPORT_EVENT_TOOLS_FORWARD_OUTBOX_H
