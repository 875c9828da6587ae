// SQLite as the image builder uses it for the databases of current phones:
// a fresh file, statements bound from C++ values, and the write-ahead log
// left behind the way a phone leaves it.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace mkimage {

using Blob = std::vector<uint8_t>;

class SqliteDb {
 public:
  // Creates `file` afresh (an older copy and its -wal/-shm are removed).
  explicit SqliteDb(const std::filesystem::path &file) : file_(file) {
    std::filesystem::create_directories(file.parent_path());
    for (const char *suffix : {"", "-wal", "-shm", "-journal"}) std::filesystem::remove(file.string() + suffix);
    if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
      sqlite3_close(db_);
      throw std::runtime_error("cannot create " + file.string());
    }
  }
  ~SqliteDb() { sqlite3_close(db_); }
  SqliteDb(const SqliteDb &) = delete;
  SqliteDb &operator=(const SqliteDb &) = delete;

  sqlite3 *get() const { return db_; }

  void Exec(const std::string &sql) {
    char *err = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
      const std::string why = err ? err : sqlite3_errmsg(db_);
      sqlite3_free(err);
      throw std::runtime_error(file_.filename().string() + ": " + why + " in: " + sql.substr(0, 120));
    }
  }

  // What is written so far goes into the main file and the log is emptied;
  // from here on nothing is checkpointed, not even when the file is
  // closed, so everything written after this call lives only in -wal, as
  // the newest rows of a phone's database do while its daemon holds it
  // open.
  void CheckpointThenKeepLog() {
    int ckpt_log = 0, ckpt_done = 0;
    if (sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, &ckpt_log, &ckpt_done) != SQLITE_OK)
      throw std::runtime_error("cannot checkpoint " + file_.string() + ": " + sqlite3_errmsg(db_));
    int on = 0;
    if (sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, &on) != SQLITE_OK || on != 1)
      throw std::runtime_error("SQLite cannot keep the log of " + file_.string() + " on close");
  }

 private:
  std::filesystem::path file_;
  sqlite3 *db_ = nullptr;
};

// A prepared statement run once per row: Run(a, b, c) binds the values in
// order (integers, floating point, text, Blob, nullptr, or a std::optional
// of one, empty for NULL) and steps.
class Statement {
 public:
  Statement(const SqliteDb &db, std::string_view sql) : db_(db.get()) {
    if (sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &st_, nullptr) != SQLITE_OK)
      throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + std::string(sql));
  }
  ~Statement() { sqlite3_finalize(st_); }
  Statement(const Statement &) = delete;
  Statement &operator=(const Statement &) = delete;

  template <typename... Values>
  void Run(const Values &...values) {
    int at = 0;
    (Bind(++at, values), ...);
    const int rc = sqlite3_step(st_);
    sqlite3_reset(st_);
    sqlite3_clear_bindings(st_);
    if (rc != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db_));
  }

 private:
  template <typename T>
  void Bind(int at, const T &v) {
    if constexpr (std::is_same_v<T, std::nullptr_t>) {
      sqlite3_bind_null(st_, at);
    } else if constexpr (IsOptional<T>::value) {
      if (v) Bind(at, *v);
      else sqlite3_bind_null(st_, at);
    } else if constexpr (std::is_same_v<T, Blob>) {
      sqlite3_bind_blob(st_, at, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    } else if constexpr (std::is_integral_v<T>) {
      sqlite3_bind_int64(st_, at, static_cast<sqlite3_int64>(v));
    } else if constexpr (std::is_floating_point_v<T>) {
      sqlite3_bind_double(st_, at, static_cast<double>(v));
    } else {
      const std::string_view s(v);
      sqlite3_bind_text(st_, at, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
    }
  }

  template <typename T>
  struct IsOptional : std::false_type {};
  template <typename T>
  struct IsOptional<std::optional<T>> : std::true_type {};

  sqlite3 *db_;
  sqlite3_stmt *st_ = nullptr;
};

// Persistent identifiers as phones draw them: random signed 64-bit values,
// many negative, never 0 (0 means "none" in every reference). The same
// seed gives the same sequence, and no value repeats within one (each is
// splitmix64 of a distinct counter, a bijection).
class PidSource {
 public:
  explicit PidSource(uint64_t seed) : state_(seed * 0x100000001b3ULL) {}
  int64_t Next() {
    for (;;) {
      uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
      z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
      z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
      z ^= z >> 31;
      if (z) return static_cast<int64_t>(z);
    }
  }

 private:
  uint64_t state_;
};

// Seconds since 2001-01-01 UTC, the reference date of every Apple database.
constexpr int64_t kAppleEpochOffset = 978307200;

}  // namespace mkimage
