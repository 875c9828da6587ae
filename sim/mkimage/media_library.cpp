// The music library of a current phone: /iTunes_Control/iTunes/
// MediaLibrary.sqlitedb in write-ahead-log mode, the newest tracks only in
// its -wal file, optionally with the stale iTunesCDB that phones keep
// beside it. The tables and column types follow a real device database; a
// subset of the columns is written, the ones a reader of tracks and
// playlists meets. Two generations are written: "rows" (playlist members as
// container_item rows, date_added and is_compilation on item) and "blob"
// (members packed into container_items, those fields on item_extra, and
// the virtual table that stock SQLite cannot read). The newer generation
// also carries album artwork: the artwork tables and the cover files under
// iTunes_Control/iTunes/Artwork/Originals.
#include <glib.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "image.h"
#include "names.h"
#include "sqlite_db.h"

namespace mkimage {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

// media_type bits of the phone's library (not the public MPMediaType).
constexpr int64_t kAudiobook = 0x2, kPodcast = 0x4, kSong = 0x8, kVideoPodcast = 0x100,
                  kTvShow = 0x200, kMusicVideo = 0x408, kMovie = 0x800, kHomeVideo = 0x2000;

constexpr int64_t kRingtoneLocation = 3900;

// Columns shared by both generations. Types and defaults as on devices.
constexpr const char *kCommonSchema = R"(
CREATE TABLE _MLDatabaseProperties (key TEXT PRIMARY KEY, value TEXT);
CREATE TABLE db_info (db_pid INTEGER PRIMARY KEY, primary_container_pid INTEGER, media_folder_url TEXT,
  audio_language INTEGER, subtitle_language INTEGER, genius_cuid TEXT, bib BLOB, rib BLOB);
CREATE TABLE base_location (base_location_id INTEGER PRIMARY KEY, path TEXT NOT NULL);
CREATE TABLE item_artist (item_artist_pid INTEGER PRIMARY KEY, item_artist TEXT NOT NULL DEFAULT '',
  sort_item_artist TEXT, series_name TEXT NOT NULL DEFAULT '', sort_series_name TEXT, grouping_key BLOB,
  cloud_status INTEGER NOT NULL DEFAULT 0, representative_item_pid INTEGER NOT NULL DEFAULT 0);
CREATE TABLE album_artist (album_artist_pid INTEGER PRIMARY KEY, album_artist TEXT NOT NULL DEFAULT '',
  sort_album_artist TEXT, grouping_key BLOB, cloud_status INTEGER NOT NULL DEFAULT 0,
  representative_item_pid INTEGER NOT NULL DEFAULT 0);
CREATE TABLE album (album_pid INTEGER PRIMARY KEY, album TEXT NOT NULL DEFAULT '', sort_album TEXT,
  album_artist_pid INTEGER NOT NULL DEFAULT 0, representative_item_pid INTEGER NOT NULL DEFAULT 0,
  grouping_key BLOB, cloud_status INTEGER NOT NULL DEFAULT 0, user_rating INTEGER NOT NULL DEFAULT 0,
  all_compilations INTEGER NOT NULL DEFAULT 0, feed_url TEXT, season_number INTEGER,
  album_year INTEGER NOT NULL DEFAULT 0);
CREATE TABLE genre (genre_id INTEGER PRIMARY KEY, genre TEXT NOT NULL UNIQUE, grouping_key BLOB,
  cloud_status INTEGER NOT NULL DEFAULT 0, representative_item_pid INTEGER NOT NULL DEFAULT 0);
CREATE TABLE composer (composer_pid INTEGER PRIMARY KEY, composer TEXT NOT NULL DEFAULT '', sort_composer TEXT,
  grouping_key BLOB, cloud_status INTEGER NOT NULL DEFAULT 0, representative_item_pid INTEGER NOT NULL DEFAULT 0);
CREATE TABLE container (container_pid INTEGER PRIMARY KEY, distinguished_kind INTEGER NOT NULL DEFAULT 0,
  date_created INTEGER NOT NULL DEFAULT 0, date_modified INTEGER NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '',
  name_order INTEGER NOT NULL DEFAULT 0, parent_pid INTEGER NOT NULL DEFAULT 0, media_kinds INTEGER NOT NULL DEFAULT 0,
  is_hidden INTEGER NOT NULL DEFAULT 0, description TEXT, smart_is_folder INTEGER NOT NULL DEFAULT 0,
  smart_is_dynamic INTEGER NOT NULL DEFAULT 0, smart_is_genius INTEGER NOT NULL DEFAULT 0,
  smart_enabled_only INTEGER NOT NULL DEFAULT 0, smart_is_limited INTEGER NOT NULL DEFAULT 0,
  smart_limit_kind INTEGER NOT NULL DEFAULT 0, smart_limit_value INTEGER NOT NULL DEFAULT 0, smart_criteria BLOB,
  play_order INTEGER NOT NULL DEFAULT 0, is_saveable INTEGER NOT NULL DEFAULT 0,
  contained_media_type INTEGER NOT NULL DEFAULT 0);
CREATE TABLE item_stats (item_pid INTEGER PRIMARY KEY, user_rating INTEGER DEFAULT 0,
  play_count_user INTEGER DEFAULT 0, play_count_recent INTEGER DEFAULT 0, has_been_played INTEGER DEFAULT 0,
  date_played INTEGER DEFAULT 0, date_skipped INTEGER DEFAULT 0, skip_count_user INTEGER DEFAULT 0,
  bookmark_time_ms REAL, hidden INTEGER DEFAULT 0);
CREATE TABLE item_store (item_pid INTEGER PRIMARY KEY, store_item_id INTEGER NOT NULL DEFAULT 0,
  store_genre_id INTEGER NOT NULL DEFAULT 0, storefront_id INTEGER NOT NULL DEFAULT 0,
  purchase_history_id INTEGER NOT NULL DEFAULT 0, store_saga_id INTEGER NOT NULL DEFAULT 0,
  sync_id INTEGER NOT NULL DEFAULT 0, account_id INTEGER NOT NULL DEFAULT 0, date_purchased INTEGER NOT NULL DEFAULT 0,
  date_released INTEGER NOT NULL DEFAULT 0, feed_url TEXT);
CREATE TABLE item_playback (item_pid INTEGER PRIMARY KEY, audio_format INTEGER NOT NULL DEFAULT 0,
  bit_rate INTEGER NOT NULL DEFAULT 0, codec_type INTEGER NOT NULL DEFAULT 0, duration INTEGER NOT NULL DEFAULT 0,
  has_video INTEGER NOT NULL DEFAULT 0, sample_rate REAL NOT NULL DEFAULT 0, start_time_ms REAL NOT NULL DEFAULT 0,
  stop_time_ms REAL NOT NULL DEFAULT 0);
CREATE TABLE item_video (item_pid INTEGER PRIMARY KEY, video_quality INTEGER NOT NULL DEFAULT 0,
  is_rental INTEGER NOT NULL DEFAULT 0, season_number INTEGER NOT NULL DEFAULT 0, episode_id TEXT NOT NULL DEFAULT '',
  network_name TEXT NOT NULL DEFAULT '', has_subtitles INTEGER NOT NULL DEFAULT 0);
CREATE TABLE container_item_media_type (container_pid INTEGER NOT NULL, media_type INTEGER NOT NULL,
  count INTEGER NOT NULL DEFAULT 0, UNIQUE(container_pid, media_type));
)";

// item and item_extra differ between the generations in where the date
// added and the compilation flag live.
constexpr const char *kItemColumns =
    "item_pid INTEGER PRIMARY KEY, media_type INTEGER NOT NULL DEFAULT 0, title_order INTEGER NOT NULL DEFAULT 0, "
    "item_artist_pid INTEGER NOT NULL DEFAULT 0, album_pid INTEGER NOT NULL DEFAULT 0, "
    "album_artist_pid INTEGER NOT NULL DEFAULT 0, composer_pid INTEGER NOT NULL DEFAULT 0, "
    "genre_id INTEGER NOT NULL DEFAULT 0, disc_number INTEGER DEFAULT 0, track_number INTEGER DEFAULT 0, "
    "episode_sort_id INTEGER DEFAULT 0, base_location_id INTEGER NOT NULL DEFAULT 0, "
    "remote_location_id INTEGER NOT NULL DEFAULT 0, exclude_from_shuffle INTEGER NOT NULL DEFAULT 0";
constexpr const char *kItemExtraColumns =
    "item_pid INTEGER PRIMARY KEY, title TEXT NOT NULL DEFAULT '', sort_title TEXT, disc_count INTEGER DEFAULT 0, "
    "track_count INTEGER DEFAULT 0, total_time_ms REAL NOT NULL DEFAULT 0, year INTEGER DEFAULT 0, "
    "location TEXT NOT NULL DEFAULT '', file_size INTEGER NOT NULL DEFAULT 0, integrity BLOB, "
    "date_modified INTEGER NOT NULL DEFAULT 0, media_kind INTEGER NOT NULL DEFAULT 0, "
    "content_rating INTEGER NOT NULL DEFAULT 0, bpm INTEGER DEFAULT 0, comment TEXT, grouping TEXT, "
    "description TEXT, copyright TEXT, location_kind_id INTEGER NOT NULL DEFAULT 0";

// Where the newer generation finds a track's cover: best_artwork_token
// names, per entity (a track is entity type 0) and artwork type (1, the
// cover), the token of the artwork the phone has; the artwork row of that
// token names its file below Artwork/Originals.
constexpr const char *kArtworkSchema = R"(
CREATE TABLE artwork (artwork_token TEXT NOT NULL DEFAULT '', artwork_source_type INTEGER NOT NULL DEFAULT 0,
  relative_path TEXT NOT NULL DEFAULT '', artwork_type INTEGER NOT NULL DEFAULT 0, interest_data BLOB,
  artwork_variant_type INTEGER NOT NULL DEFAULT 0, UNIQUE (artwork_token, artwork_source_type, artwork_variant_type));
CREATE TABLE artwork_token (artwork_token TEXT NOT NULL DEFAULT '', artwork_source_type INTEGER NOT NULL DEFAULT 0,
  artwork_type INTEGER NOT NULL DEFAULT 0, entity_pid INTEGER NOT NULL DEFAULT 0, entity_type INTEGER NOT NULL DEFAULT 0,
  artwork_variant_type INTEGER NOT NULL DEFAULT 0,
  UNIQUE (artwork_token, artwork_source_type, artwork_type, entity_pid, entity_type, artwork_variant_type));
CREATE TABLE best_artwork_token (entity_pid INTEGER NOT NULL DEFAULT 0, entity_type INTEGER NOT NULL DEFAULT 0,
  artwork_type INTEGER NOT NULL DEFAULT 0, available_artwork_token TEXT NOT NULL DEFAULT '',
  fetchable_artwork_token TEXT NOT NULL DEFAULT '', fetchable_artwork_source_type INTEGER NOT NULL DEFAULT 0,
  artwork_variant_type INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (entity_pid, entity_type, artwork_type, artwork_variant_type));
)";
constexpr const char *kArtworkFolder = "iTunes_Control/iTunes/Artwork/Originals";

std::string Schema(bool rows) {
  std::string s = kCommonSchema;
  if (rows) {
    s += std::string("CREATE TABLE item (") + kItemColumns +
         ", date_added INTEGER NOT NULL DEFAULT 0, date_downloaded INTEGER NOT NULL DEFAULT 0, "
         "is_compilation INTEGER NOT NULL DEFAULT 0, in_my_library INTEGER NOT NULL DEFAULT 0);\n";
    s += std::string("CREATE TABLE item_extra (") + kItemExtraColumns + ");\n";
    s += kArtworkSchema;
    s += "CREATE TABLE container_item (container_item_pid INTEGER PRIMARY KEY, container_pid INTEGER NOT NULL "
         "DEFAULT 0, item_pid INTEGER NOT NULL DEFAULT 0, position INTEGER NOT NULL DEFAULT 0, uuid TEXT NOT NULL "
         "DEFAULT '', position_uuid TEXT NOT NULL DEFAULT '', occurrence_id TEXT NOT NULL DEFAULT '');\n"
         "CREATE INDEX container_item_container_pid_position ON container_item (container_pid, position);\n";
  } else {
    s += std::string("CREATE TABLE item (") + kItemColumns + ");\n";
    s += std::string("CREATE TABLE item_extra (") + kItemExtraColumns +
         ", is_compilation INTEGER NOT NULL DEFAULT 0, date_created INTEGER NOT NULL DEFAULT 0);\n";
    s += "CREATE TABLE container_items (container_pid INTEGER PRIMARY KEY, item_pid_data BLOB);\n"
         "CREATE TABLE location_kind (location_kind_id INTEGER PRIMARY KEY, kind TEXT NOT NULL UNIQUE);\n";
  }
  return s;
}

// The phone's own module for this table is not in stock SQLite, so its
// schema row goes in by hand; anything that touches the table then fails
// with "no such module", as it does on a copy of a real library.
void AddForeignVirtualTable(SqliteDb &db) {
  db.Exec("PRAGMA writable_schema = ON");
  db.Exec("INSERT INTO sqlite_master (type, name, tbl_name, rootpage, sql) VALUES ('table', 'item_to_container', "
          "'item_to_container', 0, 'CREATE VIRTUAL TABLE item_to_container USING ML3ContainerItemToContainer "
          "(item_pid INTEGER NOT NULL DEFAULT 0, container_pid INTEGER NOT NULL DEFAULT 0, physical_order INTEGER "
          "NOT NULL DEFAULT 0,shuffle_order INTEGER NOT NULL DEFAULT 0)')");
  db.Exec("PRAGMA writable_schema = OFF");
}

std::string Str(const json &t, const char *key) {
  auto it = t.find(key);
  return it == t.end() || it->is_null() ? std::string() : it->get<std::string>();
}

template <typename T>
T Num(const json &t, const char *key, T fallback = 0) {
  auto it = t.find(key);
  return it == t.end() || it->is_null() ? fallback : it->get<T>();
}

// The base location a device folder is known by; the rest of the path is
// what item_extra.location holds.
int64_t BaseLocation(const std::string &dir) {
  if (dir == "Purchases") return 300;
  if (dir == "Podcasts") return 400;
  if (dir == "CloudAssets") return 200;
  if (dir == "LoFiCloudAssets") return 100;
  if (dir == "ManagedPurchases/TVApp") return 500;
  if (dir == "iTunes_Control/Ringtones") return kRingtoneLocation;
  const std::string music = "iTunes_Control/Music/F";
  if (dir.size() == music.size() + 2 && dir.compare(0, music.size(), music) == 0 &&
      std::isdigit(static_cast<unsigned char>(dir[music.size()])) &&
      std::isdigit(static_cast<unsigned char>(dir[music.size() + 1])))
    return 3840 + std::stoi(dir.substr(music.size()));
  throw std::runtime_error("no base location for the folder " + dir);
}

// The iTunes-style kind that item_extra.media_kind carries beside the bits.
int64_t MediaKind(int64_t media_type, int64_t base_location) {
  if (base_location == kRingtoneLocation) return 0x4000;
  if ((media_type & kMusicVideo) == kMusicVideo) return 32;
  if (media_type & kMovie) return 2;
  if (media_type & kTvShow) return 64;
  if (media_type & kHomeVideo) return 1024;
  if (media_type & kPodcast) return 4;
  if (media_type & kAudiobook) return 8;
  return media_type ? 1 : 0;
}

// The same kinds in libgpod's numbering, for the stale iTunesCDB.
uint32_t GpodMediaType(int64_t media_type, int64_t base_location) {
  if (base_location == kRingtoneLocation) return 0x4000;
  if ((media_type & kMusicVideo) == kMusicVideo) return 0x20;
  if (media_type & (kMovie | kHomeVideo)) return 0x2;
  if (media_type & kTvShow) return 0x40;
  if (media_type & kVideoPodcast) return 0x6;
  if (media_type & kPodcast) return 0x4;
  if (media_type & kAudiobook) return 0x8;
  return 0x1;
}

bool IsVideo(int64_t media_type) { return (media_type & 0xff00) != 0; }

// Tracks of every kind, the same for the same seed; `cloud` of them have
// no file on the phone.
json Generate(const json &g) {
  using namespace names;
  static const char *kComposers[] = {"J. S. Bach", "Clara Ostrowski", "Ennio Varga", "M. Delacroix"};
  static const char *kShows[] = {"The Lantern Files", "Harbour Street", "Small Machines"};
  static const char *kNetworks[] = {"Northwind TV", "Channel Eleven"};
  // Kind shares out of 20: most is music, then one or two of each other
  // kind; ringtones carry the song bit and are told apart by their folder.
  static const struct {
    int64_t type;
    const char *genre;
    const char *ext;
    const char *folder;  // nullptr: iTunes_Control/Music/Fnn
  } kKinds[] = {{kSong, nullptr, "m4a", nullptr},       {kSong, nullptr, "mp3", nullptr},
                {kSong, nullptr, "m4a", nullptr},       {kSong, nullptr, "m4a", "Purchases"},
                {kSong, nullptr, "mp3", nullptr},       {kSong, nullptr, "m4a", nullptr},
                {kMusicVideo, nullptr, "m4v", nullptr}, {kSong, nullptr, "mp3", nullptr},
                {kMovie, "Drama", "m4v", nullptr},      {kSong, nullptr, "m4a", nullptr},
                {kTvShow, "TV Show", "m4v", nullptr},   {kPodcast, "Podcast", "mp3", "Podcasts"},
                {kSong, "Classical", "m4a", nullptr},   {kVideoPodcast | kPodcast, "Podcast", "m4v", "Podcasts"},
                {kAudiobook, "Audiobook", "m4b", nullptr}, {kSong, nullptr, "m4a", nullptr},
                {kSong, "Ringtone", "m4r", "iTunes_Control/Ringtones"}, {kHomeVideo, "Home Video", "mov", nullptr},
                {kAudiobook, "Audiobook", "m4b", nullptr}, {kSong, nullptr, "mp3", nullptr}};
  const int count = g.value("tracks", 0);
  const int cloud = std::min(g.value("cloud", 0), count);
  const bool files = g.value("files", false);
  const bool covers = g.value("artwork", false);
  std::mt19937 rng(g.value("seed", 1u));
  auto pick = [&](auto &array) { return array[rng() % std::size(array)]; };
  auto letters = [&] {
    std::string s;
    for (int k = 0; k < 4; ++k) s += static_cast<char>('A' + rng() % 26);
    return s;
  };
  // Cloud items spread over the library, none of them a ringtone.
  std::set<int> cloud_at;
  for (int c = 0; c < cloud; ++c) {
    int at = static_cast<int>((static_cast<int64_t>(c) * 2 + 1) * count / (2 * cloud));
    auto ringtone_at = [&](int n) {
      const char *genre = kKinds[n % std::size(kKinds)].genre;
      return genre && std::string_view(genre) == "Ringtone";
    };
    while (cloud_at.count(at) || ringtone_at(at))
      at = (at + 1) % count;
    cloud_at.insert(at);
  }
  json tracks = json::array();
  for (int i = 0; i < count; ++i) {
    const auto &kind = kKinds[i % std::size(kKinds)];
    const bool video = IsVideo(kind.type);
    const bool ringtone = kind.genre && std::string_view(kind.genre) == "Ringtone";
    const uint32_t seconds = ringtone ? 30 : video ? 1200 + rng() % 4000 : (kind.type & kAudiobook) ? 3600 + rng() % 20000
                                                                                                 : 120 + rng() % 300;
    std::string id = "m";
    id += std::to_string(i);
    const std::string artist = pick(kArtists);
    const bool compilation = kind.type == kSong && i % 20 == 9;
    json t = {{"id", id},
              {"title", std::string(pick(kWords)) + " " + pick(kWords)},
              {"artist", artist},
              {"album", compilation ? std::string("Summer Collection") : std::string(pick(kAlbums))},
              {"album_artist", compilation ? std::string("Various Artists") : artist},
              {"genre", kind.genre ? kind.genre : pick(kGenres)},
              {"track_number", i % 12 + 1},
              {"track_count", 12},
              {"disc_number", 1},
              {"disc_count", 1},
              {"year", 1985 + static_cast<int>(rng() % 39)},
              {"length_ms", static_cast<int64_t>(seconds) * 1000 + rng() % 1000},
              {"size", static_cast<uint64_t>(seconds) * (video ? 250000 : 32000)},
              {"media_type", kind.type},
              {"play_count", rng() % 40},
              {"rating", (rng() % 6) * 20},
              // Added in order, the last ones newest.
              {"date_added", 1672531200 + static_cast<int64_t>(i) * 6 * 3600}};
    if (compilation) t["compilation"] = true;
    // Two albums in three have a cover, a JPEG or a PNG, shared by their
    // songs; compilations have none.
    if (covers && kind.type == kSong && !compilation && !kind.folder) {
      const auto album = std::find_if(std::begin(kAlbums), std::end(kAlbums),
                                      [&](const char *a) { return t["album"] == a; });
      const auto at = album - std::begin(kAlbums);
      if (at % 3 != 2) t["artwork"] = at % 3 == 0 ? "jpeg" : "png";
    }
    if (kind.genre && std::string_view(kind.genre) == "Classical") t["composer"] = pick(kComposers);
    if (kind.type == kTvShow) {
      t["series"] = pick(kShows);
      t["season"] = 1 + static_cast<int>(rng() % 3);
      t["episode_id"] = "E" + std::to_string(1 + i % 10);
      t["network"] = pick(kNetworks);
    }
    const std::string l = letters();
    if (!cloud_at.count(i)) {
      if (!kind.folder) {
        char path[64];
        std::snprintf(path, sizeof path, "iTunes_Control/Music/F%02d/%s%d.%s", i % 50, l.c_str(), i, kind.ext);
        t["location"] = path;
      } else if (std::string_view(kind.folder) == "Purchases") {
        const uint64_t store_id = 1400000000ULL + static_cast<uint64_t>(i) * 7919;
        t["location"] = "Purchases/" + std::to_string(store_id) + "." + kind.ext;
        t["purchased"] = true;
      } else {
        t["location"] = std::string(kind.folder) + "/" + l + std::to_string(i) + "." + kind.ext;
      }
      t["file"] = files;
    }
    tracks.push_back(std::move(t));
  }
  return tracks;
}

struct Playlist {
  std::string name;
  int64_t pid = 0;
  std::vector<size_t> members;  // indexes into the tracks
};

// Packs item pids as the older generation stores playlist members:
// little-endian signed 64-bit values in playlist order.
Blob PackPids(const std::vector<int64_t> &pids) {
  Blob out;
  out.reserve(pids.size() * 8);
  for (int64_t pid : pids) {
    const auto v = static_cast<uint64_t>(pid);
    for (int b = 0; b < 8; ++b) out.push_back(static_cast<uint8_t>(v >> (8 * b)));
  }
  return out;
}

// Writes the rows of one track. Entity tables (artists, albums, ...) get
// their row the first time a track names them, so that names that only
// WAL tracks use are WAL-only too.
class LibraryWriter {
 public:
  LibraryWriter(SqliteDb &db, bool rows, PidSource &pids, const fs::path &media)
      : db_(db), rows_(rows), pids_(pids), media_(media),
        item_(db, rows ? "INSERT INTO item (item_pid, media_type, item_artist_pid, album_pid, album_artist_pid, "
                         "composer_pid, genre_id, disc_number, track_number, episode_sort_id, base_location_id, "
                         "remote_location_id, date_added, is_compilation, in_my_library) VALUES "
                         "(?,?,?,?,?,?,?,?,?,?,?,?,?,?,1)"
                       : "INSERT INTO item (item_pid, media_type, item_artist_pid, album_pid, album_artist_pid, "
                         "composer_pid, genre_id, disc_number, track_number, episode_sort_id, base_location_id, "
                         "remote_location_id) VALUES (?,?,?,?,?,?,?,?,?,?,?,?)"),
        extra_(db, rows ? "INSERT INTO item_extra (item_pid, title, sort_title, disc_count, track_count, "
                          "total_time_ms, year, location, file_size, date_modified, media_kind, location_kind_id) "
                          "VALUES (?,?,?,?,?,?,?,?,?,?,?,?)"
                        : "INSERT INTO item_extra (item_pid, title, sort_title, disc_count, track_count, "
                          "total_time_ms, year, location, file_size, date_modified, media_kind, location_kind_id, "
                          "date_created, is_compilation) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?)"),
        stats_(db, "INSERT INTO item_stats (item_pid, user_rating, play_count_user, play_count_recent, "
                   "has_been_played, date_played, hidden) VALUES (?,?,?,?,?,?,?)"),
        store_(db, "INSERT INTO item_store (item_pid, store_item_id, purchase_history_id, store_saga_id, sync_id, "
                   "storefront_id, date_purchased) VALUES (?,?,?,?,?,?,?)"),
        playback_(db, "INSERT INTO item_playback (item_pid, audio_format, bit_rate, duration, has_video, "
                      "sample_rate, stop_time_ms) VALUES (?,?,?,?,?,?,?)"),
        video_(db, "INSERT INTO item_video (item_pid, season_number, episode_id, network_name) VALUES (?,?,?,?)") {
    if (!rows) return;
    artwork_.emplace(db, "INSERT INTO artwork (artwork_token, artwork_source_type, relative_path, artwork_type) "
                         "VALUES (?,1,?,1)");
    artwork_token_.emplace(db, "INSERT INTO artwork_token (artwork_token, artwork_source_type, artwork_type, "
                               "entity_pid, entity_type) VALUES (?,1,1,?,0)");
    best_artwork_.emplace(db, "INSERT INTO best_artwork_token (entity_pid, entity_type, artwork_type, "
                              "available_artwork_token, fetchable_artwork_token, fetchable_artwork_source_type) "
                              "VALUES (?,0,1,?,?,1)");
  }

  void AddTrack(const json &t, int64_t pid, int64_t base_location, const std::string &location) {
    const int64_t media_type = Num<int64_t>(t, "media_type", kSong);
    const std::string artist = Str(t, "artist"), series = Str(t, "series");
    const std::string album_artist = t.contains("album_artist") ? Str(t, "album_artist") : artist;
    const int64_t artist_pid = Named(artists_, {artist, series}, [&](int64_t p) {
      Statement(db_, "INSERT INTO item_artist (item_artist_pid, item_artist, sort_item_artist, series_name, "
                     "representative_item_pid) VALUES (?,?,?,?,?)")
          .Run(p, artist, artist, series, pid);
    });
    const int64_t album_artist_pid = Named(album_artists_, album_artist, [&](int64_t p) {
      Statement(db_, "INSERT INTO album_artist (album_artist_pid, album_artist, sort_album_artist, "
                     "representative_item_pid) VALUES (?,?,?,?)")
          .Run(p, album_artist, album_artist, pid);
    });
    const std::string album = Str(t, "album");
    const bool compilation = t.value("compilation", false);
    const int64_t album_pid = Named(albums_, {album, album_artist}, [&](int64_t p) {
      Statement(db_, "INSERT INTO album (album_pid, album, sort_album, album_artist_pid, representative_item_pid, "
                     "all_compilations, album_year, season_number) VALUES (?,?,?,?,?,?,?,?)")
          .Run(p, album, album, album_artist_pid, pid, compilation ? 1 : 0, Num<int64_t>(t, "year"),
               Num<int64_t>(t, "season"));
    });
    AddArtwork(t, pid, album_pid, album);
    const std::string composer = Str(t, "composer");
    const int64_t composer_pid = Named(composers_, composer, [&](int64_t p) {
      Statement(db_, "INSERT INTO composer (composer_pid, composer, sort_composer, representative_item_pid) "
                     "VALUES (?,?,?,?)")
          .Run(p, composer, composer, pid);
    });
    // Genres are numbered, not drawn.
    const std::string genre = Str(t, "genre");
    int64_t genre_id = 0;
    if (!genre.empty()) {
      auto [it, added] = genres_.try_emplace(genre, next_genre_);
      if (added) {
        ++next_genre_;
        Statement(db_, "INSERT INTO genre (genre_id, genre, representative_item_pid) VALUES (?,?,?)")
            .Run(it->second, genre, pid);
      }
      genre_id = it->second;
    }

    const bool purchased = t.value("purchased", false);
    const bool cloud = base_location == 0;
    const int64_t added = Num<int64_t>(t, "date_added", 1672531200) - kAppleEpochOffset;
    const int64_t remote = purchased ? 100 : cloud ? 200 : 0;
    const int64_t episode = t.contains("episode_id") ? Num<int64_t>(t, "track_number") : 0;
    if (rows_) {
      item_.Run(pid, media_type, artist_pid, album_pid, album_artist_pid, composer_pid, genre_id,
                Num<int64_t>(t, "disc_number"), Num<int64_t>(t, "track_number"), episode, base_location, remote,
                added, compilation ? 1 : 0);
    } else {
      item_.Run(pid, media_type, artist_pid, album_pid, album_artist_pid, composer_pid, genre_id,
                Num<int64_t>(t, "disc_number"), Num<int64_t>(t, "track_number"), episode, base_location, remote);
    }
    const std::string title = Str(t, "title");
    const int64_t size = cloud ? 0 : Num<int64_t>(t, "size");
    const double length = Num<double>(t, "length_ms");
    const int64_t kind = MediaKind(media_type, base_location);
    if (rows_) {
      extra_.Run(pid, title, title, Num<int64_t>(t, "disc_count"), Num<int64_t>(t, "track_count"), length,
                 Num<int64_t>(t, "year"), location, size, added, kind, LocationKind(location));
    } else {
      extra_.Run(pid, title, title, Num<int64_t>(t, "disc_count"), Num<int64_t>(t, "track_count"), length,
                 Num<int64_t>(t, "year"), location, size, added, kind, LocationKind(location), added,
                 compilation ? 1 : 0);
    }
    const int64_t plays = Num<int64_t>(t, "play_count");
    stats_.Run(pid, Num<int64_t>(t, "rating"), plays, plays ? plays % 5 : 0, plays ? 1 : 0,
               plays ? added + 86400 * 3 : 0, t.value("hidden", false) ? 1 : 0);
    // Synced items carry a sync id, purchases their store ids, cloud items
    // a cloud library id.
    const int64_t store_id = purchased ? 1400000000 + (pid & 0xffffff) : 0;
    store_.Run(pid, store_id, purchased ? (pid >> 16) | 1 : 0, cloud ? (pid & 0xffffffff) | 1 : 0,
               purchased || cloud ? 0 : (pid >> 8) | 1, purchased ? 143444 : 0, 0);
    const bool video = IsVideo(media_type);
    const int64_t rate = video ? 48000 : 44100;
    playback_.Run(pid, video ? 0 : 502, video ? 2000 : 256, static_cast<int64_t>(length * rate / 1000),
                  video ? 1 : 0, static_cast<double>(rate), length);
    video_.Run(pid, Num<int64_t>(t, "season"), Str(t, "episode_id"), Str(t, "network"));
  }

 private:
  // A track's cover: one artwork row and one file per album and format, the
  // track's token rows naming it. "artwork_path" plants a relative path as
  // given (and no file), for readers that must not follow it.
  void AddArtwork(const json &t, int64_t pid, int64_t album_pid, const std::string &album) {
    const std::string format = Str(t, "artwork"), planted = Str(t, "artwork_path");
    if (format.empty() && planted.empty()) return;
    if (!rows_) throw std::runtime_error("media_library: artwork needs the \"rows\" form");
    std::string token;
    if (!planted.empty()) {
      token = "planted-" + std::to_string(pid);
      artwork_->Run(token, planted);
    } else {
      auto [it, added] = covers_.try_emplace({album_pid, format}, std::string());
      if (added) {
        it->second = std::to_string(album_pid) + "-" + format;
        const std::string relative = DigestPath(it->second);
        artwork_->Run(it->second, relative);
        const fs::path file = media_ / kArtworkFolder / relative;
        if (t.contains("artwork_size")) WriteFile(file, Num<uint64_t>(t, "artwork_size"));
        else WriteFile(file, 0, PictureFile(format, 120, 120, Seed(album)));
      }
      token = it->second;
    }
    artwork_token_->Run(token, pid);
    best_artwork_->Run(pid, token, token);
  }

  // The phone names its artwork files after a SHA-1 digest in hex, split
  // after two characters into a folder and a name.
  static std::string DigestPath(const std::string &token) {
    gchar *hex = g_compute_checksum_for_string(G_CHECKSUM_SHA1, token.c_str(), -1);
    std::string digest = hex;
    g_free(hex);
    return digest.substr(0, 2) + "/" + digest.substr(2);
  }

  // The same colours for the same album in every image (FNV-1a).
  static uint32_t Seed(const std::string &text) {
    uint32_t h = 2166136261u;
    for (unsigned char c : text) h = (h ^ c) * 16777619u;
    return h;
  }

  template <typename Key, typename Insert>
  int64_t Named(std::map<Key, int64_t> &known, const Key &key, Insert insert) {
    if constexpr (std::is_same_v<Key, std::string>) {
      if (key.empty()) return 0;
    } else {
      if (key.first.empty() && key.second.empty()) return 0;
    }
    auto [it, added] = known.try_emplace(key, 0);
    if (added) {
      it->second = pids_.Next();
      insert(it->second);
    }
    return it->second;
  }

  // The older generation names file kinds in a table of its own.
  int64_t LocationKind(const std::string &location) {
    if (rows_ || location.empty()) return 0;
    const std::string ext = location.substr(location.rfind('.') + 1);
    const std::string kind = ext == "mp3"   ? "MPEG audio file"
                             : ext == "m4v" || ext == "mov" ? "MPEG-4 video file"
                             : ext == "m4b" ? "Protected book"
                             : ext == "m4r" ? "Ringtone"
                                            : "Apple MPEG-4 audio";
    auto [it, added] = kinds_.try_emplace(kind, 0);
    if (added) {
      it->second = pids_.Next();
      Statement(db_, "INSERT INTO location_kind (location_kind_id, kind) VALUES (?,?)").Run(it->second, kind);
    }
    return it->second;
  }

  SqliteDb &db_;
  bool rows_;
  PidSource &pids_;
  std::map<std::pair<std::string, std::string>, int64_t> artists_, albums_;
  std::map<std::string, int64_t> album_artists_, composers_, genres_;
  int64_t next_genre_ = 1;
  std::map<std::string, int64_t> kinds_;
  const fs::path media_;
  Statement item_, extra_, stats_, store_, playback_, video_;
  std::optional<Statement> artwork_, artwork_token_, best_artwork_;  // the newer generation only
  std::map<std::pair<int64_t, std::string>, std::string> covers_;     // (album, format) -> token
};

}  // namespace

void WriteMediaLibrary(const json &ml, const fs::path &media, const fs::path &base, const std::string &device_name) {
  const std::string form = ml.value("form", std::string("rows"));
  if (form != "rows" && form != "blob") throw std::runtime_error("media_library: unknown form " + form);
  const bool rows = form == "rows";
  json tracks = ml.value("tracks", json::array());
  if (ml.contains("generate")) {
    for (auto &t : Generate(ml["generate"])) tracks.push_back(std::move(t));
  }
  const size_t wal_tracks = ml.value("wal_tracks", size_t{0});
  if (wal_tracks > tracks.size()) throw std::runtime_error("media_library: more wal_tracks than tracks");
  const size_t first_wal = tracks.size() - wal_tracks;

  PidSource pids(ml.contains("generate") ? ml["generate"].value("seed", 1u) : ml.value("seed", 1u));
  std::map<std::string, size_t> by_id;
  std::vector<int64_t> item_pids;
  std::vector<int64_t> bases;
  std::vector<std::string> locations;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const json &t = tracks[i];
    if (t.contains("id") && !by_id.emplace(t["id"].get<std::string>(), i).second)
      throw std::runtime_error("media_library: track id used twice: " + t["id"].get<std::string>());
    item_pids.push_back(pids.Next());
    const std::string path = Str(t, "location");
    const auto slash = path.rfind('/');
    if (!path.empty() && (slash == std::string::npos || slash == 0 || slash + 1 == path.size()))
      throw std::runtime_error("media_library: a location needs a folder and a file name: " + path);
    bases.push_back(path.empty() ? 0 : BaseLocation(path.substr(0, slash)));
    locations.push_back(path.empty() ? std::string() : path.substr(slash + 1));
    if (!path.empty() && t.value("file", false)) WriteFile(media / path, Num<uint64_t>(t, "size"));
  }

  // The whole library is a hidden playlist named after the device; the
  // described playlists follow, then the generated ones.
  std::vector<Playlist> playlists{{device_name, pids.Next(), {}}};
  for (size_t i = 0; i < tracks.size(); ++i) playlists[0].members.push_back(i);
  json described = ml.value("playlists", json::array());
  if (ml.contains("generate")) {
    static const char *kNames[] = {"Road Trip", "Focus", "Sunday Morning", "Workout", "Rainy Days", "Late Night"};
    const int n = ml["generate"].value("playlists", 0);
    for (int p = 0; p < n; ++p) {
      json members = json::array();
      for (size_t i = p; i < tracks.size() && members.size() < 25; i += 7 + p) members.push_back(tracks[i]["id"]);
      std::string name = kNames[p % std::size(kNames)];
      if (p >= static_cast<int>(std::size(kNames))) name += " " + std::to_string(p);
      described.push_back({{"name", name}, {"tracks", members}});
    }
  }
  std::map<std::string, int64_t> folders;
  for (const auto &p : described) {
    Playlist pl{Str(p, "name"), pids.Next(), {}};
    for (const auto &m : p.value("tracks", json::array())) {
      auto it = by_id.find(m.get<std::string>());
      if (it == by_id.end()) throw std::runtime_error("media_library: playlist member not found: " + m.get<std::string>());
      pl.members.push_back(it->second);
    }
    if (p.value("kind", std::string()) == "folder") folders[pl.name] = pl.pid;
    playlists.push_back(std::move(pl));
  }

  const fs::path file = media / "iTunes_Control/iTunes/MediaLibrary.sqlitedb";
  {
    SqliteDb db(file);
    db.Exec("PRAGMA journal_mode = WAL");
    db.Exec(std::string("PRAGMA user_version = ") + (rows ? "2320030" : "1150090"));
    db.Exec("BEGIN");
    db.Exec(Schema(rows));
    if (!rows) AddForeignVirtualTable(db);
    {
      Statement props(db, "INSERT INTO _MLDatabaseProperties (key, value) VALUES (?,?)");
      props.Run("OrderingLanguage", "en-GB");
      props.Run("MLCloudDatabaseUserVersion", rows ? "1000100" : "370200");
      props.Run("createdBuiltInSmartPlaylists", "1");
      Statement(db, "INSERT INTO db_info (db_pid, primary_container_pid, audio_language, subtitle_language) "
                    "VALUES (?,?,-1,-1)")
          .Run(pids.Next(), playlists[0].pid);
      std::set<int64_t> used(bases.begin(), bases.end());
      for (int64_t b : {0, 100, 200, 300, 400}) used.insert(b);
      Statement loc(db, "INSERT INTO base_location (base_location_id, path) VALUES (?,?)");
      for (int64_t b : used) {
        std::string path;
        switch (b) {
          case 0: break;
          case 100: path = "LoFiCloudAssets"; break;
          case 200: path = "CloudAssets"; break;
          case 300: path = "Purchases"; break;
          case 400: path = "Podcasts"; break;
          case 500: path = "ManagedPurchases/TVApp"; break;
          case kRingtoneLocation: path = "iTunes_Control/Ringtones"; break;
          default: {
            char name[32];
            std::snprintf(name, sizeof name, "iTunes_Control/Music/F%02d", static_cast<int>(b - 3840));
            path = name;
          }
        }
        loc.Run(b, path);
      }
    }
    // Containers.
    {
      Statement insert(db, "INSERT INTO container (container_pid, distinguished_kind, date_created, date_modified, "
                           "name, parent_pid, is_hidden, smart_is_folder, smart_is_dynamic, smart_is_genius, "
                           "smart_criteria, is_saveable, contained_media_type) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)");
      const int64_t created = 1672531200 - kAppleEpochOffset;
      insert.Run(playlists[0].pid, 0, created, created, device_name, 0, 1, 0, 0, 0, nullptr, 0, 0);
      for (size_t i = 0; i < described.size(); ++i) {
        const json &p = described[i];
        const std::string kind = p.value("kind", std::string("user"));
        if (kind != "user" && kind != "smart" && kind != "folder" && kind != "genius" && kind != "builtin")
          throw std::runtime_error("media_library: unknown playlist kind " + kind);
        int64_t parent = 0;
        if (p.contains("parent")) {
          auto it = folders.find(p["parent"].get<std::string>());
          if (it == folders.end())
            throw std::runtime_error("media_library: no folder " + p["parent"].get<std::string>());
          parent = it->second;
        }
        // A smart playlist keeps its rules as an opaque blob (iTunes'
        // criteria format) and its current members like any other.
        std::optional<Blob> criteria;
        if (kind == "smart") criteria = Blob{'S', 'L', 's', 't', 0, 1, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0};
        const int64_t distinguished = p.value("distinguished_kind", int64_t{kind == "builtin" ? 20 : 0});
        insert.Run(playlists[i + 1].pid, distinguished, created + 3600 * static_cast<int64_t>(i), created,
                   Str(p, "name"), parent, p.value("hidden", false) ? 1 : 0, kind == "folder" ? 1 : 0,
                   kind == "smart" ? 1 : 0, kind == "genius" ? 1 : 0, criteria, kind == "user" ? 1 : 0, 8);
      }
    }

    LibraryWriter writer(db, rows, pids, media);
    // Playlist members as of `upto` tracks: rows for the members added in
    // this part, or each playlist's whole blob rewritten.
    std::optional<Statement> member_row;
    if (rows)
      member_row.emplace(db, "INSERT INTO container_item (container_item_pid, container_pid, item_pid, position, "
                             "uuid, position_uuid, occurrence_id) VALUES (?,?,?,?,?,?,?)");
    auto write_members = [&](size_t from, size_t upto) {
      for (const auto &pl : playlists) {
        if (rows) {
          for (size_t pos = 0; pos < pl.members.size(); ++pos) {
            const size_t m = pl.members[pos];
            if (m < from || m >= upto) continue;
            // Positions are spaced, as the phone leaves room to insert.
            char uuid[40];
            const int64_t cip = pids.Next();
            std::snprintf(uuid, sizeof uuid, "%016llX", static_cast<unsigned long long>(cip));
            member_row->Run(cip, pl.pid, item_pids[m], static_cast<int64_t>(pos + 1) * 1024, uuid, uuid,
                           std::to_string(pos));
          }
        } else {
          std::vector<int64_t> in_order;
          bool changed = false;
          for (size_t m : pl.members) {
            if (m >= upto) continue;
            in_order.push_back(item_pids[m]);
            changed = changed || m >= from;
          }
          if (!changed && from > 0) continue;
          Statement(db, "INSERT OR REPLACE INTO container_items (container_pid, item_pid_data) VALUES (?,?)")
              .Run(pl.pid, PackPids(in_order));
        }
      }
    };
    auto write_tracks = [&](size_t from, size_t upto) {
      for (size_t i = from; i < upto; ++i) writer.AddTrack(tracks[i], item_pids[i], bases[i], locations[i]);
      write_members(from, upto);
    };
    write_tracks(0, first_wal);
    db.Exec("COMMIT");
    db.CheckpointThenKeepLog();
    if (wal_tracks) {
      db.Exec("BEGIN");
      write_tracks(first_wal, tracks.size());
      db.Exec("COMMIT");
    }
  }
  // The point of the log: a reader that ignores it must miss the newest
  // tracks. SQLite keeps it after the close only as asked to.
  if (wal_tracks && !(fs::exists(file.string() + "-wal") && fs::file_size(file.string() + "-wal") > 0))
    throw std::runtime_error("SQLite did not keep the log of " + file.string());

  if (ml.value("legacy_cdb", false)) {
    // What the phone's old database still says: the tracks before the
    // newest ones, as they were when it was last written (no plays yet, no
    // ratings), and no playlists but the library.
    json music = {{"master", device_name}, {"tracks", json::array()}};
    for (size_t i = 0; i < first_wal; ++i) {
      const json &t = tracks[i];
      json old = {{"title", Str(t, "title")}, {"artist", Str(t, "artist")}, {"album", Str(t, "album")},
                  {"genre", Str(t, "genre")}, {"size", bases[i] ? Num<uint64_t>(t, "size") : 0},
                  {"length", Num<int64_t>(t, "length_ms")}, {"rating", 0}, {"play_count", 0},
                  {"media_type", GpodMediaType(Num<int64_t>(t, "media_type", kSong), bases[i])}};
      if (bases[i]) {
        std::string path = ":" + Str(t, "location");
        std::replace(path.begin(), path.end(), '/', ':');
        old["path"] = path;
      }
      music["tracks"].push_back(std::move(old));
    }
    WriteMusic(music, media, base);
  }
}

}  // namespace mkimage
