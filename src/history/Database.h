#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

// A thin owner of one SQLite connection and its statements. Every failure is thrown as a
// DatabaseError carrying SQLite's own result code, so callers can tell a damaged file from a busy
// one.
namespace sd::history {

class DatabaseError : public std::exception {
public:
    DatabaseError(int code, std::string message) : code_(code), message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }
    int code() const noexcept { return code_; } // the primary SQLite result code
    // The file is not a database, or its pages are damaged.
    bool isDamage() const noexcept;

private:
    int code_;
    std::string message_;
};

class Statement;

class Database {
public:
    // Opens (creating when asked) the database file. Throws DatabaseError.
    enum class Create { no, yes };
    Database(const std::string& file, Create create);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void execute(std::string_view sql);
    Statement prepare(std::string_view sql);
    std::int64_t lastInsertId() const;
    sqlite3* handle() const noexcept { return db_; }

private:
    sqlite3* db_ = nullptr;
};

// One prepared statement; parameters are bound from 1, columns read from 0.
class Statement {
public:
    Statement(sqlite3* db, std::string_view sql);
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    Statement& operator=(Statement&&) = delete;

    Statement& bind(int index, std::int64_t value);
    Statement& bind(int index, std::uint64_t value);
    Statement& bind(int index, std::string_view value);
    Statement& bindNull(int index);
    // Runs to the next row: true while there is one.
    bool step();
    // Runs a statement that returns no rows.
    void run();
    void reset();

    std::int64_t integer(int column) const;
    std::uint64_t count(int column) const; // a non-negative integer column
    std::string text(int column) const;
    bool isNull(int column) const;

private:
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

// A transaction rolled back unless committed, so a failure half-way leaves nothing behind.
class Transaction {
public:
    explicit Transaction(Database& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& db_;
    bool done_ = false;
};

} // namespace sd::history
