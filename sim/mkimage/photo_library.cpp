// The camera roll of a current phone: /PhotoData/Photos.sqlite in the shape
// Core Data gives it (entity numbers in Z_PRIMARYKEY, the asset table, its
// side tables, albums and the numbered album join table), in write-ahead-
// log mode with the newest assets only in -wal, and the files the rows
// name: originals under DCIM, the video half of Live Photos, edit sidecars
// and JPEG thumbnails. The table and join-table names change with the iOS
// version the description names, as they do on phones.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <libheif/heif.h>
#include <plist/plist.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "image.h"
#include "sqlite_db.h"

namespace mkimage {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

// Core Data's entity numbers for one release: the asset table's name, the
// album entity <a> and the asset entity <b> that name the join table
// Z_<a>ASSETS(Z_<a>ALBUMS, Z_<b>ASSETS, Z_FOK_<b>ASSETS).
struct Model {
  bool generic_asset;  // iOS 11-13 keep assets in ZGENERICASSET
  int album_entity;
  int asset_entity;
  int model_version;  // PLModelVersion in Z_METADATA
};

Model ModelFor(const json &ios) {
  int major = 0, minor = 0;
  if (ios.is_number()) {
    major = ios.get<int>();
  } else if (ios.is_string()) {
    std::sscanf(ios.get<std::string>().c_str(), "%d.%d", &major, &minor);
  }
  const int version = major * 1000 + minor * 10;
  switch (major) {
    case 11: return {true, 20, 27, version};
    case 12: return {true, 23, 30, version};
    case 13: return {true, 26, 34, version};
    case 14: return {false, 26, 3, version};
    case 15: return {false, 27, 3, version};
    case 16: return {false, 28, 3, version};
    case 17: return {false, minor >= 6 ? 29 : 28, 3, version};
    case 18: return {false, 30, 3, version};
    case 26: return {false, 33, 3, version};
    default: throw std::runtime_error("photo_library: no Photos model for iOS " + ios.dump());
  }
}

struct Kind {
  int kind, subtype, playback;
};

Kind KindOf(const std::string &name) {
  if (name == "photo") return {0, 0, 1};
  if (name == "live") return {0, 2, 3};
  if (name == "screenshot") return {0, 10, 1};
  if (name == "video") return {1, 0, 4};
  throw std::runtime_error("photo_library: unknown asset kind " + name);
}

std::string Upper(std::string s) {
  for (auto &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string Extension(const std::string &file) {
  const auto dot = file.rfind('.');
  return dot == std::string::npos ? std::string() : Upper(file.substr(dot + 1));
}

std::string TypeIdentifier(const std::string &file) {
  const std::string ext = Extension(file);
  if (ext == "HEIC") return "public.heic";
  if (ext == "JPG" || ext == "JPEG") return "public.jpeg";
  if (ext == "PNG") return "public.png";
  if (ext == "MOV") return "com.apple.quicktime-movie";
  if (ext == "MP4") return "public.mpeg-4";
  return "public.data";
}

std::string Uuid(std::mt19937_64 &rng) {
  const uint64_t a = rng(), b = rng();
  char s[40];
  std::snprintf(s, sizeof s, "%08llX-%04llX-%04llX-%04llX-%012llX", static_cast<unsigned long long>(a >> 32),
                static_cast<unsigned long long>((a >> 16) & 0xffff), static_cast<unsigned long long>(a & 0xffff),
                static_cast<unsigned long long>(b >> 48), static_cast<unsigned long long>(b & 0xffffffffffffULL));
  return s;
}

// A gradient of the given size as gdk-pixbuf pixels; the seed varies it.
std::unique_ptr<GdkPixbuf, decltype(&g_object_unref)> Gradient(int width, int height, uint32_t seed) {
  std::unique_ptr<GdkPixbuf, decltype(&g_object_unref)> pixbuf(
      gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, width, height), &g_object_unref);
  if (!pixbuf) throw std::runtime_error("cannot make a picture");
  guchar *pixels = gdk_pixbuf_get_pixels(pixbuf.get());
  const int stride = gdk_pixbuf_get_rowstride(pixbuf.get());
  const int r = seed * 53 % 256, g = seed * 97 % 256, b = seed * 151 % 256;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      guchar *p = pixels + y * stride + x * 3;
      p[0] = static_cast<guchar>((r + x * 2) % 256);
      p[1] = static_cast<guchar>((g + y * 2) % 256);
      p[2] = static_cast<guchar>((b + (x + y)) % 256);
    }
  }
  return pixbuf;
}

// The pixels in a file format gdk-pixbuf writes: "jpeg" or "png".
std::string Encoded(GdkPixbuf *pixbuf, const char *format) {
  gchar *buffer = nullptr;
  gsize size = 0;
  GError *error = nullptr;
  const bool jpeg = std::string(format) == "jpeg";
  if (!(jpeg ? gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &size, format, &error, "quality", "75", nullptr)
             : gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &size, format, &error, nullptr))) {
    const std::string why = error ? error->message : "unknown error";
    if (error) g_error_free(error);
    throw std::runtime_error(std::string("gdk-pixbuf could not write ") + format + ": " + why);
  }
  std::string out(buffer, size);
  g_free(buffer);
  return out;
}

std::string ThumbnailJpeg(int width, int height, uint32_t seed) { return PictureFile("jpeg", width, height, seed); }

heif_error CollectHeif(heif_context *, const void *data, size_t size, void *out) {
  static_cast<std::string *>(out)->append(static_cast<const char *>(data), size);
  return {heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

// The pixels as HEIC through libheif's own HEVC encoder (x265 in Debian's build).
std::string EncodedHeic(GdkPixbuf *pixbuf) {
  const int width = gdk_pixbuf_get_width(pixbuf), height = gdk_pixbuf_get_height(pixbuf);
  std::unique_ptr<heif_context, decltype(&heif_context_free)> ctx(heif_context_alloc(), &heif_context_free);
  heif_encoder *encoder = nullptr;
  heif_error error = heif_context_get_encoder_for_format(ctx.get(), heif_compression_HEVC, &encoder);
  if (error.code != heif_error_Ok) throw std::runtime_error(std::string("libheif has no HEVC encoder: ") + error.message);
  std::unique_ptr<heif_encoder, decltype(&heif_encoder_release)> owned_encoder(encoder, &heif_encoder_release);
  heif_encoder_set_lossy_quality(encoder, 60);
  heif_image *raw = nullptr;
  heif_image_create(width, height, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &raw);
  std::unique_ptr<heif_image, decltype(&heif_image_release)> image(raw, &heif_image_release);
  heif_image_add_plane(raw, heif_channel_interleaved, width, height, 8);
  int stride = 0;
  uint8_t *plane = heif_image_get_plane(raw, heif_channel_interleaved, &stride);
  const guchar *pixels = gdk_pixbuf_get_pixels(pixbuf);
  const int from_stride = gdk_pixbuf_get_rowstride(pixbuf);
  for (int y = 0; y < height; ++y) std::copy_n(pixels + y * from_stride, width * 3, plane + y * stride);
  error = heif_context_encode_image(ctx.get(), raw, encoder, nullptr, nullptr);
  if (error.code != heif_error_Ok) throw std::runtime_error(std::string("libheif could not encode: ") + error.message);
  std::string out;
  heif_writer writer{1, &CollectHeif};
  error = heif_context_write(ctx.get(), &writer, &out);
  if (error.code != heif_error_Ok) throw std::runtime_error(std::string("libheif could not write: ") + error.message);
  return out;
}

// A real, decodable original of 320 x 240 pixels: "jpeg", "png" or "heic".
std::string PictureBytes(const std::string &format, uint32_t seed) { return PictureFile(format, 320, 240, seed + 7); }

// An edit sidecar as Photos writes it beside an edited original: an XML
// property list naming the adjustment format.
std::string Sidecar() {
  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "adjustmentFormatIdentifier", plist_new_string("com.apple.photo"));
  plist_dict_set_item(root, "adjustmentFormatVersion", plist_new_string("1.5"));
  plist_dict_set_item(root, "adjustmentBaseVersion", plist_new_uint(0));
  plist_dict_set_item(root, "adjustmentData", plist_new_data("\x01\x02\x03\x04", 4));
  char *xml = nullptr;
  uint32_t len = 0;
  plist_to_xml(root, &xml, &len);
  std::string out(xml, len);
  free(xml);
  plist_free(root);
  return out;
}

// Assets of every kind, the same for the same seed: mostly HEIC photos,
// some JPEG, Live Photos, videos and screenshots; a few favourites,
// trashed, hidden, cloud-only and edited ones.
// Their numbers start at `first` (IMG_<first>), each folder holding
// `per_folder` numbers, as the camera fills 100APPLE, 101APPLE, ...
json Generate(const json &g, const std::vector<std::string> &albums, int first) {
  const int count = g.value("assets", 0);
  first = g.value("first", first);
  const int per_folder = std::max(1, g.value("per_folder", 1000));
  const bool files = g.value("files", true), thumbnails = g.value("thumbnails", false);
  std::mt19937 rng(g.value("seed", 1u));
  static const char *kKinds[] = {"photo", "photo", "live", "photo", "video", "photo",
                                 "screenshot", "live", "photo", "photo", "video", "photo"};
  json assets = json::array();
  for (int i = 0; i < count; ++i) {
    const std::string kind = kKinds[i % std::size(kKinds)];
    char dir[32], name[32];
    const int number = first + i;
    std::snprintf(dir, sizeof dir, "DCIM/%03dAPPLE", 100 + (number - 1) / per_folder);
    const char *ext = kind == "video" ? "MOV" : kind == "screenshot" ? "PNG" : i % 6 == 5 ? "JPG" : "HEIC";
    std::snprintf(name, sizeof name, "IMG_%04d.%s", (number - 1) % 9999 + 1, ext);
    json a = {{"directory", dir}, {"filename", name}, {"kind", kind},
              {"taken", 1688169600 + static_cast<int64_t>(i) * 5400 + rng() % 3600}};
    if (kind == "video") {
      // Short clips, so that copying a roll stays quick.
      a["duration"] = 3.0 + rng() % 28 + (rng() % 1000) / 1000.0;
      a["size"] = static_cast<uint64_t>(a["duration"].get<double>() * 1500000);
    } else {
      a["size"] = 1500000 + rng() % 2500000;
    }
    if (i % 7 == 3) a["favorite"] = true;
    if (i % 19 == 11) a["trashed"] = true;
    if (i % 23 == 17) a["hidden"] = true;
    if (i % 13 == 8) a["cloud"] = true;
    if (i % 9 == 4 && kind != "video") a["aae"] = true;
    if (!files) a["file"] = false;
    if (thumbnails) a["thumbnail"] = true;
    if (!albums.empty() && i % (albums.size() + 1) < albums.size()) a["albums"] = {albums[i % (albums.size() + 1)]};
    assets.push_back(std::move(a));
  }
  return assets;
}

struct Album {
  int pk;
  int entity;
  int kind;
  std::string title;
  bool trashed;
  int parent;
  std::string uuid;
  std::vector<int> assets;  // asset indexes in album order
};

}  // namespace

std::string PictureFile(const std::string &format, int width, int height, uint32_t seed) {
  const auto pixbuf = Gradient(width, height, seed);
  if (format == "heic") return EncodedHeic(pixbuf.get());
  if (format == "jpeg" || format == "png") return Encoded(pixbuf.get(), format.c_str());
  throw std::runtime_error("no picture format " + format);
}

void WritePhotoLibrary(const json &lib, const fs::path &media) {
  const Model model = ModelFor(lib.value("ios", json(17)));
  const std::string asset_table = model.generic_asset ? "ZGENERICASSET" : "ZASSET";
  const std::string a = std::to_string(model.album_entity), b = std::to_string(model.asset_entity);
  const std::string join = "Z_" + a + "ASSETS", join_album = "Z_" + a + "ALBUMS", join_asset = "Z_" + b + "ASSETS",
                    join_order = "Z_FOK_" + b + "ASSETS";
  // Entities the tables below hold, numbered around the two that name the
  // join table. Before iOS 14 assets were a sub-entity of GenericAsset.
  const int album_ent = model.album_entity + 1, folder_ent = model.album_entity + 2,
            attributes_ent = 1, resource_ent = model.album_entity + 4;
  std::mt19937_64 rng(lib.contains("generate") ? lib["generate"].value("seed", 1u) : lib.value("seed", 1u));

  // Albums: a root folder that every top-level album and folder hangs
  // from, then the described ones.
  std::vector<Album> albums{{1, folder_ent, 3999, "", false, 0, Uuid(rng), {}}};
  std::map<std::string, size_t> album_by_title;
  std::vector<std::string> album_titles;
  for (const auto &d : lib.value("albums", json::array())) {
    const std::string title = d.at("title").get<std::string>();
    const bool folder = d.value("kind", std::string("album")) == "folder";
    int parent = 1;
    if (d.contains("parent")) {
      auto it = album_by_title.find(d["parent"].get<std::string>());
      if (it == album_by_title.end() || albums[it->second].kind != 4000)
        throw std::runtime_error("photo_library: no folder " + d["parent"].get<std::string>());
      parent = albums[it->second].pk;
    }
    if (!album_by_title.emplace(title, albums.size()).second)
      throw std::runtime_error("photo_library: album named twice: " + title);
    albums.push_back({static_cast<int>(albums.size()) + 1, folder ? folder_ent : album_ent, folder ? 4000 : 2, title,
                      d.value("trashed", false), parent, Uuid(rng), {}});
    if (!folder) album_titles.push_back(title);
  }

  json assets = lib.value("assets", json::array());
  if (lib.contains("generate")) {
    const int described = static_cast<int>(assets.size());
    for (auto &g : Generate(lib["generate"], album_titles, described + 1)) assets.push_back(std::move(g));
  }
  const size_t wal_assets = lib.value("wal_assets", size_t{0});
  if (wal_assets > assets.size()) throw std::runtime_error("photo_library: more wal_assets than assets");
  const size_t first_wal = assets.size() - wal_assets;
  for (size_t i = 0; i < assets.size(); ++i) {
    for (const auto &t : assets[i].value("albums", json::array())) {
      auto it = album_by_title.find(t.get<std::string>());
      if (it == album_by_title.end() || albums[it->second].kind != 2)
        throw std::runtime_error("photo_library: no album " + t.get<std::string>());
      albums[it->second].assets.push_back(static_cast<int>(i));
    }
  }

  const fs::path file = media / "PhotoData/Photos.sqlite";
  {
    SqliteDb db(file);
    db.Exec("PRAGMA journal_mode = WAL");
    db.Exec("BEGIN");
    db.Exec("CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);"
            "CREATE TABLE Z_METADATA (Z_VERSION INTEGER PRIMARY KEY, Z_UUID VARCHAR(255), Z_PLIST BLOB);"
            "CREATE TABLE Z_MODELCACHE (Z_CONTENT BLOB);");
    db.Exec("CREATE TABLE " + asset_table +
            " (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZFAVORITE INTEGER, ZHIDDEN INTEGER, "
            "ZKIND INTEGER, ZKINDSUBTYPE INTEGER, ZPLAYBACKSTYLE INTEGER, ZSAVEDASSETTYPE INTEGER, "
            "ZTRASHEDSTATE INTEGER, ZVISIBILITYSTATE INTEGER, ZHEIGHT INTEGER, ZWIDTH INTEGER, ZORIENTATION INTEGER, "
            "ZADDITIONALATTRIBUTES INTEGER, ZADDEDDATE TIMESTAMP, ZDATECREATED TIMESTAMP, ZDURATION FLOAT, "
            "ZMODIFICATIONDATE TIMESTAMP, ZTRASHEDDATE TIMESTAMP, ZLATITUDE FLOAT, ZLONGITUDE FLOAT, "
            "ZDIRECTORY VARCHAR, ZFILENAME VARCHAR, ZUNIFORMTYPEIDENTIFIER VARCHAR, ZUUID VARCHAR);"
            "CREATE INDEX " + asset_table + "_ZADDITIONALATTRIBUTES_INDEX ON " + asset_table +
            " (ZADDITIONALATTRIBUTES);");
    db.Exec("CREATE TABLE ZADDITIONALASSETATTRIBUTES (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, "
            "ZASSET INTEGER, ZORIGINALFILESIZE INTEGER, ZORIGINALHEIGHT INTEGER, ZORIGINALWIDTH INTEGER, "
            "ZTIMEZONEOFFSET INTEGER, ZORIGINALFILENAME VARCHAR, ZTIMEZONENAME VARCHAR, ZEXIFTIMESTAMPSTRING VARCHAR, "
            "ZCREATORBUNDLEID VARCHAR);"
            "CREATE TABLE ZINTERNALRESOURCE (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, "
            "ZASSET INTEGER, ZDATALENGTH INTEGER, ZLOCALAVAILABILITY INTEGER, ZREMOTEAVAILABILITY INTEGER, "
            "ZRESOURCETYPE INTEGER, ZVERSION INTEGER, ZRECIPEID INTEGER);"
            "CREATE TABLE ZGENERICALBUM (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZKIND INTEGER, "
            "ZCACHEDCOUNT INTEGER, ZCACHEDPHOTOSCOUNT INTEGER, ZCACHEDVIDEOSCOUNT INTEGER, "
            "ZCUSTOMSORTASCENDING INTEGER, ZCUSTOMSORTKEY INTEGER, ZTRASHEDSTATE INTEGER, ZPARENTFOLDER INTEGER, "
            "ZCREATIONDATE TIMESTAMP, ZTRASHEDDATE TIMESTAMP, ZTITLE VARCHAR, ZUUID VARCHAR);");
    db.Exec("CREATE TABLE " + join + " (" + join_album + " INTEGER, " + join_asset + " INTEGER, " + join_order +
            " INTEGER, PRIMARY KEY (" + join_album + ", " + join_asset + "));"
            "CREATE INDEX " + join + "_" + join_asset + "_INDEX ON " + join + " (" + join_asset + ", " + join_album +
            ");");

    {
      plist_t meta = plist_new_dict();
      plist_dict_set_item(meta, "PLModelVersion", plist_new_uint(static_cast<uint64_t>(model.model_version)));
      plist_dict_set_item(meta, "NSPersistenceMaximumFrameworkVersion", plist_new_uint(1244));
      char *bin = nullptr;
      uint32_t len = 0;
      plist_to_bin(meta, &bin, &len);
      const Blob bytes(bin, bin + len);
      free(bin);
      plist_free(meta);
      Statement(db, "INSERT INTO Z_METADATA (Z_VERSION, Z_UUID, Z_PLIST) VALUES (1, ?, ?)").Run(Uuid(rng), bytes);
    }
    Statement(db, "INSERT INTO Z_MODELCACHE (Z_CONTENT) VALUES (?)").Run(Blob{0x00});

    // Z_MAX follows the rows written so far; the WAL part moves it on.
    Statement entity(db, "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?,?,?,0)");
    entity.Run(attributes_ent, "AdditionalAssetAttributes", 0);
    if (model.generic_asset) {
      entity.Run(model.asset_entity - 1, "GenericAsset", 0);
      entity.Run(model.asset_entity, "Asset", model.asset_entity - 1);
    } else {
      entity.Run(model.asset_entity, "Asset", 0);
    }
    entity.Run(model.album_entity, "GenericAlbum", 0);
    entity.Run(album_ent, "Album", model.album_entity);
    entity.Run(folder_ent, "Folder", model.album_entity);
    entity.Run(resource_ent, "InternalResource", 0);

    Statement album_row(db, "INSERT INTO ZGENERICALBUM (Z_PK, Z_ENT, Z_OPT, ZKIND, ZCACHEDCOUNT, ZCACHEDPHOTOSCOUNT, "
                            "ZCACHEDVIDEOSCOUNT, ZCUSTOMSORTASCENDING, ZCUSTOMSORTKEY, ZTRASHEDSTATE, ZPARENTFOLDER, "
                            "ZCREATIONDATE, ZTRASHEDDATE, ZTITLE, ZUUID) VALUES (?,?,1,?,0,0,0,1,0,?,?,?,?,?,?)");
    const double created = 1672531200.0 - kAppleEpochOffset;
    for (const auto &al : albums) {
      if (al.title.empty()) {
        album_row.Run(al.pk, al.entity, al.kind, 0, nullptr, created, nullptr, nullptr, al.uuid);
      } else if (al.trashed) {
        album_row.Run(al.pk, al.entity, al.kind, 1, al.parent, created, created + 86400.0, al.title, al.uuid);
      } else {
        album_row.Run(al.pk, al.entity, al.kind, 0, al.parent, created, nullptr, al.title, al.uuid);
      }
    }

    Statement asset_row(db, "INSERT INTO " + asset_table +
                                " (Z_PK, Z_ENT, Z_OPT, ZFAVORITE, ZHIDDEN, ZKIND, ZKINDSUBTYPE, ZPLAYBACKSTYLE, "
                                "ZSAVEDASSETTYPE, ZTRASHEDSTATE, ZVISIBILITYSTATE, ZHEIGHT, ZWIDTH, ZORIENTATION, "
                                "ZADDITIONALATTRIBUTES, ZADDEDDATE, ZDATECREATED, ZDURATION, ZMODIFICATIONDATE, "
                                "ZTRASHEDDATE, ZLATITUDE, ZLONGITUDE, ZDIRECTORY, ZFILENAME, ZUNIFORMTYPEIDENTIFIER, "
                                "ZUUID) VALUES (?,?,2,?,?,?,?,?,?,?,0,?,?,1,?,?,?,?,?,?,-180.0,-180.0,?,?,?,?)");
    Statement trashed_date(db, "UPDATE " + asset_table + " SET ZTRASHEDDATE = ? WHERE Z_PK = ?");
    Statement attributes_row(db, "INSERT INTO ZADDITIONALASSETATTRIBUTES (Z_PK, Z_ENT, Z_OPT, ZASSET, "
                                 "ZORIGINALFILESIZE, ZORIGINALHEIGHT, ZORIGINALWIDTH, ZTIMEZONEOFFSET, "
                                 "ZORIGINALFILENAME, ZTIMEZONENAME, ZEXIFTIMESTAMPSTRING, ZCREATORBUNDLEID) "
                                 "VALUES (?,?,1,?,?,?,?,3600,?,'Europe/London',?,'com.apple.camera')");
    Statement resource_row(db, "INSERT INTO ZINTERNALRESOURCE (Z_PK, Z_ENT, Z_OPT, ZASSET, ZDATALENGTH, "
                               "ZLOCALAVAILABILITY, ZREMOTEAVAILABILITY, ZRESOURCETYPE, ZVERSION, ZRECIPEID) "
                               "VALUES (?,?,1,?,?,?,1,?,0,0)");
    Statement member_row(db, "INSERT INTO " + join + " (" + join_album + ", " + join_asset + ", " + join_order +
                                 ") VALUES (?,?,?)");
    int resources = 0;
    auto write_asset = [&](size_t i) {
      const json &d = assets[i];
      const std::string kind_name = d.value("kind", std::string("photo"));
      const Kind kind = KindOf(kind_name);
      const std::string dir = d.at("directory").get<std::string>(), name = d.at("filename").get<std::string>();
      if (dir.empty() || dir.front() == '/' || dir.find("..") != std::string::npos || name.find('/') != std::string::npos)
        throw std::runtime_error("photo_library: bad asset path " + dir + "/" + name);
      const bool video = kind.kind == 1, screenshot = kind.subtype == 10;
      const int width = d.value("width", video ? 1920 : screenshot ? 1179 : 4032);
      const int height = d.value("height", video ? 1080 : screenshot ? 2556 : 3024);
      const int64_t taken = d.value("taken", int64_t{1688169600});
      const double when = static_cast<double>(taken - kAppleEpochOffset);
      // A real picture, when asked for, sets the size; the rest are sparse.
      const std::string picture = d.contains("picture") ? PictureBytes(d["picture"].get<std::string>(), static_cast<uint32_t>(i)) : "";
      const uint64_t size = picture.empty() ? d.value("size", video ? uint64_t{20000000} : uint64_t{2500000}) : picture.size();
      const bool cloud = d.value("cloud", false), trashed = d.value("trashed", false);
      const int pk = static_cast<int>(i) + 1;
      const std::string uuid = Uuid(rng);
      asset_row.Run(pk, model.asset_entity, d.value("favorite", false) ? 1 : 0, d.value("hidden", false) ? 1 : 0,
                    kind.kind, kind.subtype, kind.playback, cloud ? 6 : 3, trashed ? 1 : 0, height, width, pk,
                    when + 30.517, when, video ? d.value("duration", 10.0) : 0.0, when + 60.25, nullptr, dir, name,
                    TypeIdentifier(name), uuid);
      if (trashed) trashed_date.Run(when + 7 * 86400.0, pk);
      char exif[32];
      const time_t t = static_cast<time_t>(taken);
      std::strftime(exif, sizeof exif, "%Y:%m:%d %H:%M:%S", std::gmtime(&t));
      attributes_row.Run(pk, attributes_ent, pk, size, height, width, name, std::string(exif));
      // The original, and for a Live Photo its paired video; an original
      // that lives only in iCloud is marked unavailable on the phone.
      resource_row.Run(++resources, resource_ent, pk, size, cloud ? -1 : 1, video ? 1 : 0);
      if (kind.subtype == 2) resource_row.Run(++resources, resource_ent, pk, size / 2, cloud ? -1 : 1, 3);

      const fs::path at = media / dir;
      const std::string stem = name.substr(0, name.rfind('.'));
      if (!cloud && d.value("file", true)) {
        WriteFile(at / name, size, picture, taken);
        if (kind.subtype == 2) WriteFile(at / (stem + ".MOV"), size / 2, "", taken);
      }
      if (d.value("aae", false)) WriteFile(at / (stem + ".AAE"), 0, Sidecar(), taken + 60);
      if (d.value("thumbnail", false)) {
        const bool portrait = height > width;
        WriteFile(media / "PhotoData/Thumbnails/V2" / dir / name / "5005.JPG", 0,
                  ThumbnailJpeg(portrait ? 90 : 120, portrait ? 120 : 90, static_cast<uint32_t>(i)), taken);
      }
    };
    // Album members (in album order, spaced ordering keys as Core Data
    // leaves them) and the cached counts, as of the assets written.
    Statement count_row(db, "UPDATE ZGENERICALBUM SET ZCACHEDCOUNT = ?, ZCACHEDPHOTOSCOUNT = ?, "
                            "ZCACHEDVIDEOSCOUNT = ? WHERE Z_PK = ?");
    auto write_members = [&](size_t from, size_t upto) {
      for (const auto &al : albums) {
        int photos = 0, videos = 0;
        for (size_t pos = 0; pos < al.assets.size(); ++pos) {
          const size_t m = static_cast<size_t>(al.assets[pos]);
          if (m >= upto) continue;
          (assets[m].value("kind", std::string()) == "video" ? videos : photos)++;
          if (m >= from) member_row.Run(al.pk, static_cast<int64_t>(m) + 1, static_cast<int64_t>(pos + 1) * 1024);
        }
        if (al.kind == 2) count_row.Run(photos + videos, photos, videos, al.pk);
      }
    };
    Statement max_row(db, "UPDATE Z_PRIMARYKEY SET Z_MAX = ? WHERE Z_ENT = ?");
    auto write_part = [&](size_t from, size_t upto) {
      for (size_t i = from; i < upto; ++i) write_asset(i);
      write_members(from, upto);
      max_row.Run(upto, model.asset_entity);
      max_row.Run(upto, attributes_ent);
      max_row.Run(resources, resource_ent);
      max_row.Run(albums.size(), model.album_entity);
    };
    write_part(0, first_wal);
    db.Exec("COMMIT");
    db.CheckpointThenKeepLog();
    if (wal_assets) {
      db.Exec("BEGIN");
      write_part(first_wal, assets.size());
      db.Exec("COMMIT");
    }
  }
  if (wal_assets && !(fs::exists(file.string() + "-wal") && fs::file_size(file.string() + "-wal") > 0))
    throw std::runtime_error("SQLite did not keep the log of " + file.string());
}

}  // namespace mkimage
