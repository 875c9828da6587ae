// Voice recordings: from the recordings database (sized on the device) or
// from the music database, whose recordings are tracks under a
// "Recordings" path; whichever dbInfo lists first and yields one.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "common/connection.h"
#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/number.h"
#include "common/raii.h"
#include "devicefs/walk.h"
#include "musicdb/music_database.h"
#include "tarn/tarn_device.h"

namespace {

enum RecordingDbType : uint64_t { kRecordingCdb = 0, kRecordingSqlite = 3 };

constexpr const char *kRecordingQuery = "select ZDURATION,ZPATH,ZCUSTOMLABEL from ZRECORDING";
constexpr const char *kRecordingFolder = "/Recordings/";
// Recording files are named after the time they were taken; the title is
// that time stamp, without the extension.
constexpr size_t kTitleLength = 15;

// Seconds as decimal text to whole milliseconds, truncated. A text that is
// no duration at all (negative, not a number, absurdly large) counts as 0.
uint64_t DurationMilliseconds(const char *text) {
  const double ms = text ? std::strtod(text, nullptr) * 1000.0 : 0.0;
  if (!(ms >= 0.0) || ms >= 18446744073709551616.0) return 0;
  return static_cast<uint64_t>(ms);
}

}  // namespace

namespace tarn {

char *GetFormatedRecordingTime(const char *source, char *dest) {
  // strncpy stops reading at a shorter name's terminator and zero-fills
  // the rest of the 15 bytes.
  if (source != nullptr && dest != nullptr) std::strncpy(dest, source, kTitleLength);
  return dest;
}

int IsMatchRecordingPath(const char *path) {
  return path != nullptr && std::strstr(path, "Recordings") != nullptr ? 1 : 0;
}

plist_t ReadRecordingDbTypeSQLITE(PodDevice *device, const char *path) {
  const tarn::SqliteDb db = tarn::OpenDatabaseCopy(path);
  if (!db) return nullptr;

  tarn::PlistPtr result(tarn::NewTrackListResult());
  RecordingRowContext ctx{0, tarn::ListItems(result.get()), 0, nullptr};
  char *error = nullptr;
  {
    // The device's own sync must not remove recordings while they are sized.
    const tarn::DeviceCall call(device, tarn::PolicyOf("ReadRecordingDbTypeSQLITE"));
    ctx.client = call.afc();
    if (sqlite3_exec(db.get(), kRecordingQuery, RecordingDbCallback, &ctx, &error) != SQLITE_OK)
      tarn::SetDatabaseError(path, error ? error : "");
  }
  // A failed query keeps the rows handed over before it.
  tarn::SqliteText owned_error(error);
  if (ctx.count == 0) return nullptr;
  tarn::AddToListCounts(result.get(), ctx.count, ctx.total);
  return result.release();
}

plist_t ReadRecordingDbTypeCdb(const char *path) {
  const tarn::MusicDatabase db(path);
  if (!db || itdb_tracks_number(db.get()) == 0) return nullptr;
  // Unlike the database route, this result carries no "total".
  tarn::PlistPtr result(plist_new_dict());
  plist_t items = plist_new_array();
  uint64_t count = 0;
  for (GList *l = db->tracks; l != nullptr; l = l->next) {
    const auto *track = static_cast<const Itdb_Track *>(l->data);
    if (track == nullptr || !tarn::IsMatchRecordingPath(track->ipod_path)) continue;
    plist_t item = plist_new_dict();
    plist_dict_set_item(item, "id", plist_new_uint(track->id));
    tarn::CString device_path(tarn::ReplaceChar(track->ipod_path, '/', ':'));
    tarn::InsertPlistDictString(item, "path", device_path.get());
    tarn::InsertPlistDictString(item, "title", track->title);
    plist_dict_set_item(item, "time", plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(track->tracklen))));
    plist_dict_set_item(item, "size", plist_new_uint(tarn::TrackSize(track)));
    tarn::InsertPlistDictString(item, "name", "");
    plist_array_append_item(items, item);
    ++count;
  }
  plist_dict_set_item(result.get(), "number", plist_new_uint(count));
  plist_dict_set_item(result.get(), "item", items);
  if (count == 0) return nullptr;
  return result.release();
}

}  // namespace tarn

extern "C" {

TARN_API int IsMatchRecordingPath(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::IsMatchRecordingPath(path);
}

TARN_API char *GetFormatedRecordingTime(const char *source, char *dest) {
  const tarn::ApiCall api_call;
  return tarn::GetFormatedRecordingTime(source, dest);
}

TARN_API int RecordingDbCallback(void *context, int columns, char **values, char **) {
  const tarn::ApiCall api_call;
  auto *ctx = static_cast<RecordingRowContext *>(context);
  if (ctx == nullptr || columns < 3 || values == nullptr || values[1] == nullptr) return 0;
  const char *label = values[2];
  // The database stores the path where the phone keeps the file; only the
  // part from the recordings folder on exists on the media partition.
  const char *device_path = std::strstr(values[1], kRecordingFolder);
  if (device_path == nullptr) return 0;
  tarn::FileInfo info;
  {
    // A recording the database names but the device no longer has is left out.
    const tarn::KeepReason quiet;
    info.reset(tarn::GetFileInfo(ctx->client, device_path));
  }
  if (info.get()[TARN_INFO_SIZE] == nullptr) return 0;
  const uint64_t size = tarn::DeviceNumber(info.get()[TARN_INFO_SIZE]);

  plist_t item = plist_new_dict();
  plist_array_append_item(ctx->items, item);
  ++ctx->count;
  char title[kTitleLength + 1] = {};
  tarn::GetFormatedRecordingTime(std::strrchr(values[1], '/') + 1, title);
  plist_dict_set_item(item, "id", plist_new_uint(ctx->count));
  tarn::InsertPlistDictString(item, "path", device_path);
  tarn::InsertPlistDictString(item, "title", title);
  plist_dict_set_item(item, "time", plist_new_uint(DurationMilliseconds(values[0])));
  plist_dict_set_item(item, "size", plist_new_uint(size));
  tarn::InsertPlistDictString(item, "name", label);
  tarn::Console("name is %s\n", tarn::NullSafe(label));
  ctx->total += size;
  return 0;
}

TARN_API plist_t ReadRecordingDbTypeSQLITE(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  return tarn::ReadRecordingDbTypeSQLITE(device, path);
}

TARN_API plist_t ReadRecordingDbTypeCdb(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::ReadRecordingDbTypeCdb(path);
}

TARN_API plist_t GetRecordingList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  plist_t result = nullptr;
  // A phone with a music library keeps a compressed database beside it that
  // it no longer updates: its recordings would be stale.
  const auto library = tarn::MediaLibraryCopy(device);
  const bool listed = tarn::WalkDbFiles(device, "RecordingDb", [&](uint64_t type, const char *device_path) {
    // Of the music databases only the compressed one is parsed, as for
    // every track list; the plain and locations forms are passed over.
    if (type == kRecordingSqlite) {
      result = tarn::ReadRecordingDbTypeSQLITE(device, tarn::LocalCopyPath(device, device_path).c_str());
    } else if (type == kRecordingCdb && !library) {
      result = tarn::ReadRecordingDbTypeCdb(tarn::LocalCopyPath(device, device_path).c_str());
    }
    return result != nullptr;
  }, !library);
  if (result == nullptr && library) {
    // Memos a computer synced into the music library are in it; those the
    // phone recorded itself are not on the media partition at all.
    const tarn::KeepReason quiet;
    result = tarn::ReadRecordingsFromLibrarySQLITE(library->c_str());
  }
  if (result == nullptr && library) {
    tarn::SetError(TARN_E_NOT_REACHABLE,
                   "This phone keeps its voice memos in the Voice Memos app, which file access over USB cannot "
                   "reach. Share them from the Voice Memos app, or back up the phone to get them.");
    return nullptr;
  }
  if (!listed) return nullptr;
  tarn::ConsoleLine("GetRecordingList END!!");
  tarn::PrintPlist(result);
  return result;
}

}  // extern "C"
