// The one walk over the handle's database information. dbInfo maps a
// database kind ("TrackDb", ...) to an array of {"Type", "Path"}
// dictionaries in path-table order; every reader goes through here.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <plist/plist.h>

#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace tarn {

// Where a device keeps each kind of database. A path's index in its table is
// its database type, and a table's order is the order readers try its files.
// The music database is named in three tables on purpose: books and
// recordings can also be read out of it. Phones since iOS 5 keep their
// music library in MediaLibrary.sqlitedb; it comes last so that the types
// of the older files keep their numbers, and where it exists it is the
// catalogue: the compressed database a phone still keeps beside it is not
// kept up to date.
inline constexpr const char *kTrackDbPath[] = {
    "/iTunes_Control/iTunes/iTunesCDB", "/iTunes_Control/iTunes/iTunesDB",
    "/iTunes_Control/iTunes/iTunes Library.itlp/Locations.itdb", "/Purchases/MobileDB/TrackData.plist",
    "/iTunes_Control/iTunes/MediaLibrary.sqlitedb"};
inline constexpr const char *kBookDbPath[] = {"/iTunes_Control/iTunes/iTunesCDB", "/iTunes_Control/iTunes/iTunesDB",
                                              "/Books/Books.plist", "/Books/Purchases/Purchases.plist"};
inline constexpr const char *kCameraDbPath[] = {"/PhotoData/Photos.sqlite"};
inline constexpr const char *kRecordingDbPath[] = {
    "/iTunes_Control/iTunes/iTunesCDB", "/iTunes_Control/iTunes/iTunesDB",
    "/iTunes_Control/iTunes/iTunes Library.itlp/Locations.itdb", "/Recordings/Recordings.db"};
inline constexpr const char *kUserPictureDbPath[] = {"/Photos/Photo Database"};

// Database types of the music and purchases files in kTrackDbPath.
enum TrackDbType : uint64_t {
  kTrackDbCdb = 0,
  kTrackDbPlain = 1,
  kTrackDbLocations = 2,
  kTrackDbPurchases = 3,
  kTrackDbMediaLibrary = 4
};

// Receives (type, device path); returns true to stop the walk.
using DbFileVisitor = std::function<bool(uint64_t type, const char *device_path)>;

// Walks one entry in order. Malformed members (not a dictionary, missing or
// mistyped "Type"/"Path") are skipped. Returns true when the visitor stopped
// the walk.
bool WalkDbEntry(plist_t entry, const DbFileVisitor &visit);

// Looks up kind in the handle's dbInfo and walks it. Returns false when the
// handle has no entry of that kind (nothing is visited); that records
// TARN_E_DATABASE_ABSENT unless the caller has another way (required false).
bool WalkDbFiles(const PodDevice *device, const char *kind, const DbFileVisitor &visit, bool required = true);

// The host path of the local copy of the music entry's database of `type`
// (kTrackDbCdb, ...) when the entry lists one; nothing otherwise.
std::optional<std::string> TrackDbCopy(const PodDevice *device, uint64_t type);
// The host path of the local copy of the phone's music library
// (MediaLibrary.sqlitedb) when the handle's music entry lists one. Such a
// phone's catalogue is that library: callers read it instead of the older
// files, which may be stale.
std::optional<std::string> MediaLibraryCopy(const PodDevice *device);

// The host path of the local copy of a device database: the device path's
// base name in hostDir (a relative name when there is no hostDir). InitDevice
// writes the copies here and every reader opens them here.
std::string LocalCopyPath(const PodDevice *device, const char *device_path);

// Opens the host copy of a SQLite database read only, so that a missing copy
// never turns into a new empty database in the working directory. Null, with
// the reason recorded, when it cannot be opened.
SqliteDb OpenDatabaseCopy(const char *path);

}  // namespace tarn
