#include "device/sqlite_copy.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/number.h"
#include "common/raii.h"
#include "common/scratch_dir.h"
#include "devicefs/stamp.h"
#include "devicefs/transfer.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

// The files of one database, in the order they are copied.
constexpr const char *kSuffixes[] = {"", "-wal", "-shm"};
// How often a copy that the device changed underneath is made again.
constexpr int kAttempts = 3;
// Beside the copy: the size and time of the device's files it was made from.
constexpr const char *kSourceSuffix = ".tarn-source";

// What the copy depends on: the database and its log. The shared-memory
// index changes with every reader on the phone and SQLite rebuilds it from
// the log anyway, so it does not make a copy stale.
std::string SourceRecord(const DeviceStamp (&files)[3]) {
  std::ostringstream out;
  for (int i = 0; i < 2; ++i) out << kSuffixes[i] << ' ' << files[i].exists << ' ' << files[i].size << ' ' << files[i].mtime << '\n';
  return out.str();
}

std::string ReadText(const std::string &path) {
  std::ifstream in(path);
  std::ostringstream out;
  out << in.rdbuf();
  return in ? out.str() : std::string();
}

// Checks a copied database with its log and folds the log into it, so
// that the result is one file any reader opens, read-only, with every row.
// False, with the reason recorded, when SQLite finds the copy damaged.
bool FoldLog(const std::string &path) {
  sqlite3 *raw = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  SqliteDb db(raw);
  if (rc != SQLITE_OK) {
    SetDatabaseError(path.c_str(), raw ? sqlite3_errmsg(raw) : "");
    return false;
  }
  std::string verdict;
  auto step = [&](const char *sql) {
    sqlite3_stmt *stmt = nullptr;
    if (sqlite3_prepare_v2(db.get(), sql, -1, &stmt, nullptr) != SQLITE_OK) return false;
    int r;
    while ((r = sqlite3_step(stmt)) == SQLITE_ROW)
      if (const unsigned char *t = sqlite3_column_text(stmt, 0)) verdict = reinterpret_cast<const char *>(t);
    sqlite3_finalize(stmt);
    return r == SQLITE_DONE;
  };
  if (!step("PRAGMA quick_check(1)") || verdict != "ok") {
    SetDatabaseError(path.c_str(), verdict.empty() ? sqlite3_errmsg(db.get()) : verdict);
    return false;
  }
  if (!step("PRAGMA wal_checkpoint(TRUNCATE)") || !step("PRAGMA journal_mode=DELETE")) {
    SetDatabaseError(path.c_str(), sqlite3_errmsg(db.get()));
    return false;
  }
  return true;
}

void WriteText(const std::string &path, const std::string &text) {
  const ScratchDir scratch(path);
  if (scratch.path().empty()) return;
  const std::string made = scratch.path() + "/" + fs::path(path).filename().string();
  {
    std::ofstream out(made, std::ios::trunc);
    out << text;
    if (!out.flush()) {
      SetHostError(errno, made.c_str());
      return;
    }
  }
  ScratchDir::Place(made, path);
}

}  // namespace

bool HasWriteAheadLog(afc_client_t client, const char *device_path) {
  return client != nullptr && device_path != nullptr && StampOf(client, std::string(device_path) + "-wal").exists;
}

bool CopyWalDatabase(PodDevice *device, afc_client_t client, const char *device_path, const std::string &local_path) {
  const std::string source = device_path;
  const std::string record_path = local_path + kSourceSuffix;
  DeviceStamp before[3];
  for (int i = 0; i < 3; ++i) before[i] = StampOf(client, source + kSuffixes[i]);
  std::error_code ec;
  if (fs::exists(local_path, ec) && ReadText(record_path) == SourceRecord(before)) return true;

  // The phone's own sync must not rewrite the library while it is copied;
  // without the lock the copy still goes ahead and is checked below.
  const SyncLock lock(client);
  const std::string name = fs::path(local_path).filename().string();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const ScratchDir scratch(local_path);
    if (scratch.path().empty()) break;
    const std::string copy = scratch.path() + "/" + name;
    bool copied = true;
    for (int i = 0; i < 3 && copied; ++i) {
      if (!before[i].exists) continue;
      ConsoleLine("......begin CopyDeviceFile");
      ConsoleFlush();
      copied = DownloadWhole(device, client, (source + kSuffixes[i]).c_str(), (copy + kSuffixes[i]).c_str(), nullptr);
      ConsoleLine("......end CopyDeviceFile");
      ConsoleFlush();
    }
    // A lost connection or a full disk will not go away by trying again.
    if (!copied) break;
    DeviceStamp after[3];
    for (int i = 0; i < 3; ++i) after[i] = StampOf(client, source + kSuffixes[i]);
    const bool changed = SourceRecord(after) != SourceRecord(before);
    std::copy(std::begin(after), std::end(after), std::begin(before));
    if (changed) continue;
    {
      const KeepReason quiet;
      if (!FoldLog(copy)) continue;
    }
    if (!ScratchDir::Place(copy, local_path)) break;
    WriteText(record_path, SourceRecord(after));
    return true;
  }
  if (CurrentCode() == TARN_OK || CurrentCode() == TARN_E_SYNC_LOCK_BUSY)
    SetError(TARN_E_DATABASE_UNREADABLE,
             "The phone kept changing \"" + source + "\" while it was copied, or the copy was damaged, " +
                 std::to_string(kAttempts) +
                 " times in a row. Wait until the phone has finished updating its library (close the Music or "
                 "Photos app) and try again.");
  // An older copy must not stand in for the library the phone has now.
  fs::remove(local_path, ec);
  fs::remove(record_path, ec);
  return false;
}

}  // namespace tarn
