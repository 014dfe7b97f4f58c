#include "tools/forward/Outbox.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include "tools/EventJson.h"
#include "tools/ToolSupport.h"

namespace tools::forward {

namespace {

constexpr int64_t APPLICATION = 0x52454F42;  // "REOB"
constexpr int64_t VERSION = 1;

constexpr int64_t PAGE_SIZE = 4096;
// The file grows by so much at a time, so that events are only taken while they have their place on the disk.
constexpr int CHUNK = 64 * PAGE_SIZE;
// More pages than one event takes, and than the start does.
constexpr int64_t PAGES_PER_EVENT = 16;
constexpr int64_t PAGES_AT_START = 48;

// How many events are dropped for want of room on the disk, which is had by the page only.
constexpr int64_t DROPPED_FOR_ROOM = 200;

// So many bytes pass through the log at the start: what it has once had, it keeps, and dropping needs a few pages.
constexpr const char* WARM_UP = "UPDATE state SET reserve = zeroblob(131072); UPDATE state SET reserve = NULL";

constexpr const char* DROPPED_SOURCE = "outbox/dropped";

}  // namespace

Outbox::Statements::Statements(Database& database)
    : insert(database, "INSERT INTO outbox VALUES (?, ?, ?)"),
      read(database, "SELECT seq, source, object FROM outbox WHERE seq > ? ORDER BY seq LIMIT ?"),
      remove(database, "DELETE FROM outbox WHERE seq <= ? AND seq <> ?"),
      state(database, "UPDATE state SET removed = ?, notice = ?, dropped = ?, firstDropped = ?, lastDropped = ?")
{
}

Outbox::Outbox(const std::string& path, uint64_t limit, bool powerSafe)
    : limit_(static_cast<int64_t>(limit)), arrival_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"), database_(path)
{
    Prepare(powerSafe);
    Load();
}

// In this order: nothing is written into a file that belongs to others.
void Outbox::Prepare(bool powerSafe)
{
    if (sqlite3_db_readonly(database_.Handle(), "main") != 0) {
        throw std::runtime_error("outbox " + database_.Path() + ": it cannot be written");
    }
    // No other process gets at the file from the first access on; the log then needs no shared memory.
    database_.Run("PRAGMA locking_mode = EXCLUSIVE");
    const bool isNew = database_.Number("SELECT count(*) FROM sqlite_master") == 0;
    const int64_t application = database_.Number("PRAGMA application_id");
    const int64_t version = database_.Number("PRAGMA user_version");
    if (application != APPLICATION && !(isNew && application == 0)) {
        throw std::runtime_error("outbox " + database_.Path() + ": this is a database of another program");
    }
    if (!isNew && version != VERSION) {
        throw std::runtime_error("outbox " + database_.Path() + ": it has format " + std::to_string(version) +
                                 ", and this program knows format " + std::to_string(VERSION));
    }
    database_.Run("PRAGMA page_size = " + std::to_string(PAGE_SIZE));
    database_.Run("PRAGMA journal_mode = WAL");
    database_.Run("PRAGMA secure_delete = OFF");
    database_.Run(powerSafe ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    int chunk = CHUNK;
    sqlite3_file_control(database_.Handle(), "main", SQLITE_FCNTL_CHUNK_SIZE, &chunk);
    if (isNew) {
        Create();
    }
    if (!Grow()) {
        database_.Fail();
    }
    database_.Run(WARM_UP);
}

void Outbox::Create()
{
    Transaction transaction(database_);
    database_.Run("CREATE TABLE outbox (seq INTEGER PRIMARY KEY, source TEXT NOT NULL, object TEXT NOT NULL)");
    database_.Run(
        "CREATE TABLE state (identifier TEXT, removed INTEGER, notice INTEGER, dropped INTEGER, firstDropped INTEGER, "
        "lastDropped INTEGER, reserve BLOB)");
    database_.Run("INSERT INTO state VALUES (lower(hex(randomblob(8))), 0, 0, 0, 0, 0, NULL)");
    database_.Run("PRAGMA application_id = " + std::to_string(APPLICATION));
    database_.Run("PRAGMA user_version = " + std::to_string(VERSION));
    transaction.Commit();
}

void Outbox::Load()
{
    statements_ = std::make_unique<Statements>(database_);
    Statement state(database_, "SELECT identifier, removed, notice, dropped, firstDropped, lastDropped FROM state");
    if (!state.Step()) {
        throw std::runtime_error("outbox " + database_.Path() + ": its state is missing");
    }
    identifier_ = state.Text(0);
    state_ = {state.Number(1), 0, state.Number(2), {state.Number(3), state.Number(4), state.Number(5)}};
    state_.last = std::max(state_.removed, database_.Number("SELECT max(seq) FROM outbox"));
}

// Changes the events together with what is known about them, so that no number is ever given twice; nothing when it
// fails. What the log has no room for has it once the log is written back and starts anew.
void Outbox::Change(const std::function<void(State&)>& change)
{
    for (int attempt = 0;; ++attempt) {
        try {
            State next = state_;
            Transaction transaction(database_);
            change(next);
            Statement& stored = statements_->state;
            stored.Bind(1, next.removed);
            stored.Bind(2, next.notice);
            stored.Bind(3, next.drops.count);
            stored.Bind(4, next.drops.first);
            stored.Bind(5, next.drops.last);
            stored.Run();
            transaction.Commit();
            state_ = next;
            return;
        } catch (const SqliteError& error) {
            if (!error.IsLackOfRoom() || attempt > 1) {
                throw;
            }
        }
        MakeRoom(false);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// In

void Outbox::Append(const std::string& source, const std::string& object)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_.last - state_.removed >= limit_) {
        DropOldest(std::max<int64_t>(1, limit_ / 1000));
    }
    InsertMakingRoom(source, object);
    if (std::exchange(isAwaited_, false)) {
        (void)eventfd_write(arrival_.Get(), 1);
    }
}

void Outbox::Insert(int64_t sequence, const std::string& source, const std::string& object)
{
    Statement& insert = statements_->insert;
    insert.Bind(1, sequence);
    insert.Bind(2, source);
    insert.Bind(3, object);
    insert.Run();
}

void Outbox::InsertMakingRoom(const std::string& source, const std::string& object)
{
    for (int attempt = 0;; ++attempt) {
        try {
            Insert(state_.last + 1, source, object);
            ++state_.last;
            return;
        } catch (const SqliteError& error) {
            if (!error.IsLackOfRoom() || (attempt > 2 && state_.removed == state_.last)) {
                throw;
            }
        }
        MakeRoom(attempt > 1);
    }
}

// Either the file has used up its chunks, or the log cannot grow, or one after the other: each gets its turn before
// anything is dropped.
void Outbox::MakeRoom(bool mayDrop)
{
    const int64_t freePages = database_.Number("PRAGMA max_page_count") - database_.Number("PRAGMA page_count");
    if (freePages < PAGES_PER_EVENT && Grow()) {
        return;
    }
    database_.Run("PRAGMA wal_checkpoint(PASSIVE)");
    if (mayDrop) {
        DropOldest(DROPPED_FOR_ROOM);
    }
}

// Takes another chunk of the disk, or two. False when there is none.
bool Outbox::Grow()
{
    sqlite3_int64 size = (database_.Number("PRAGMA page_count") + PAGES_AT_START) * PAGE_SIZE + CHUNK;
    size -= size % CHUNK;
    if (sqlite3_file_control(database_.Handle(), "main", SQLITE_FCNTL_SIZE_HINT, &size) != SQLITE_OK) {
        return false;
    }
    database_.Number("PRAGMA max_page_count = " + std::to_string(size / PAGE_SIZE));
    return true;
}

void Outbox::DropOldest(int64_t count)
{
    if (state_.drops.count == 0) {
        Notify("outbox " + database_.Path() + " is full: the oldest events are dropped");
    }
    Change([this, count](State& next) {
        const int64_t first = next.removed + 1;
        next.removed = std::min(next.last, next.removed + count);
        RemoveStored(next.removed, next.notice);
        next.drops.first = next.drops.count == 0 ? first : next.drops.first;
        next.drops.last = next.removed;
        next.drops.count += sqlite3_changes64(database_.Handle());
    });
}

// ---------------------------------------------------------------------------------------------------------------------
// Out

std::vector<StoredEvent> Outbox::ReadAfter(int64_t sequence, size_t most)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    eventfd_t ignored = 0;
    (void)eventfd_read(arrival_.Get(), &ignored);
    if (state_.drops.count != 0 && state_.notice == 0) {
        TellDrops();
    }
    std::vector<StoredEvent> events;
    Statement& read = statements_->read;
    read.Bind(1, sequence);
    read.Bind(2, static_cast<int64_t>(most));
    while (read.Step()) {
        events.push_back({read.Number(0), read.Text(1), read.Text(2)});
    }
    read.Reset();
    isAwaited_ = events.size() < most;
    return events;
}

void Outbox::TellDrops()
{
    const Drops drops = state_.drops;
    const Json object = {
        {"kind", "dropped"},    {"resource", "outbox"}, {"arrival", TimeText(Now(), true)},
        {"count", drops.count}, {"first", drops.first}, {"last", drops.last},
    };
    Change([this, &object](State& next) {
        next.notice = ++next.last;
        next.drops = {};
        Insert(next.notice, DROPPED_SOURCE, ToLine(object));
    });
    Notify("outbox " + database_.Path() + ": " + std::to_string(drops.count) + " events were dropped, numbers " +
           std::to_string(drops.first) + " to " + std::to_string(drops.last));
}

void Outbox::Remove(int64_t sequence)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Change([this, sequence](State& next) {
        RemoveStored(sequence, 0);
        next.removed = std::max(next.removed, sequence);
        next.notice = next.notice <= sequence ? 0 : next.notice;
    });
}

void Outbox::RemoveStored(int64_t sequence, int64_t spared)
{
    Statement& remove = statements_->remove;
    remove.Bind(1, sequence);
    remove.Bind(2, spared);
    remove.Run();
}

}  // namespace tools::forward
