#include "tools/forward/Sqlite.h"

#include <system_error>
#include <utility>

namespace tools::forward {

namespace {

std::string Describe(const std::string& path, sqlite3* database)
{
    const int code = sqlite3_errcode(database);
    if (code == SQLITE_BUSY) {
        return "outbox " + path + ": another process uses it";
    }
    std::string text = "outbox " + path + ": " + sqlite3_errmsg(database);
    const int cause = sqlite3_system_errno(database);
    if (cause != 0 && code == SQLITE_CANTOPEN) {
        text += " (" + std::generic_category().message(cause) + ")";
    }
    return text;
}

// Not by errno, which has passed through too much until here.
bool IsLackOfRoomNow(sqlite3* database)
{
    return sqlite3_errcode(database) == SQLITE_FULL || sqlite3_extended_errcode(database) == SQLITE_IOERR_WRITE;
}

}  // namespace

SqliteError::SqliteError(const std::string& path, sqlite3* database)
    : std::runtime_error(Describe(path, database)), isLackOfRoom_(IsLackOfRoomNow(database))
{
}

Database::Database(std::string path) : path_(std::move(path))
{
    constexpr int FLAGS = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path_.c_str(), &handle_, FLAGS, nullptr) != SQLITE_OK) {
        const SqliteError error(path_, handle_);
        sqlite3_close(handle_);
        throw error;
    }
}

void Database::Run(const std::string& statements)
{
    if (sqlite3_exec(handle_, statements.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        Fail();
    }
}

int64_t Database::Number(const std::string& statement)
{
    Statement query(*this, statement.c_str());
    return query.Step() ? query.Number(0) : 0;
}

std::string Database::Text(const std::string& statement)
{
    Statement query(*this, statement.c_str());
    return query.Step() ? query.Text(0) : "";
}

Statement::Statement(Database& database, const char* text) : database_(database)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(database.Handle(), text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
        database.Fail();
    }
    statement_.reset(statement);
}

void Statement::Bind(int place, int64_t value)
{
    sqlite3_bind_int64(statement_.get(), place, value);
}

void Statement::Bind(int place, const std::string& text)
{
    sqlite3_bind_text(statement_.get(), place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

bool Statement::Step()
{
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW) {
        return true;
    }
    if (result != SQLITE_DONE) {
        const SqliteError error(database_.Path(), database_.Handle());
        Reset();
        throw error;
    }
    return false;
}

void Statement::Reset()
{
    sqlite3_reset(statement_.get());
}

std::string Statement::Text(int column) const
{
    const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
    return text == nullptr ? ""
                           : std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column)));
}

}  // namespace tools::forward
