// The camera roll read from a current phone's photo library.
#pragma once

#include <string>

#include <plist/plist.h>
#include <sqlite3.h>

#include "common/sqlite_schema.h"
#include "tarn/tarn_device.h"

namespace tarn {

// The visible pictures and videos of the asset table `table` (ZASSET or
// ZGENERICASSET) of the open photo library at host path `path`, oldest
// first: {"number", "total", "item"} whose items carry "size", "path",
// "time" as every camera-roll item does, then "taken" (seconds since 1970,
// 0 unknown), "kind" ("photo", "video", "live", "screenshot"), "width",
// "height", "duration" (milliseconds), "live_video" (the Live Photo's movie,
// or ""), "albums" (titles of the person's albums holding it), "thumbnail"
// (where the phone keeps its thumbnail) and "cloud" (true when the
// original is not on the phone; its size is then 0). NULL, with the reason
// recorded, when the table cannot be read.
// The SELECT of the visible assets the camera roll lists, oldest first;
// `table` must be a plain identifier. Exposed for the benchmark's floor.
std::string PhotoAssetQuery(SqliteSchema &schema, const std::string &table);

plist_t ReadPhotoLibrarySQLITE(PodDevice *device, const char *path, sqlite3 *db, SqliteSchema &schema,
                               const std::string &table);

}  // namespace tarn
