#include "history/Database.h"

#include <sqlite3.h>

namespace sd::history {
namespace {

[[noreturn]] void fail(sqlite3* db, int code, std::string_view doing) {
    std::string message(doing);
    message += ": ";
    message += db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code);
    throw DatabaseError(code & 0xff, message);
}

} // namespace

bool DatabaseError::isDamage() const noexcept {
    return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB;
}

Database::Database(const std::string& file, Create create) {
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    if (create == Create::yes) {
        flags |= SQLITE_OPEN_CREATE;
    }
    int rc = sqlite3_open_v2(file.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) {
        std::string message =
            "Opening " + file + ": " + (db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
        sqlite3_close(db_);
        db_ = nullptr;
        throw DatabaseError(rc & 0xff, message);
    }
    sqlite3_extended_result_codes(db_, 0);
    // Another process (the companion, the window) may hold the write lock for a moment.
    sqlite3_busy_timeout(db_, 5000);
}

Database::~Database() {
    sqlite3_close_v2(db_);
}

void Database::execute(std::string_view sql) {
    std::string text(sql);
    char* error = nullptr;
    int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        std::string message = error != nullptr ? error : sqlite3_errstr(rc);
        sqlite3_free(error);
        throw DatabaseError(rc & 0xff, message);
    }
}

Statement Database::prepare(std::string_view sql) {
    return Statement(db_, sql);
}

std::int64_t Database::lastInsertId() const {
    return sqlite3_last_insert_rowid(db_);
}

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
    int rc = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
    if (rc != SQLITE_OK) {
        fail(db, rc, "Preparing a query");
    }
}

Statement::~Statement() {
    sqlite3_finalize(stmt_);
}

Statement::Statement(Statement&& other) noexcept : db_(other.db_), stmt_(other.stmt_) {
    other.stmt_ = nullptr;
}

Statement& Statement::bind(int index, std::int64_t value) {
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
}

Statement& Statement::bind(int index, std::uint64_t value) {
    // Byte counts stay far below 2^63; the cap keeps a saturated sum from turning negative.
    constexpr auto most = static_cast<std::uint64_t>(INT64_MAX);
    sqlite3_bind_int64(stmt_, index, static_cast<std::int64_t>(value > most ? most : value));
    return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
    sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bindNull(int index) {
    sqlite3_bind_null(stmt_, index);
    return *this;
}

bool Statement::step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) {
        return true;
    }
    if (rc == SQLITE_DONE) {
        return false;
    }
    fail(db_, rc, "Reading the history");
}

void Statement::run() {
    while (step()) {
    }
    reset();
}

void Statement::reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

std::int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(stmt_, column);
}

std::uint64_t Statement::count(int column) const {
    std::int64_t value = sqlite3_column_int64(stmt_, column);
    return value < 0 ? 0 : static_cast<std::uint64_t>(value);
}

std::string Statement::text(int column) const {
    const unsigned char* value = sqlite3_column_text(stmt_, column);
    return value == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(value),
                                          static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

Transaction::Transaction(Database& db) : db_(db) {
    db_.execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (!done_) {
        try {
            db_.execute("ROLLBACK");
        } catch (const DatabaseError&) {
            // The connection already rolled back on its own (a full disk, say).
        }
    }
}

void Transaction::commit() {
    db_.execute("COMMIT");
    done_ = true;
}

} // namespace sd::history
