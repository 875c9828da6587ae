// The music database of an image: tracks and playlists written by libgpod's
// own writer, then put into the compressed form that devices keep in
// /iTunes_Control/iTunes/iTunesCDB. Writing through libgpod (and not by
// hand) means the library's reader meets a database it was not written to
// fit.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gpod/itdb.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "image.h"
#include "names.h"

namespace mkimage {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

constexpr const char *kItunesDir = "iTunes_Control/iTunes";

struct ItdbFree {
  void operator()(Itdb_iTunesDB *db) const { itdb_free(db); }
};

std::string ReadAll(const fs::path &p) {
  std::string bytes(fs::file_size(p), '\0');
  std::ifstream(p, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

uint32_t Le32(const std::string &s, size_t at) {
  uint32_t v = 0;
  std::memcpy(&v, s.data() + at, 4);  // the database is little-endian, as is every host we build on
  return v;
}

void PutLe32(std::string &s, size_t at, uint32_t v) { std::memcpy(s.data() + at, &v, 4); }

// The device's compressed form: the mhbd header as it is, with its
// compression flag set and its total length rewritten, then the rest of
// the database deflated with zlib.
std::string Compress(const std::string &plain) {
  if (plain.size() < 12 || plain.compare(0, 4, "mhbd") != 0) throw std::runtime_error("libgpod wrote no mhbd header");
  const uint32_t header = Le32(plain, 4);
  if (header > plain.size() || header < 0xaa) throw std::runtime_error("unexpected mhbd header length");
  const auto *body = reinterpret_cast<const Bytef *>(plain.data() + header);
  const uLong body_len = static_cast<uLong>(plain.size() - header);
  uLongf packed_len = compressBound(body_len);
  std::string out(header + packed_len, '\0');
  std::memcpy(out.data(), plain.data(), header);
  if (compress2(reinterpret_cast<Bytef *>(out.data() + header), &packed_len, body, body_len, Z_BEST_SPEED) != Z_OK)
    throw std::runtime_error("zlib could not compress the database");
  out.resize(header + packed_len);
  PutLe32(out, 8, static_cast<uint32_t>(out.size()));
  out[0xa8] = 1;  // 16-bit compression flag, as devices that compress set it
  out[0xa9] = 0;
  return out;
}

char *Dup(const json &t, const char *key) {
  auto it = t.find(key);
  if (it == t.end() || it->is_null()) return nullptr;
  return g_strdup(it->get<std::string>().c_str());
}

template <typename T>
T Num(const json &t, const char *key, T fallback = 0) {
  auto it = t.find(key);
  return it == t.end() || it->is_null() ? fallback : it->get<T>();
}

// Real-looking tracks of every kind, the same for the same seed.
json Generate(const json &g) {
  using namespace names;
  // Kind shares out of 20: most is music, then one or two of each other kind.
  static const struct {
    uint32_t type;
    const char *genre;
    const char *ext;
  } kKinds[] = {{0x1, nullptr, "mp3"},      {0x1, nullptr, "m4a"},     {0x1, nullptr, "mp3"},
                {0x1, nullptr, "m4a"},      {0x1, nullptr, "mp3"},     {0x1, nullptr, "m4a"},
                {0x1, nullptr, "mp3"},      {0x1, nullptr, "m4a"},     {0x1, nullptr, "mp3"},
                {0x1, nullptr, "m4a"},      {0x20, nullptr, "m4v"},    {0x2, "Drama", "m4v"},
                {0x2, "Documentary", "mp4"}, {0x4, "Podcast", "mp3"},  {0x6, "Podcast", "m4v"},
                {0x40, "TV Show", "m4v"},   {0x8, "Audiobook", "m4b"}, {0x8, "Audiobook", "m4b"},
                {0x4000, "Ringtone", "m4r"}, {0x1, nullptr, "mp3"}};
  const int count = g.value("tracks", 0);
  const bool files = g.value("files", false);
  std::mt19937 rng(g.value("seed", 1u));
  auto pick = [&](auto &array) { return array[rng() % std::size(array)]; };
  json tracks = json::array();
  for (int i = 0; i < count; ++i) {
    const auto &kind = kKinds[i % std::size(kKinds)];
    const bool video = kind.type == 0x2 || kind.type == 0x6 || kind.type == 0x20 || kind.type == 0x40;
    const uint32_t seconds = kind.type == 0x4000 ? 30 : video ? 1200 + rng() % 4000 : 120 + rng() % 300;
    // Scrambled names as devices give them; the index keeps them unique.
    char path[80];
    std::snprintf(path, sizeof path, ":iTunes_Control:Music:F%02d:%c%c%c%c%d.%s", i % 50,
                  static_cast<char>('A' + rng() % 26), static_cast<char>('A' + rng() % 26),
                  static_cast<char>('A' + rng() % 26), static_cast<char>('A' + rng() % 26), i, kind.ext);
    // Appended, not "g" + to_string(i): GCC 12 at -O3 warns falsely about
    // the insert that operator+ inlines there.
    std::string id = "g";
    id += std::to_string(i);
    json t = {{"id", id},
              {"title", std::string(pick(kWords)) + " " + pick(kWords)},
              {"artist", pick(kArtists)},
              {"album", pick(kAlbums)},
              {"genre", kind.genre ? kind.genre : pick(kGenres)},
              {"length", seconds * 1000},
              {"size", static_cast<uint64_t>(seconds) * (video ? 250000 : 32000)},
              {"rating", (rng() % 6) * 20},
              {"play_count", rng() % 40},
              {"media_type", kind.type},
              {"path", path},
              {"file", files}};
    tracks.push_back(std::move(t));
  }
  return tracks;
}

// A database identifier that is never 0 (libgpod would replace it) and
// differs for every index (splitmix64 is a bijection).
uint64_t TrackDbid(uint64_t index) {
  uint64_t z = index + 0x9e3779b97f4a7c15ULL;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  z ^= z >> 31;
  return z ? z : 1;
}

void WriteLocations(const fs::path &file, const std::vector<Itdb_Track *> &tracks) {
  fs::create_directories(file.parent_path());
  sqlite3 *raw = nullptr;
  if (sqlite3_open(file.c_str(), &raw) != SQLITE_OK) {
    sqlite3_close(raw);
    throw std::runtime_error("cannot create " + file.string());
  }
  std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db(raw, &sqlite3_close);
  sqlite3_exec(db.get(),
               "BEGIN; CREATE TABLE location (item_pid INTEGER NOT NULL, sub_id INTEGER NOT NULL DEFAULT 0, "
               "base_location_id INTEGER DEFAULT 0, location_type INTEGER, location TEXT, extension INTEGER, "
               "kind_id INTEGER DEFAULT 0, date_created INTEGER DEFAULT 0, file_size INTEGER DEFAULT 0, "
               "PRIMARY KEY (item_pid, sub_id));",
               nullptr, nullptr, nullptr);
  sqlite3_stmt *st = nullptr;
  sqlite3_prepare_v2(db.get(), "INSERT INTO location (item_pid, location_type, location, file_size) VALUES (?,?,?,?)",
                     -1, &st, nullptr);
  for (auto *t : tracks) {
    sqlite3_bind_int64(st, 1, static_cast<sqlite3_int64>(t->dbid));
    sqlite3_bind_int(st, 2, 0x46494c45);  // 'FILE'
    if (t->ipod_path) sqlite3_bind_text(st, 3, t->ipod_path, -1, SQLITE_TRANSIENT);
    else sqlite3_bind_null(st, 3);
    sqlite3_bind_int64(st, 4, t->size);
    sqlite3_step(st);
    sqlite3_reset(st);
  }
  sqlite3_finalize(st);
  sqlite3_exec(db.get(), "COMMIT;", nullptr, nullptr, nullptr);
}

// The cover formats an iPod touch of the iOS 4 era names in its
// SysInfoExtended, which is where libgpod learns them: without them it
// writes no artwork at all. Little-endian RGB565, as those devices keep it.
void WriteSysInfoExtended(const fs::path &file) {
  fs::create_directories(file.parent_path());
  static const struct {
    int id, width, height;
  } kFormats[] = {{3005, 64, 64}, {3006, 128, 128}};
  plist_t root = plist_new_dict();
  plist_t formats = plist_new_array();
  for (const auto &f : kFormats) {
    plist_t format = plist_new_dict();
    plist_dict_set_item(format, "FormatId", plist_new_uint(static_cast<uint64_t>(f.id)));
    plist_dict_set_item(format, "RenderWidth", plist_new_uint(static_cast<uint64_t>(f.width)));
    plist_dict_set_item(format, "RenderHeight", plist_new_uint(static_cast<uint64_t>(f.height)));
    plist_dict_set_item(format, "PixelFormat", plist_new_string("4C353635"));
    plist_array_append_item(formats, format);
  }
  plist_dict_set_item(root, "AlbumArt", formats);
  // Tracks with the same cover share one picture, as iTunes writes them.
  plist_dict_set_item(root, "SupportsSparseArtwork", plist_new_bool(1));
  // libgpod looks the model up by the serial number's last letters and
  // complains on every lookup when there is none; this one names no model,
  // so the formats above are all it goes by.
  plist_dict_set_item(root, "SerialNumber", plist_new_string("F2LDEMO0TARN"));
  char *xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &xml, &length);
  plist_free(root);
  std::ofstream(file, std::ios::binary).write(xml, length);
  std::free(xml);
}

// A cover of one colour, `rgb` as "#rrggbb", inside a dark frame.
struct PixbufUnref {
  void operator()(GdkPixbuf *p) const { g_object_unref(p); }
};
std::unique_ptr<GdkPixbuf, PixbufUnref> Cover(const std::string &rgb) {
  if (rgb.size() != 7 || rgb[0] != '#') throw std::runtime_error("a cover colour is \"#rrggbb\": " + rgb);
  const uint32_t colour = static_cast<uint32_t>(std::stoul(rgb.substr(1), nullptr, 16));
  std::unique_ptr<GdkPixbuf, PixbufUnref> cover(gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 256, 256));
  gdk_pixbuf_fill(cover.get(), 0x202020ff);
  std::unique_ptr<GdkPixbuf, PixbufUnref> inside(gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 224, 224));
  gdk_pixbuf_fill(inside.get(), colour << 8 | 0xff);
  gdk_pixbuf_copy_area(inside.get(), 0, 0, 224, 224, cover.get(), 16, 16);
  return cover;
}

}  // namespace

void WriteMusic(const json &music, const fs::path &media, const fs::path &base) {
  const fs::path dir = media / kItunesDir;
  fs::create_directories(dir);
  if (music.contains("source")) {
    fs::path src = music["source"].get<std::string>();
    if (src.is_relative()) src = base / src;
    if (!fs::exists(src)) throw std::runtime_error("music source not found: " + src.string());
    fs::copy_file(src, dir / "iTunesCDB", fs::copy_options::overwrite_existing);
    return;
  }

  std::unique_ptr<Itdb_iTunesDB, ItdbFree> db(itdb_new());
  json tracks = music.value("tracks", json::array());
  if (music.contains("generate")) {
    for (auto &t : Generate(music["generate"])) tracks.push_back(std::move(t));
  }
  // Albums with a cover: libgpod writes their artwork database (ArtworkDB
  // and its .ithmb files below /iTunes_Control/Artwork) for a device that
  // names its cover formats, so the image gets those and libgpod is told
  // where it is.
  const json covers = music.value("covers", json::object());
  if (!covers.empty()) {
    WriteSysInfoExtended(media / "iTunes_Control/Device/SysInfoExtended");
    fs::create_directories(media / "iTunes_Control/Artwork");
    itdb_set_mountpoint(db.get(), media.c_str());
  }
  std::map<std::string, std::unique_ptr<GdkPixbuf, PixbufUnref>> cover_of;
  for (const auto &[album, colour] : covers.items()) cover_of[album] = Cover(colour.get<std::string>());
  std::map<std::string, Itdb_Track *> by_id;
  std::vector<Itdb_Track *> order;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const json &t = tracks[i];
    std::unique_ptr<Itdb_Track, decltype(&itdb_track_free)> track(itdb_track_new(), &itdb_track_free);
    track->title = Dup(t, "title");
    track->artist = Dup(t, "artist");
    track->album = Dup(t, "album");
    track->genre = Dup(t, "genre");
    track->ipod_path = Dup(t, "path");
    track->size = Num<uint32_t>(t, "size");
    track->tracklen = Num<int32_t>(t, "length");
    track->rating = Num<uint32_t>(t, "rating");
    track->playcount = Num<uint32_t>(t, "play_count");
    track->bitrate = Num<int32_t>(t, "bitrate");
    track->cds = Num<int32_t>(t, "disc_count");
    if (t.contains("media_type")) track->mediatype = t["media_type"].get<uint32_t>();
    // libgpod draws a random identifier and checks it against every track
    // already added, which is quadratic for large images; a fixed one per
    // index also keeps images the same from build to build.
    track->dbid = track->dbid2 = TrackDbid(i);
    if (t.value("file", false) && track->ipod_path) {
      std::string rel = track->ipod_path;
      for (auto &c : rel) c = c == ':' ? '/' : c;
      WriteFile(media / rel.substr(rel.find_first_not_of('/')), track->size);
    }
    if (track->album != nullptr) {
      const auto cover = cover_of.find(track->album);
      if (cover != cover_of.end() && !itdb_track_set_thumbnails_from_pixbuf(track.get(), cover->second.get()))
        throw std::runtime_error("libgpod took no cover for the album " + cover->first);
    }
    if (t.contains("id")) by_id[t["id"].get<std::string>()] = track.get();
    order.push_back(track.get());
    itdb_track_add(db.get(), track.release(), 0);
  }
  // Added at the front, then turned round: appending walks the whole list
  // each time.
  db->tracks = g_list_reverse(db->tracks);

  Itdb_Playlist *mpl = itdb_playlist_new(music.value("master", std::string("iPod")).c_str(), FALSE);
  itdb_playlist_set_mpl(mpl);
  itdb_playlist_add(db.get(), mpl, -1);
  for (auto t = order.rbegin(); t != order.rend(); ++t) itdb_playlist_add_track(mpl, *t, 0);

  json playlists = music.value("playlists", json::array());
  if (music.contains("generate")) {
    const int n = music["generate"].value("playlists", 0);
    static const char *kNames[] = {"Road Trip", "Focus", "Sunday Morning", "Workout", "Rainy Days",
                                   "Late Night", "Favourites", "Dinner Party"};
    for (int p = 0; p < n; ++p) {
      json members = json::array();
      for (size_t i = p; i < order.size() && members.size() < 25; i += 7 + p) members.push_back(i);
      playlists.push_back({{"name", std::string(kNames[p % std::size(kNames)]) +
                                        (p >= static_cast<int>(std::size(kNames)) ? " " + std::to_string(p) : "")},
                           {"indexes", members}});
    }
  }
  for (const auto &p : playlists) {
    // libgpod's writer cannot leave a playlist's title out (it asserts and
    // writes an inconsistent record), so a nameless playlist gets an empty
    // title, which is what a reader sees of a missing one.
    const bool named = p.contains("name") && p["name"].is_string();
    Itdb_Playlist *pl = itdb_playlist_new(named ? p["name"].get<std::string>().c_str() : "", FALSE);
    itdb_playlist_add(db.get(), pl, -1);
    for (const auto &m : p.value("tracks", json::array())) {
      auto it = by_id.find(m.get<std::string>());
      if (it == by_id.end()) throw std::runtime_error("playlist member not found: " + m.get<std::string>());
      itdb_playlist_add_track(pl, it->second, -1);
    }
    for (const auto &i : p.value("indexes", json::array())) itdb_playlist_add_track(pl, order.at(i.get<size_t>()), -1);
  }

  const fs::path plain = dir / "iTunesDB.tmp";
  GError *error = nullptr;
  if (!itdb_write_file(db.get(), plain.c_str(), &error)) {
    const std::string why = error ? error->message : "unknown error";
    if (error) g_error_free(error);
    throw std::runtime_error("libgpod could not write the database: " + why);
  }
  const std::string bytes = ReadAll(plain);
  if (music.value("compressed", true)) std::ofstream(dir / "iTunesCDB", std::ios::binary) << Compress(bytes);
  if (music.value("uncompressed", false)) fs::rename(plain, dir / "iTunesDB");
  else fs::remove(plain);
  if (music.value("locations", false)) WriteLocations(dir / "iTunes Library.itlp" / "Locations.itdb", order);
}

}  // namespace mkimage
