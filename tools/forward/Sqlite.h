// What the outbox needs of SQLite: a database, statements and transactions that end with their scope, and errors as
// exceptions. Used by one thread at a time.
#ifndef REPORT_EVENT_TOOLS_FORWARD_SQLITE_H
#define REPORT_EVENT_TOOLS_FORWARD_SQLITE_H

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace tools::forward {

class SqliteError : public std::runtime_error {
public:
    // What went wrong last with `database`.
    SqliteError(const std::string& path, sqlite3* database);

    // Whether the file could not grow: the disk is full, or the file is as large as it may be.
    bool IsLackOfRoom() const
    {
        return isLackOfRoom_;
    }

private:
    bool isLackOfRoom_;
};

class Database {
public:
    explicit Database(std::string path);
    ~Database()
    {
        sqlite3_close(handle_);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Runs statements that have no parameters; what they return is passed over.
    void Run(const std::string& statements);
    // The single number that a statement returns; 0 for none.
    int64_t Number(const std::string& statement);
    std::string Text(const std::string& statement);

    const std::string& Path() const
    {
        return path_;
    }
    sqlite3* Handle() const
    {
        return handle_;
    }
    [[noreturn]] void Fail() const
    {
        throw SqliteError(path_, handle_);
    }

private:
    const std::string path_;
    sqlite3* handle_ = nullptr;
};

// A prepared statement. What is bound must stay as it is until the statement has been run.
class Statement {
public:
    Statement(Database& database, const char* text);

    void Bind(int place, int64_t value);
    void Bind(int place, const std::string& text);
    // Whether there is another row.
    bool Step();
    // To be called once the rows are of no use any more.
    void Reset();
    void Run()
    {
        Step();
        Reset();
    }

    int64_t Number(int column) const
    {
        return sqlite3_column_int64(statement_.get(), column);
    }
    std::string Text(int column) const;

private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const
        {
            sqlite3_finalize(statement);
        }
    };

    Database& database_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// All or nothing.
class Transaction {
public:
    explicit Transaction(Database& database) : database_(database)
    {
        database_.Run("BEGIN");
    }
    ~Transaction()
    {
        if (!isOver_) {
            sqlite3_exec(database_.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void Commit()
    {
        database_.Run("COMMIT");
        isOver_ = true;
    }

private:
    Database& database_;
    bool isOver_ = false;
};

}  // namespace tools::forward

#endif  // REPORT_EVENT_TOOLS_FORWARD_SQLITE_H
