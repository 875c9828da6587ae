// Everything of an image but the music database: the device description,
// the sync lock, the purchases and book plists (through libplist), the
// camera-roll and recordings databases (through SQLite), plain files and
// generated trees.
#include "image.h"

#include <fcntl.h>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <glib.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>

namespace mkimage {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// JSON to a property list: objects become dictionaries in their order,
// arrays arrays, non-negative integers unsigned integers, strings strings,
// except "@data:BASE64" (data) and "@date:SECONDS" (date).
plist_t ToPlist(const json &v) {
  switch (v.type()) {
    case json::value_t::object: {
      plist_t d = plist_new_dict();
      for (const auto &[k, item] : v.items()) plist_dict_set_item(d, k.c_str(), ToPlist(item));
      return d;
    }
    case json::value_t::array: {
      plist_t a = plist_new_array();
      for (const auto &item : v) plist_array_append_item(a, ToPlist(item));
      return a;
    }
    case json::value_t::boolean: return plist_new_bool(v.get<bool>());
    case json::value_t::number_unsigned: return plist_new_uint(v.get<uint64_t>());
    // libplist 2.2 keeps integers unsigned; a negative one keeps its bits.
    case json::value_t::number_integer: return plist_new_uint(static_cast<uint64_t>(v.get<int64_t>()));
    case json::value_t::number_float: return plist_new_real(v.get<double>());
    case json::value_t::string: {
      const std::string s = v.get<std::string>();
      if (s.rfind("@data:", 0) == 0) {
        gsize n = 0;
        std::unique_ptr<guchar, decltype(&g_free)> bytes(g_base64_decode(s.c_str() + 6, &n), &g_free);
        return plist_new_data(reinterpret_cast<const char *>(bytes.get()), n);
      }
      if (s.rfind("@date:", 0) == 0) {
        // libplist 2.2 counts dates from 2001-01-01.
        const long long unix_time = std::stoll(s.substr(6));
        return plist_new_date(static_cast<int32_t>(unix_time - 978307200LL), 0);
      }
      return plist_new_string(s.c_str());
    }
    default: return plist_new_string("");
  }
}

void WritePlist(const fs::path &file, const json &content, const std::string &format) {
  fs::create_directories(file.parent_path());
  Plist root(ToPlist(content));
  char *out = nullptr;
  uint32_t len = 0;
  if (format == "binary") plist_to_bin(root.get(), &out, &len);
  else if (format == "xml" || format.empty()) plist_to_xml(root.get(), &out, &len);
  else throw std::runtime_error("unknown plist format: " + format);
  std::ofstream(file, std::ios::binary).write(out, len);
  free(out);
}

using Db = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;

Db OpenDb(const fs::path &file, const char *schema) {
  fs::create_directories(file.parent_path());
  fs::remove(file);
  sqlite3 *raw = nullptr;
  if (sqlite3_open(file.c_str(), &raw) != SQLITE_OK) {
    sqlite3_close(raw);
    throw std::runtime_error("cannot create " + file.string());
  }
  Db db(raw, &sqlite3_close);
  char *err = nullptr;
  if (sqlite3_exec(db.get(), schema, nullptr, nullptr, &err) != SQLITE_OK) {
    const std::string why = err ? err : "";
    sqlite3_free(err);
    throw std::runtime_error("cannot create the schema of " + file.string() + ": " + why);
  }
  return db;
}

// Inserts one row; `values` are bound in order (null, integer, real or
// text from their JSON types).
void Insert(sqlite3 *db, const char *sql, const std::vector<json> &values) {
  sqlite3_stmt *st = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db));
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> owned(st, &sqlite3_finalize);
  for (size_t i = 0; i < values.size(); ++i) {
    const json &v = values[i];
    const int at = static_cast<int>(i + 1);
    if (v.is_null()) sqlite3_bind_null(st, at);
    else if (v.is_number_integer()) sqlite3_bind_int64(st, at, v.get<int64_t>());
    else if (v.is_number_float()) sqlite3_bind_double(st, at, v.get<double>());
    else sqlite3_bind_text(st, at, v.get<std::string>().c_str(), -1, SQLITE_TRANSIENT);
  }
  if (sqlite3_step(st) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
}

json Field(const json &row, const char *key) { return row.contains(key) ? row[key] : json(); }

void WritePhotos(const json &photos, const fs::path &media) {
  Db db = OpenDb(media / "PhotoData/Photos.sqlite",
                 "CREATE TABLE Photo (primaryKey INTEGER PRIMARY KEY, type INTEGER, title TEXT, "
                 "captureTime REAL, width INTEGER, height INTEGER, userRating INTEGER, flagged INTEGER, "
                 "thumbnailIndex INTEGER, orientation INTEGER, directory TEXT, filename TEXT, duration REAL, "
                 "recordModDate REAL, savedAssetType INTEGER);");
  sqlite3_exec(db.get(), "BEGIN", nullptr, nullptr, nullptr);
  for (const auto &row : photos.value("rows", json::array())) {
    Insert(db.get(), "INSERT INTO Photo (directory, filename) VALUES (?, ?)",
           {Field(row, "directory"), Field(row, "filename")});
    if (row.contains("size")) {
      WriteFile(media / row["directory"].get<std::string>() / row["filename"].get<std::string>(),
                row["size"].get<uint64_t>(), "", row.value("mtime", int64_t{0}));
    }
  }
  sqlite3_exec(db.get(), "COMMIT", nullptr, nullptr, nullptr);
}

void WriteRecordings(const json &recordings, const fs::path &media) {
  Db db = OpenDb(media / "Recordings/Recordings.db",
                 "CREATE TABLE ZRECORDING (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, "
                 "ZDATE TIMESTAMP, ZDURATION VARCHAR, ZCUSTOMLABEL VARCHAR, ZPATH VARCHAR);");
  sqlite3_exec(db.get(), "BEGIN", nullptr, nullptr, nullptr);
  for (const auto &row : recordings.value("rows", json::array())) {
    Insert(db.get(), "INSERT INTO ZRECORDING (ZDURATION, ZPATH, ZCUSTOMLABEL) VALUES (?, ?, ?)",
           {Field(row, "duration"), Field(row, "path"), Field(row, "label")});
    if (row.contains("size") && row["path"].is_string()) {
      const std::string path = row["path"];
      WriteFile(media / "Recordings" / fs::path(path).filename(), row["size"].get<uint64_t>(), "",
                row.value("mtime", int64_t{0}));
    }
  }
  sqlite3_exec(db.get(), "COMMIT", nullptr, nullptr, nullptr);
}

fs::path UnderMedia(const fs::path &media, const std::string &device_path) {
  const std::string rel = device_path.substr(device_path.find_first_not_of('/') == std::string::npos
                                                 ? device_path.size()
                                                 : device_path.find_first_not_of('/'));
  if (fs::path(rel).lexically_normal().string().rfind("..", 0) == 0)
    throw std::runtime_error("path leaves the image: " + device_path);
  return media / rel;
}

void WriteTree(const json &tree, const fs::path &media) {
  const fs::path root = UnderMedia(media, tree.value("root", std::string("/T")));
  const int fanout = tree.value("fanout", 10), depth = tree.value("depth", 2), files = tree.value("files", 10);
  // Directories d0..d<fanout-1> on each of `depth` levels; files in the
  // deepest ones.
  // Appended rather than "prefix" + to_string(n): GCC 12 at -O3 warns
  // falsely (-Wrestrict) about the insert that operator+ inlines there.
  auto numbered = [](const char *prefix, int n, const char *suffix) {
    std::string name = prefix;
    name += std::to_string(n);
    name += suffix;
    return name;
  };
  std::function<void(const fs::path &, int)> fill = [&](const fs::path &dir, int level) {
    fs::create_directories(dir);
    if (level == depth) {
      for (int f = 0; f < files; ++f) WriteFile(dir / numbered("file", f, ".bin"), 1, "x");
      return;
    }
    for (int d = 0; d < fanout; ++d) fill(dir / numbered("d", d, ""), level + 1);
  };
  fill(root, 0);
}

void SetTime(const fs::path &path, int64_t mtime) {
  if (mtime == 0) return;
  const timespec ts[2] = {{static_cast<time_t>(mtime), 0}, {static_cast<time_t>(mtime), 0}};
  if (::utimensat(AT_FDCWD, path.c_str(), ts, 0) != 0) throw std::runtime_error("cannot set the time of " + path.string());
}

// Data whose every block differs, so that a copy that lost, doubled or
// shifted a block shows.
uint8_t PatternByte(uint64_t offset) { return static_cast<uint8_t>(offset * 131 + (offset >> 12) * 7 + 17); }

void WritePattern(const fs::path &path, uint64_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::string block;
  for (uint64_t at = 0; at < size && out; at += block.size()) {
    block.resize(static_cast<size_t>(std::min<uint64_t>(size - at, 1 << 16)));
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(PatternByte(at + i));
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

// Plain entries ("files"): files, directories, links and patterned files
// below `root`.
void WriteEntries(const json &entries, const fs::path &root) {
  for (const auto &f : entries) {
    const fs::path p = UnderMedia(root, f.at("path").get<std::string>());
    if (f.value("dir", false)) {
      fs::create_directories(p);
      SetTime(p, f.value("mtime", int64_t{0}));
    } else if (f.contains("link")) {
      // Kept as written: links that climb out of the image or point at
      // themselves are what some tests need.
      fs::create_directories(p.parent_path());
      fs::create_symlink(f["link"].get<std::string>(), p);
    } else if (f.value("pattern", false)) {
      WritePattern(p, f.value("size", uint64_t{0}));
    } else {
      WriteFile(p, f.value("size", uint64_t{0}), f.value("content", std::string()), f.value("mtime", int64_t{0}));
    }
  }
}

// An app icon as springboardservices hands it out: a square PNG of the
// given colour ("#rrggbb") with a lighter band, so that icons differ at a
// glance.
std::string IconPng(const std::string &colour) {
  unsigned rgb = 0x3478f6;
  if (colour.size() == 7 && colour[0] == '#') rgb = static_cast<unsigned>(std::stoul(colour.substr(1), nullptr, 16));
  constexpr int kSide = 60;
  std::unique_ptr<GdkPixbuf, decltype(&g_object_unref)> pixbuf(
      gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, kSide, kSide), &g_object_unref);
  if (!pixbuf) throw std::runtime_error("cannot make an icon");
  guchar *pixels = gdk_pixbuf_get_pixels(pixbuf.get());
  const int stride = gdk_pixbuf_get_rowstride(pixbuf.get());
  for (int y = 0; y < kSide; ++y) {
    const bool band = y >= kSide / 3 && y < kSide * 2 / 3;
    for (int x = 0; x < kSide; ++x) {
      guchar *p = pixels + y * stride + x * 3;
      for (int c = 0; c < 3; ++c) {
        const unsigned v = (rgb >> (16 - 8 * c)) & 0xff;
        p[c] = static_cast<guchar>(band ? (v + 255) / 2 : v);
      }
    }
  }
  gchar *buffer = nullptr;
  gsize size = 0;
  GError *error = nullptr;
  if (!gdk_pixbuf_save_to_buffer(pixbuf.get(), &buffer, &size, "png", &error, nullptr)) {
    const std::string why = error ? error->message : "unknown error";
    if (error) g_error_free(error);
    throw std::runtime_error("gdk-pixbuf could not write a PNG: " + why);
  }
  std::string out(buffer, size);
  g_free(buffer);
  return out;
}

// Installed apps: apps.json (the attributes installation_proxy lists),
// each app's container apps/ID with its Documents, and icons/ID.png.
void WriteApps(const json &apps, const fs::path &out) {
  json list = json::array();
  for (const auto &a : apps) {
    const std::string id = a.at("identifier").get<std::string>();
    if (id.empty() || id.find('/') != std::string::npos || id == "." || id == "..")
      throw std::runtime_error("an app identifier must be a plain name: \"" + id + "\"");
    json attributes = json::object();
    attributes["CFBundleIdentifier"] = id;
    attributes["CFBundleDisplayName"] = a.value("name", id);
    attributes["CFBundleName"] = a.value("name", id);
    // An app may leave its short version out; lists fall back to the build.
    if (a.contains("version")) attributes["CFBundleShortVersionString"] = a["version"];
    attributes["CFBundleVersion"] = a.value("build", a.value("version", std::string("1")));
    attributes["ApplicationType"] = a.value("type", std::string("User"));
    attributes["UIFileSharingEnabled"] = a.value("file_sharing", false);
    if (a.value("developer", false)) attributes["Entitlements"] = {{"get-task-allow", true}};
    list.push_back(attributes);
    const fs::path container = out / "apps" / id;
    fs::create_directories(container / "Documents");
    WriteEntries(a.value("documents", json::array()), container / "Documents");
    fs::create_directories(out / "icons");
    std::ofstream(out / "icons" / (id + ".png"), std::ios::binary) << IconPng(a.value("icon", std::string()));
  }
  std::ofstream(out / "apps.json") << list.dump(2) << "\n";
}

}  // namespace

void WriteFile(const fs::path &path, uint64_t size, const std::string &content, int64_t mtime) {
  fs::create_directories(path.parent_path());
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot create " + path.string());
    out << content;
  }
  if (content.empty() && size) fs::resize_file(path, size);
  SetTime(path, mtime);
}

void BuildImage(const json &d, const fs::path &out, const fs::path &base) {
  const fs::path media = out / "media";
  fs::create_directories(media);
  if (d.contains("device")) std::ofstream(out / "device.json") << d["device"].dump(2) << "\n";
  if (d.value("sync_lock", true)) WriteFile(media / "com.apple.itunes.lock_sync", 0);
  if (d.contains("music") && d.contains("media_library") && d["media_library"].value("legacy_cdb", false))
    throw std::runtime_error("\"music\" and a media_library with legacy_cdb both write iTunesCDB");
  if (d.contains("photos") && d.contains("photo_library"))
    throw std::runtime_error("\"photos\" and \"photo_library\" both write PhotoData/Photos.sqlite");
  if (d.contains("music")) WriteMusic(d["music"], media, base);
  if (d.contains("media_library")) {
    const json device = d.value("device", json::object());
    WriteMediaLibrary(d["media_library"], media, base, device.value("DeviceName", std::string("iPhone")));
  }
  if (d.contains("photo_library")) WritePhotoLibrary(d["photo_library"], media);
  if (d.contains("purchases")) {
    const json &p = d["purchases"];
    if (p.contains("plist")) WritePlist(media / "Purchases/MobileDB/TrackData.plist", p["plist"], p.value("format", ""));
    for (const auto &f : p.value("files", json::array()))
      WriteFile(media / "Purchases" / f["name"].get<std::string>(), f.value("size", uint64_t{0}));
  }
  if (d.contains("books")) {
    const json &b = d["books"];
    const std::string format = b.value("format", "");
    if (b.contains("books")) WritePlist(media / "Books/Books.plist", b["books"], format);
    if (b.contains("purchases")) WritePlist(media / "Books/Purchases/Purchases.plist", b["purchases"], format);
  }
  if (d.contains("photos")) WritePhotos(d["photos"], media);
  if (d.contains("recordings")) WriteRecordings(d["recordings"], media);
  WriteEntries(d.value("files", json::array()), media);
  if (d.contains("tree")) WriteTree(d["tree"], media);
  if (d.contains("apps")) WriteApps(d["apps"], out);
}

}  // namespace mkimage
