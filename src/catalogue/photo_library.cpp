// The camera roll of phones since iOS 11: the asset table of the photo
// library (ZASSET, or ZGENERICASSET before iOS 14) with the albums each
// picture belongs to. The database says what was taken when; the device's
// folder listings say which originals are on the phone, so a picture whose
// original lives only in iCloud is marked rather than failed.
#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "catalogue/photo_library.h"
#include "catalogue/pictures.h"
#include "common/connection.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/number.h"
#include "common/raii.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

// Core Data keeps time as seconds since 2001-01-01 UTC.
constexpr double kLibraryEpoch = 978307200.0;
constexpr const char *kThumbnails = "/PhotoData/Thumbnails/V2";
// ZKIND and ZKINDSUBTYPE values.
constexpr int64_t kVideo = 1, kLivePhoto = 2, kScreenshot = 10;

// A name read from the database that is to be put into a statement: only
// what Core Data itself generates (letters, digits, underscores).
bool IsIdentifier(const std::string &name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '_';
  });
}

double Number(sqlite3_stmt *stmt, int column) {
  const double v = sqlite3_column_double(stmt, column);
  return v > 0 && v < 9.0e15 ? v : 0;
}

struct Asset {
  int64_t pk = 0;
  std::string directory, file, path;
  int64_t kind = 0, subtype = 0;
  double taken = 0, duration = 0;
  uint64_t width = 0, height = 0, size = 0;
};

// The asset's folder on the media partition. The database keeps it
// relative to the media folder; a bare camera folder name is under DCIM.
std::string FolderOf(const std::string &directory) {
  std::string dir = directory;
  while (!dir.empty() && dir.front() == '/') dir.erase(dir.begin());
  while (!dir.empty() && dir.back() == '/') dir.pop_back();
  if (!dir.empty() && dir.find('/') == std::string::npos && dir.rfind("DCIM", 0) != 0) dir = "DCIM/" + dir;
  return "/" + dir;
}

// The albums a person made, by asset: the many-to-many table between
// albums and assets is named after Core Data's entity numbers, which move
// with every release, so it is found through Z_PRIMARYKEY and confirmed by
// its columns, or else looked for among the tables.
std::unordered_map<int64_t, std::vector<std::string>> AlbumsByAsset(sqlite3 *db, tarn::SqliteSchema &s) {
  std::unordered_map<int64_t, std::vector<std::string>> albums;
  if (!s.HasColumn("ZGENERICALBUM", "Z_PK") || !s.HasColumn("ZGENERICALBUM", "ZTITLE")) return albums;
  std::string table, album_column, asset_column;
  std::map<std::string, int64_t> entity;
  if (tarn::SqliteStmt stmt = tarn::Prepare(db, "SELECT Z_NAME, Z_ENT FROM Z_PRIMARYKEY WHERE Z_NAME IN ('GenericAlbum', 'Asset')")) {
    while (sqlite3_step(stmt.get()) == SQLITE_ROW) entity[tarn::ColumnText(stmt.get(), 0)] = sqlite3_column_int64(stmt.get(), 1);
  }
  if (entity.count("GenericAlbum") && entity.count("Asset")) {
    const std::string a = std::to_string(entity["GenericAlbum"]), b = std::to_string(entity["Asset"]);
    if (s.HasColumn("Z_" + a + "ASSETS", "Z_" + a + "ALBUMS") && s.HasColumn("Z_" + a + "ASSETS", "Z_" + b + "ASSETS")) {
      table = "Z_" + a + "ASSETS";
      album_column = "Z_" + a + "ALBUMS";
      asset_column = "Z_" + b + "ASSETS";
    }
  }
  if (table.empty()) {
    for (const std::string &candidate : s.TablesLike("Z\\_%ASSETS")) {
      std::string albums_col, assets_col;
      if (tarn::SqliteStmt stmt = tarn::Prepare(db, "SELECT name FROM pragma_table_info(?1)")) {
        sqlite3_bind_text(stmt.get(), 1, candidate.c_str(), -1, SQLITE_TRANSIENT);
        while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
          const std::string name = tarn::ColumnText(stmt.get(), 0);
          if (name.rfind("Z_FOK", 0) == 0) continue;
          if (name.size() > 6 && name.compare(name.size() - 6, 6, "ALBUMS") == 0) albums_col = name;
          if (name.size() > 6 && name.compare(name.size() - 6, 6, "ASSETS") == 0) assets_col = name;
        }
      }
      if (!albums_col.empty() && !assets_col.empty()) {
        table = candidate;
        album_column = albums_col;
        asset_column = assets_col;
        break;
      }
    }
  }
  if (!IsIdentifier(table) || !IsIdentifier(album_column) || !IsIdentifier(asset_column)) return albums;
  // User albums only (kind 2), not the phone's own collections, and not
  // those in Recently Deleted.
  std::string where = " WHERE 1";
  if (s.HasColumn("ZGENERICALBUM", "ZKIND")) where += " AND al.ZKIND = 2";
  if (s.HasColumn("ZGENERICALBUM", "ZTRASHEDSTATE")) where += " AND COALESCE(al.ZTRASHEDSTATE, 0) = 0";
  tarn::SqliteStmt stmt = tarn::Prepare(db, "SELECT j." + asset_column + ", al.ZTITLE FROM " + table +
                                                " j JOIN ZGENERICALBUM al ON al.Z_PK = j." + album_column + where +
                                                " ORDER BY al.Z_PK");
  if (!stmt) return albums;
  while (sqlite3_step(stmt.get()) == SQLITE_ROW)
    albums[sqlite3_column_int64(stmt.get(), 0)].push_back(tarn::ColumnText(stmt.get(), 1));
  return albums;
}

// The names in each device folder the assets live in: one listing per
// folder instead of one request per picture.
using Names = std::unordered_set<std::string>;
std::unordered_map<std::string, Names> ListFolders(afc_client_t client, const std::set<std::string> &wanted) {
  std::unordered_map<std::string, Names> folders;
  for (const std::string &folder : wanted) {
    Names &names = folders[folder];
    char **list = nullptr;
    const tarn::KeepReason quiet;
    if (client == nullptr || afc_read_directory(client, folder.c_str(), &list) != AFC_E_SUCCESS) {
      if (list) afc_dictionary_free(list);
      continue;
    }
    for (char **n = list; n && *n; ++n) names.insert(*n);
    afc_dictionary_free(list);
  }
  return folders;
}

// The still's companion movie of a Live Photo: same name, ".MOV".
std::string LiveVideo(const Asset &a, const Names &names) {
  const size_t dot = a.file.rfind('.');
  const std::string base = a.file.substr(0, dot);
  for (const char *ext : {".MOV", ".mov"})
    if (names.count(base + ext)) return a.directory + "/" + base + ext;
  return "";
}

const char *KindName(const Asset &a) {
  if (a.kind == kVideo) return "video";
  if (a.subtype == kLivePhoto) return "live";
  if (a.subtype == kScreenshot) return "screenshot";
  return "photo";
}

}  // namespace

namespace tarn {

// The assets the roll shows: pictures in Recently Deleted, hidden ones and
// those the phone itself does not show (the rest of a burst) are left out.
std::string VisibleAssets(SqliteSchema &s, const std::string &table) {
  std::string where = " WHERE a.ZFILENAME IS NOT NULL";
  for (const char *column : {"ZTRASHEDSTATE", "ZHIDDEN", "ZVISIBILITYSTATE"})
    if (s.HasColumn(table, column)) where += std::string(" AND COALESCE(a.") + column + ", 0) = 0";
  return where;
}

std::string PhotoAssetQuery(SqliteSchema &s, const std::string &table) {
  const bool attributes = s.HasColumn(table, "ZADDITIONALATTRIBUTES") && s.HasColumn("ZADDITIONALASSETATTRIBUTES", "Z_PK");
  const std::string size = attributes ? s.Column("x", "ZADDITIONALASSETATTRIBUTES", "ZORIGINALFILESIZE") : "NULL";
  const std::string taken = s.Column("a", table, "ZDATECREATED");
  return "SELECT " + s.Column("a", table, "Z_PK") + ", a.ZDIRECTORY, a.ZFILENAME, " + s.Column("a", table, "ZKIND") +
         ", " + s.Column("a", table, "ZKINDSUBTYPE") + ", " + taken + ", " + s.Column("a", table, "ZWIDTH") + ", " +
         s.Column("a", table, "ZHEIGHT") + ", " + s.Column("a", table, "ZDURATION") + ", " + size + " FROM " + table +
         " a" + (attributes ? " LEFT JOIN ZADDITIONALASSETATTRIBUTES x ON x.Z_PK = a.ZADDITIONALATTRIBUTES" : "") +
         VisibleAssets(s, table) + " ORDER BY " + taken + ", a.rowid";
}

plist_t ReadPhotoLibrarySQLITE(PodDevice *device, const char *path, sqlite3 *db, SqliteSchema &s,
                               const std::string &table) {
  if (!IsIdentifier(table) || !s.HasColumn(table, "ZDIRECTORY") || !s.HasColumn(table, "ZFILENAME")) {
    SetDatabaseError(path, "its asset table has no file names");
    return nullptr;
  }
  // The folders first, so that each row becomes its item as it is read.
  std::set<std::string> wanted;
  if (SqliteStmt dirs = Prepare(db, "SELECT DISTINCT a.ZDIRECTORY FROM " + table + " a" + VisibleAssets(s, table))) {
    while (sqlite3_step(dirs.get()) == SQLITE_ROW) wanted.insert(FolderOf(ColumnText(dirs.get(), 0)));
  }
  SqliteStmt stmt = Prepare(db, PhotoAssetQuery(s, table));
  if (!stmt) {
    SetDatabaseError(path, sqlite3_errmsg(db));
    return nullptr;
  }
  const auto albums = AlbumsByAsset(db, s);

  PlistPtr result(NewTrackListResult());
  plist_t items = ListItems(result.get());
  uint64_t total = 0;
  const DeviceCall call(device, PolicyOf("ReadCameraDbTypeSQLITE"));
  const auto folders = ListFolders(call.afc(), wanted);
  static const Names kNone;
  Asset a;
  int rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    sqlite3_stmt *row = stmt.get();
    a.pk = sqlite3_column_int64(row, 0);
    a.directory = FolderOf(ColumnText(row, 1));
    a.file = ColumnText(row, 2);
    // A name that would leave its folder is no file of the roll.
    if (a.file.empty() || a.file.find('/') != std::string::npos || a.file == "." || a.file == "..") continue;
    a.path = a.directory + "/" + a.file;
    a.kind = sqlite3_column_int64(row, 3);
    a.subtype = sqlite3_column_int64(row, 4);
    a.taken = Number(row, 5);
    a.width = static_cast<uint64_t>(Number(row, 6));
    a.height = static_cast<uint64_t>(Number(row, 7));
    a.duration = Number(row, 8);
    a.size = static_cast<uint64_t>(Number(row, 9));

    const auto folder = folders.find(a.directory);
    const Names &names = folder != folders.end() ? folder->second : kNone;
    const bool local = names.count(a.file) != 0;
    uint64_t bytes = local ? a.size : 0;
    if (local && bytes == 0) {
      // The database did not say; the device does.
      const KeepReason quiet;
      FileInfo info(tarn::GetFileInfo(call.afc(), a.path.c_str()));
      if (info && info.get()[TARN_INFO_SIZE]) bytes = DeviceNumber(info.get()[TARN_INFO_SIZE]);
    }
    const int64_t unix_time = a.taken > 0 ? static_cast<int64_t>(a.taken + kLibraryEpoch) : 0;
    plist_t item = plist_new_dict();
    plist_array_append_item(items, item);
    plist_dict_set_item(item, "size", plist_new_uint(bytes));
    InsertPlistDictString(item, "path", a.path.c_str());
    InsertPlistDictString(item, "time", unix_time > 0 ? PictureTime(static_cast<int32_t>(unix_time)).c_str() : "");
    plist_dict_set_item(item, "taken", plist_new_uint(static_cast<uint64_t>(unix_time)));
    plist_dict_set_item(item, "kind", plist_new_string(KindName(a)));
    plist_dict_set_item(item, "width", plist_new_uint(a.width));
    plist_dict_set_item(item, "height", plist_new_uint(a.height));
    plist_dict_set_item(item, "duration", plist_new_uint(static_cast<uint64_t>(a.duration * 1000.0)));
    InsertPlistDictString(item, "live_video", a.subtype == kLivePhoto && local ? LiveVideo(a, names).c_str() : "");
    plist_t album_names = plist_new_array();
    if (auto it = albums.find(a.pk); it != albums.end())
      for (const std::string &title : it->second) plist_array_append_item(album_names, plist_new_string(title.c_str()));
    plist_dict_set_item(item, "albums", album_names);
    InsertPlistDictString(item, "thumbnail", (std::string(kThumbnails) + a.path + "/5005.JPG").c_str());
    plist_dict_set_item(item, "cloud", plist_new_bool(!local));
    total += bytes;
  }
  // Rows handed over before a failure are kept, with the reason.
  if (rc != SQLITE_DONE) {
    SetDatabaseError(path, sqlite3_errmsg(db));
    if (plist_array_get_size(items) == 0) return nullptr;
  }
  AddToListCounts(result.get(), plist_array_get_size(items), total);
  return result.release();
}

}  // namespace tarn
