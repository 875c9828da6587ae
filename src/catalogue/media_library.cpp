// The music library of phones since iOS 5: the local copy of
// MediaLibrary.sqlitedb, read with SQLite. The schema moved between
// releases (playlist membership, where the date added lives, whole tables
// came and went), so every query is built from what the database says it
// holds, never from a version number. Every value is the phone's word and
// is checked before it is used.
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/raii.h"
#include "common/sqlite_schema.h"
#include "tarn/tarn_device.h"

namespace {

// The library's media_type bits (not the public MPMediaType values). An
// item may carry several: a music video is a song too, a video podcast a
// podcast, so kinds are told apart by bit tests in a fixed order.
constexpr int64_t kAudiobookBit = 0x2, kPodcastBit = 0x4, kSongBit = 0x8, kVoiceMemoBit = 0x10,
                  kITunesUBit = 0x20, kVideoPodcastBit = 0x100, kTvShowBit = 0x200, kMusicVideoBit = 0x400,
                  kMovieBit = 0x800, kITunesUVideoBit = 0x1000, kHomeVideoBit = 0x2000;
// Ringtones have no bit of their own: they are the files in this folder.
constexpr const char *kRingtoneFolder = "/iTunes_Control/Ringtones/";
// The library counts time in seconds since 2001-01-01 UTC.
constexpr int64_t kLibraryEpoch = 978307200;
// Synced files live in iTunes_Control/Music/F00 ... F49, whose base
// locations are 3840 + n; used only when the base_location row is missing.
constexpr int64_t kFirstMusicFolder = 3840, kMusicFolders = 50;

// A count, size or time the phone gave: negative, not a number or absurdly
// large values count as unknown (0).
uint64_t Count(sqlite3_stmt *stmt, int column) {
  if (sqlite3_column_type(stmt, column) == SQLITE_INTEGER) {
    const int64_t v = sqlite3_column_int64(stmt, column);
    return v > 0 ? static_cast<uint64_t>(v) : 0;
  }
  const double v = sqlite3_column_double(stmt, column);
  if (!(v > 0) || v >= 9.0e18) return 0;
  return static_cast<uint64_t>(v);
}

std::string Trimmed(const char *text) {
  std::string out = text;
  while (!out.empty() && out.front() == '/') out.erase(out.begin());
  while (!out.empty() && out.back() == '/') out.pop_back();
  return out;
}

// The columns of the track query, in their order.
enum Col {
  kPid, kMediaType, kTitle, kArtist, kAlbum, kGenre, kTime, kSize, kBaseId, kBasePath, kLocation, kRating,
  kPlays, kAlbumArtist, kComposer, kTrack, kDisc, kYear, kDateAdded, kPurchased, kArtwork
};

// Where the artwork the phone keeps for its library lies on the media partition.
constexpr const char *kArtworkFolder = "/iTunes_Control/iTunes/Artwork/Originals/";

// A scalar subquery: the file name, relative to the artwork folder, of the
// cover of the item whose pid is the SQL expression `pid`, or NULL. Newer
// libraries name, per entity (a track is entity type 0) and kind of
// artwork (1, the cover), the token of the artwork the phone has, and the
// artwork row of that token names the file. Older ones (the 2015 schema)
// give an item an artwork_cache_id that artwork_info maps to a format, an
// offset and a length: into which file, nothing that is published says, so
// their items have no artwork rather than one guessed at.
std::string ArtworkQuery(tarn::SqliteSchema &s, const std::string &pid) {
  const char *token = s.HasColumn("best_artwork_token", "available_artwork_token") ? "available_artwork_token"
                      : s.HasColumn("best_artwork_token", "artwork_token")         ? "artwork_token"
                                                                                   : nullptr;
  if (token == nullptr || !s.HasColumn("best_artwork_token", "entity_pid") ||
      !s.HasColumn("artwork", "artwork_token") || !s.HasColumn("artwork", "relative_path"))
    return "NULL";
  std::string where = "b.entity_pid = " + pid;
  if (s.HasColumn("best_artwork_token", "entity_type")) where += " AND b.entity_type = 0";
  if (s.HasColumn("best_artwork_token", "artwork_type")) where += " AND b.artwork_type = 1";
  // Of several variants of one cover, the plain one (variant 0) first.
  const std::string order =
      s.HasColumn("best_artwork_token", "artwork_variant_type") ? " ORDER BY b.artwork_variant_type" : "";
  return std::string("(SELECT aw.relative_path FROM best_artwork_token b JOIN artwork aw ON aw.artwork_token = b.") +
         token + " WHERE " + where + " AND aw.relative_path <> ''" + order + " LIMIT 1)";
}

}  // namespace

std::string tarn::ArtworkDevicePath(const std::string &relative) {
  // The name comes from the phone's database: it must name a file inside
  // the artwork folder, never a path that climbs out of it or starts anew.
  if (relative.empty() || relative.size() > 1024 || relative.front() == '/') return "";
  for (size_t at = 0; at <= relative.size();) {
    size_t slash = relative.find('/', at);
    if (slash == std::string::npos) slash = relative.size();
    const std::string_view part(relative.data() + at, slash - at);
    if (part.empty() || part == "." || part == "..") return "";
    at = slash + 1;
  }
  return kArtworkFolder + relative;
}

std::string tarn::LibraryTrackQuery(tarn::SqliteSchema &s) {
  std::string joins;
  // alias -> whether its table is joined; a table that is not joined gives NULL.
  auto join = [&](const char *alias, const char *table, const char *key, const char *item_column) {
    if (!s.HasColumn(table, key) || !s.HasColumn("item", item_column)) return false;
    joins += std::string(" LEFT JOIN ") + table + " " + alias + " ON " + alias + "." + key + " = i." + item_column;
    return true;
  };
  auto field = [&](bool joined, const char *alias, const char *table, const char *column) {
    return joined ? s.Column(alias, table, column) : std::string("NULL");
  };
  const bool stats = join("st", "item_stats", "item_pid", "item_pid");
  const bool artist = join("ia", "item_artist", "item_artist_pid", "item_artist_pid");
  const bool album = join("al", "album", "album_pid", "album_pid");
  const bool genre = join("g", "genre", "genre_id", "genre_id");
  const bool base = join("bl", "base_location", "base_location_id", "base_location_id");
  const bool album_artist = join("aa", "album_artist", "album_artist_pid", "album_artist_pid");
  const bool composer = join("c", "composer", "composer_pid", "composer_pid");
  const bool store = join("so", "item_store", "item_pid", "item_pid");
  // Newer libraries keep the date added on the item, older ones as the
  // extra row's creation date.
  const std::string date_added =
      s.HasColumn("item", "date_added") ? "i.date_added" : s.Column("e", "item_extra", "date_created");
  std::string purchased = "0";
  if (store) {
    purchased.clear();
    for (const char *column : {"purchase_history_id", "is_ota_purchased"}) {
      if (!s.HasColumn("item_store", column)) continue;
      purchased += std::string(purchased.empty() ? "" : " OR ") + "COALESCE(so." + column + ", 0) <> 0";
    }
    if (purchased.empty()) purchased = "0";
  }
  const std::string fields[] = {
      "i.item_pid",
      s.Column("i", "item", "media_type"),
      s.Column("e", "item_extra", "title"),
      field(artist, "ia", "item_artist", "item_artist"),
      field(album, "al", "album", "album"),
      field(genre, "g", "genre", "genre"),
      s.Column("e", "item_extra", "total_time_ms"),
      s.Column("e", "item_extra", "file_size"),
      s.Column("i", "item", "base_location_id"),
      field(base, "bl", "base_location", "path"),
      s.Column("e", "item_extra", "location"),
      field(stats, "st", "item_stats", "user_rating"),
      field(stats, "st", "item_stats", "play_count_user"),
      field(album_artist, "aa", "album_artist", "album_artist"),
      field(composer, "c", "composer", "composer"),
      s.Column("i", "item", "track_number"),
      s.Column("i", "item", "disc_number"),
      s.Column("e", "item_extra", "year"),
      date_added,
      "(" + purchased + ")",
      ArtworkQuery(s, "i.item_pid"),
  };
  std::string sql = "SELECT ";
  for (size_t i = 0; i < std::size(fields); ++i) sql += (i ? ", " : "") + fields[i];
  // The database's own order is that of its random ids; a person expects
  // artists, their albums and the albums' tracks, unknown artists last.
  const std::string &artist_name = fields[kArtist], &album_name = fields[kAlbum];
  return sql + " FROM item i JOIN item_extra e ON e.item_pid = i.item_pid" + joins + " ORDER BY (" + artist_name +
         " IS NULL OR " + artist_name + " = ''), " + artist_name + " COLLATE NOCASE, " + album_name +
         " COLLATE NOCASE, " + fields[kDisc] + ", " + fields[kTrack] + ", " + fields[kTitle] +
         " COLLATE NOCASE, i.item_pid";
}

namespace {

// Where an item's file is on the media partition, or "" when the phone
// has no file for it (a cloud item, or one not yet downloaded).
std::string ItemPath(sqlite3_stmt *stmt) {
  const int64_t base_id = sqlite3_column_int64(stmt, kBaseId);
  const std::string location = Trimmed(tarn::ColumnText(stmt, kLocation));
  if (base_id == 0 || location.empty() || Count(stmt, kSize) == 0) return "";
  std::string base;
  if (sqlite3_column_type(stmt, kBasePath) != SQLITE_NULL) {
    base = Trimmed(tarn::ColumnText(stmt, kBasePath));
  } else if (base_id >= kFirstMusicFolder && base_id < kFirstMusicFolder + kMusicFolders) {
    char folder[40];
    std::snprintf(folder, sizeof folder, "iTunes_Control/Music/F%02d", static_cast<int>(base_id - kFirstMusicFolder));
    base = folder;
  } else {
    return "";
  }
  return "/" + (base.empty() ? location : base + "/" + location);
}

// Reads the library at a host path, row by row.
class Library {
 public:
  explicit Library(const char *path) : path_(path ? path : ""), db_(tarn::OpenDatabaseCopy(path)), schema_(db_.get()) {}
  explicit operator bool() const { return db_ != nullptr; }
  tarn::SqliteSchema &schema() { return schema_; }
  sqlite3 *db() const { return db_.get(); }

  // Calls visit for every item, in the database's order. False, with the
  // reason recorded, when the library cannot be read; rows handed over
  // before a failure stay handed over.
  bool ForEach(const std::function<void(const tarn::LibraryTrack &)> &visit) {
    if (!schema_.HasColumn("item", "item_pid") || !schema_.HasColumn("item_extra", "item_pid")) {
      tarn::SetDatabaseError(path_.c_str(), "it has no item or item_extra table, so it is no music library");
      return false;
    }
    tarn::SqliteStmt stmt = tarn::Prepare(db_.get(), tarn::LibraryTrackQuery(schema_));
    if (!stmt) return Failed();
    tarn::LibraryTrack t;
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
      sqlite3_stmt *row = stmt.get();
      t.id = static_cast<uint64_t>(sqlite3_column_int64(row, kPid));
      t.media_type = sqlite3_column_int64(row, kMediaType);
      t.path = ItemPath(row);
      t.cloud = t.path.empty();
      t.size = t.cloud ? 0 : Count(row, kSize);
      t.title = tarn::ColumnText(row, kTitle);
      t.time = Count(row, kTime);
      t.artist = tarn::ColumnText(row, kArtist);
      t.album = tarn::ColumnText(row, kAlbum);
      t.genre = tarn::ColumnText(row, kGenre);
      t.rating = std::min<uint64_t>(Count(row, kRating), 100);
      t.plays = Count(row, kPlays);
      t.album_artist = tarn::ColumnText(row, kAlbumArtist);
      t.composer = tarn::ColumnText(row, kComposer);
      t.track = Count(row, kTrack);
      t.disc = Count(row, kDisc);
      t.year = Count(row, kYear);
      const uint64_t added = Count(row, kDateAdded);
      t.date_added = added ? added + kLibraryEpoch : 0;
      t.purchased = sqlite3_column_int64(row, kPurchased) != 0;
      t.artwork = tarn::ArtworkDevicePath(tarn::ColumnText(row, kArtwork));
      visit(t);
    }
    return rc == SQLITE_DONE || Failed();
  }

  // The relative name of an item's cover as the library holds it ("" when
  // it names none), in *relative. False when the library holds no such
  // item or cannot be read, with the reason recorded.
  bool ArtworkOf(uint64_t id, std::string *relative) {
    if (!schema_.HasColumn("item", "item_pid")) {
      tarn::SetDatabaseError(path_.c_str(), "it has no item table, so it is no music library");
      return false;
    }
    tarn::SqliteStmt stmt =
        tarn::Prepare(db_.get(), "SELECT " + ArtworkQuery(schema_, "i.item_pid") + " FROM item i WHERE i.item_pid = ?");
    if (!stmt) return Failed();
    sqlite3_bind_int64(stmt.get(), 1, static_cast<int64_t>(id));
    const int rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_DONE) {
      tarn::SetError(TARN_E_NOT_FOUND, "The music library holds no track with the id " + std::to_string(id) + ".");
      return false;
    }
    if (rc != SQLITE_ROW) return Failed();
    *relative = tarn::ColumnText(stmt.get(), 0);
    return true;
  }

  bool Failed() const {
    tarn::SetDatabaseError(path_.c_str(), sqlite3_errmsg(db_.get()));
    return false;
  }

 private:
  std::string path_;
  tarn::SqliteDb db_;
  tarn::SqliteSchema schema_;
};

enum class PlaylistKind { kLibrary, kFolder, kGenius, kSmart, kBuiltIn, kUser };

const char *NameOf(PlaylistKind kind) {
  switch (kind) {
    case PlaylistKind::kLibrary: return "library";
    case PlaylistKind::kFolder: return "folder";
    case PlaylistKind::kGenius: return "genius";
    case PlaylistKind::kSmart: return "smart";
    case PlaylistKind::kBuiltIn: return "builtin";
    case PlaylistKind::kUser: return "user";
  }
  return "user";
}

struct Container {
  int64_t pid = 0;
  std::string name;
  int64_t parent = 0;
  PlaylistKind kind = PlaylistKind::kUser;
  std::vector<int64_t> members;
};

// Playlist membership, in playlist order: newer libraries keep one row per
// member with its position (a track may appear twice), older ones one row
// per playlist with the members' ids packed as little-endian 64-bit values.
bool ReadMembers(Library &library, std::unordered_map<int64_t, Container *> &by_pid) {
  tarn::SqliteSchema &s = library.schema();
  tarn::SqliteStmt stmt;
  const bool rows = s.HasColumn("container_item", "container_pid") && s.HasColumn("container_item", "item_pid");
  if (rows) {
    const std::string order = s.HasColumn("container_item", "position") ? "position" : "rowid";
    stmt = tarn::Prepare(library.db(), "SELECT container_pid, item_pid FROM container_item ORDER BY container_pid, " +
                                           order + ", rowid");
  } else if (s.HasColumn("container_items", "item_pid_data")) {
    stmt = tarn::Prepare(library.db(), "SELECT container_pid, item_pid_data FROM container_items");
  } else {
    return true;  // playlists without members
  }
  if (!stmt) return library.Failed();
  int rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    auto it = by_pid.find(sqlite3_column_int64(stmt.get(), 0));
    if (it == by_pid.end()) continue;
    std::vector<int64_t> &members = it->second->members;
    if (rows) {
      members.push_back(sqlite3_column_int64(stmt.get(), 1));
      continue;
    }
    const auto *data = static_cast<const unsigned char *>(sqlite3_column_blob(stmt.get(), 1));
    const int bytes = sqlite3_column_bytes(stmt.get(), 1);
    for (int at = 0; data != nullptr && at + 8 <= bytes; at += 8) {
      uint64_t v = 0;
      for (int b = 7; b >= 0; --b) v = (v << 8) | data[at + b];
      members.push_back(static_cast<int64_t>(v));
    }
  }
  return rc == SQLITE_DONE || library.Failed();
}

}  // namespace

namespace tarn {

uint32_t LibraryKindOf(int64_t media_type, const std::string &path) {
  if (path.rfind(kRingtoneFolder, 0) == 0) return kRingtoneKind;
  if (media_type & (kPodcastBit | kVideoPodcastBit | kITunesUBit | kITunesUVideoBit)) return kPodcastKind;
  if (media_type & kAudiobookBit) return kAudioBookKind;
  if (media_type & kTvShowBit) return kTvShowKind;
  if (media_type & (kMovieBit | kHomeVideoBit)) return kMovieKind;
  if (media_type & (kSongBit | kMusicVideoBit)) return kMusicKind;
  if (media_type & kVoiceMemoBit) return kVoiceMemoKind;
  // Booklets (type 0) and kinds the library does not know belong to no list.
  return kNoKind;
}

plist_t ReadTrackDbTypeSQLITE(const char *path, uint32_t kind) {
  Library library(path);
  if (!library) return nullptr;
  tarn::PlistPtr result(tarn::NewTrackListResult());
  plist_t items = tarn::ListItems(result.get());
  uint64_t count = 0, total = 0, seen = 0;
  const bool read = library.ForEach([&](const LibraryTrack &t) {
    ++seen;
    if (LibraryKindOf(t.media_type, t.path) != kind) return;
    plist_array_append_item(items, tarn::MediaItemFromLibrary(t));
    total += t.size;
    ++count;
  });
  // A library that could not be read at all, or holds nothing, is no list.
  if ((!read && count == 0) || seen == 0) return nullptr;
  tarn::AddToListCounts(result.get(), count, total);
  return result.release();
}

std::map<uint32_t, uint64_t> ReadLibraryTotalsSQLITE(const char *path) {
  std::map<uint32_t, uint64_t> totals;
  Library library(path);
  if (library) library.ForEach([&](const LibraryTrack &t) { totals[LibraryKindOf(t.media_type, t.path)] += t.size; });
  return totals;
}

bool ReadLibraryArtwork(const char *path, uint64_t id, std::string *relative) {
  Library library(path);
  return library && library.ArtworkOf(id, relative);
}

plist_t ReadRecordingsFromLibrarySQLITE(const char *path) {
  Library library(path);
  if (!library) return nullptr;
  tarn::PlistPtr result(tarn::NewTrackListResult());
  plist_t items = tarn::ListItems(result.get());
  uint64_t count = 0, total = 0;
  library.ForEach([&](const LibraryTrack &t) {
    if (t.cloud || LibraryKindOf(t.media_type, t.path) != kVoiceMemoKind) return;
    plist_t item = plist_new_dict();
    plist_dict_set_item(item, "id", plist_new_uint(t.id));
    tarn::InsertPlistDictString(item, "path", t.path.c_str());
    tarn::InsertPlistDictString(item, "title", t.title);
    plist_dict_set_item(item, "time", plist_new_uint(t.time));
    plist_dict_set_item(item, "size", plist_new_uint(t.size));
    tarn::InsertPlistDictString(item, "name", t.title);
    plist_array_append_item(items, item);
    total += t.size;
    ++count;
  });
  if (count == 0) return nullptr;
  tarn::AddToListCounts(result.get(), count, total);
  return result.release();
}

plist_t ReadPlaylistDbTypeSQLITE(const char *path) {
  Library library(path);
  if (!library) return nullptr;
  tarn::SqliteSchema &s = library.schema();
  if (!s.HasColumn("container", "container_pid")) {
    tarn::SetDatabaseError(path, "it has no playlist table");
    return nullptr;
  }
  std::unordered_map<int64_t, tarn::PlistPtr> tracks;
  if (!library.ForEach([&](const LibraryTrack &t) {
        tracks[static_cast<int64_t>(t.id)].reset(tarn::MediaItemFromLibrary(t));
      }))
    return nullptr;

  // The whole-library playlist, named after the phone, is the one the
  // database names as its primary container.
  int64_t library_pid = 0;
  bool has_library = false;
  if (tarn::SqliteStmt stmt = tarn::Prepare(library.db(), "SELECT " + s.Column("d", "db_info", "primary_container_pid") +
                                                               " FROM db_info d LIMIT 1")) {
    if (sqlite3_step(stmt.get()) == SQLITE_ROW && sqlite3_column_type(stmt.get(), 0) != SQLITE_NULL) {
      library_pid = sqlite3_column_int64(stmt.get(), 0);
      has_library = true;
    }
  }
  const std::string criteria =
      s.HasColumn("container", "smart_criteria") ? "(c.smart_criteria IS NOT NULL)" : std::string("0");
  tarn::SqliteStmt stmt = tarn::Prepare(
      library.db(), "SELECT c.container_pid, " + s.Column("c", "container", "name") + ", " +
                        s.Column("c", "container", "parent_pid") + ", " + s.Column("c", "container", "distinguished_kind") +
                        ", " + s.Column("c", "container", "is_hidden") + ", " + criteria + ", " +
                        s.Column("c", "container", "smart_is_folder") + ", " + s.Column("c", "container", "smart_is_genius") +
                        ", " + s.Column("c", "container", "is_ignorable_itunes_playlist") +
                        " FROM container c ORDER BY " + s.Column("c", "container", "name") +
                        " COLLATE NOCASE, c.container_pid");
  if (!stmt) {
    library.Failed();
    return nullptr;
  }
  std::vector<Container> containers;
  int rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    sqlite3_stmt *row = stmt.get();
    Container c;
    c.pid = sqlite3_column_int64(row, 0);
    const bool is_library = has_library && c.pid == library_pid;
    // Hidden lists (the phone's own bookkeeping) and those the phone itself
    // would not show are no playlists for a person; the library list is
    // hidden too and is kept.
    if (!is_library && (sqlite3_column_int64(row, 4) != 0 || sqlite3_column_int64(row, 8) != 0)) continue;
    c.name = tarn::ColumnText(row, 1);
    c.parent = sqlite3_column_int64(row, 2);
    if (is_library) c.kind = PlaylistKind::kLibrary;
    else if (sqlite3_column_int64(row, 6) != 0) c.kind = PlaylistKind::kFolder;
    else if (sqlite3_column_int64(row, 7) != 0) c.kind = PlaylistKind::kGenius;
    else if (sqlite3_column_int64(row, 5) != 0) c.kind = PlaylistKind::kSmart;
    else if (sqlite3_column_int64(row, 3) != 0) c.kind = PlaylistKind::kBuiltIn;
    // The library list comes first, as in every music database, the others
  // by name as the phone shows them.
    if (is_library) containers.insert(containers.begin(), std::move(c));
    else containers.push_back(std::move(c));
  }
  if (rc != SQLITE_DONE) {
    library.Failed();
    return nullptr;
  }
  if (containers.empty()) return nullptr;
  std::unordered_map<int64_t, Container *> by_pid;
  for (Container &c : containers) by_pid[c.pid] = &c;
  if (!ReadMembers(library, by_pid)) return nullptr;

  tarn::PlistPtr result(plist_new_array());
  for (const Container &c : containers) {
    plist_t entry = plist_new_dict();
    plist_array_append_item(result.get(), entry);
    tarn::InsertPlistDictString(entry, "name", c.name.c_str());
    plist_t items = plist_new_array();
    for (int64_t member : c.members) {
      // A member the library does not hold (a dangling id) is left out.
      auto it = tracks.find(member);
      if (it != tracks.end()) plist_array_append_item(items, plist_copy(it->second.get()));
    }
    plist_dict_set_item(entry, "number", plist_new_uint(plist_array_get_size(items)));
    plist_dict_set_item(entry, "item", items);
    plist_dict_set_item(entry, "kind", plist_new_string(NameOf(c.kind)));
    auto parent = c.parent != 0 ? by_pid.find(c.parent) : by_pid.end();
    tarn::InsertPlistDictString(entry, "parent", parent != by_pid.end() ? parent->second->name.c_str() : "");
  }
  return result.release();
}

}  // namespace tarn

extern "C" {

TARN_API plist_t ReadTrackDbTypeSQLITE(const char *path, uint32_t kind) {
  const tarn::ApiCall api_call;
  return tarn::ReadTrackDbTypeSQLITE(path, kind);
}

TARN_API plist_t ReadPlaylistDbTypeSQLITE(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::ReadPlaylistDbTypeSQLITE(path);
}

}  // extern "C"
