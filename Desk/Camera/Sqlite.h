// The part of SQLite that the store needs: a database, a statement and a transaction that clean up after themselves.
// What SQLite refuses is thrown as SqliteError.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "Common/Text.h"

namespace desk::camera {

// SQLite repeats what it found in a file, line breaks included; a failure is told in one line.
class SqliteError : public std::runtime_error {
  public:
    SqliteError(int code, const std::string& text) : std::runtime_error(one_line(text)), code_(code) {}
    // The primary result code, such as SQLITE_FULL.
    int code() const { return code_ & 0xFF; }

  private:
    int code_;
};

class Database {
  public:
    using Clock = std::chrono::steady_clock;

    // `flags` as for sqlite3_open_v2.
    Database(const std::string& path, int flags) {
        sqlite3* opened = nullptr;
        const int code = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
        handle_.reset(opened); // SQLite gives a handle out even when it fails
        if (code != SQLITE_OK) {
            throw SqliteError(code, opened ? sqlite3_errmsg(opened) : sqlite3_errstr(code));
        }
    }

    sqlite3* handle() const { return handle_.get(); }

    // Runs statements that answer nothing.
    void run(const char* statements) { check(sqlite3_exec(handle(), statements, nullptr, nullptr, nullptr)); }

    // What still runs after this time fails with SQLITE_INTERRUPT.
    void give_up_after(std::chrono::milliseconds time) {
        constexpr int instructions_between_looks = 10'000;
        *deadline_ = Clock::now() + time;
        sqlite3_progress_handler(handle(), instructions_between_looks, is_overdue, deadline_.get());
    }
    void give_up_never() { sqlite3_progress_handler(handle(), 0, nullptr, nullptr); }

    void check(int code) const {
        if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE) {
            throw SqliteError(code, sqlite3_errmsg(handle()));
        }
    }

  private:
    struct Close {
        void operator()(sqlite3* handle) const { sqlite3_close(handle); }
    };
    static int is_overdue(void* deadline) { return Clock::now() > *static_cast<Clock::time_point*>(deadline); }

    std::unique_ptr<Clock::time_point> deadline_ = std::make_unique<Clock::time_point>();
    std::unique_ptr<sqlite3, Close> handle_; // behind the deadline, which it may look at until it is closed
};

class Statement {
  public:
    // The parameters ?1, ?2 and so on take the values in order. Bytes must outlive the statement.
    template<class... Values>
    Statement(Database& database, const char* text, const Values&... values) : database_(database) {
        sqlite3_stmt* prepared = nullptr;
        database.check(sqlite3_prepare_v2(database.handle(), text, -1, &prepared, nullptr));
        handle_.reset(prepared);
        int parameter = 0;
        (bind(++parameter, values), ...);
    }

    // Whether there is a row, the first or the next one.
    bool step() {
        const int code = sqlite3_step(handle_.get());
        database_.check(code);
        return code == SQLITE_ROW;
    }

    // The columns of the row, from 0. What they answer is valid up to the next step.
    int64_t number(int column) const { return sqlite3_column_int64(handle_.get(), column); }
    std::string text(int column) const {
        const unsigned char* text = sqlite3_column_text(handle_.get(), column);
        return text ? reinterpret_cast<const char*>(text) : "";
    }
    std::span<const uint8_t> blob(int column) const {
        const void* bytes = sqlite3_column_blob(handle_.get(), column);
        return {static_cast<const uint8_t*>(bytes), static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column))};
    }

  private:
    void bind(int parameter, int64_t value) { database_.check(sqlite3_bind_int64(handle_.get(), parameter, value)); }
    void bind(int parameter, std::span<const uint8_t> bytes) {
        database_.check(sqlite3_bind_blob64(handle_.get(), parameter, bytes.data(), bytes.size(), SQLITE_STATIC));
    }

    struct Finalize {
        void operator()(sqlite3_stmt* handle) const { sqlite3_finalize(handle); }
    };
    Database& database_;
    std::unique_ptr<sqlite3_stmt, Finalize> handle_;
};

// Runs one statement that answers nothing.
template<class... Values>
void execute(Database& database, const char* text, const Values&... values) {
    Statement(database, text, values...).step();
}

// A change of the database: all of it once `commit` has returned, nothing of it when `commit` was not reached or threw.
class Transaction {
  public:
    explicit Transaction(Database& database) : database_(database) { database_.run("BEGIN IMMEDIATE"); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction() {
        // After some failures, a full disk among them, SQLite has rolled back by itself.
        if (!sqlite3_get_autocommit(database_.handle())) {
            sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    void commit() { database_.run("COMMIT"); }

  private:
    Database& database_;
};

} // namespace desk::camera
