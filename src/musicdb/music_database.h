// How the catalogue's readers hold a parsed local copy of the compressed
// music database.
#pragma once

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <gpod/itdb.h>

#include "common/raii.h"

// As gdk-pixbuf declares it; the pictures are only handed on from here.
typedef struct _GdkPixbuf GdkPixbuf;

namespace tarn {

// The parse of one local copy for the length of one reader: the reader's
// own parse, or the one a SharedMusicDatabase on this thread already made of
// the same file. Null when the file is no music database.
class MusicDatabase {
 public:
  explicit MusicDatabase(const char *path);
  MusicDatabase(const MusicDatabase &) = delete;
  MusicDatabase &operator=(const MusicDatabase &) = delete;

  Itdb_iTunesDB *get() const { return db_; }
  Itdb_iTunesDB *operator->() const { return db_; }
  explicit operator bool() const { return db_ != nullptr; }

 private:
  ItdbPtr owned_;
  Itdb_iTunesDB *db_ = nullptr;
};

// While one of these lives, the readers on this thread parse each local copy
// once and share that parse: a call that builds several lists from the same
// database (the device information's music and movie totals) pays for one
// parse, not one per list. Everything is freed when it goes out of scope,
// so no parse outlives the call that made it. An inner one, on a thread
// that has one already, leaves the outer one in charge.
class SharedMusicDatabase {
 public:
  SharedMusicDatabase();
  ~SharedMusicDatabase();
  SharedMusicDatabase(const SharedMusicDatabase &) = delete;
  SharedMusicDatabase &operator=(const SharedMusicDatabase &) = delete;

  // Starts the parse of `path` on a thread of its own, for a call that has
  // the device to talk to first: the readers on this thread take that parse
  // when they come to it. Nothing when an outer one is in charge, or the
  // file is parsed already. A parse that fails is made again by the reader,
  // so that the reason is recorded on the caller's thread.
  void ParseAhead(const std::string &path);

 private:
  friend class MusicDatabase;
  bool active_ = false;
  // A failed parse is kept too (as null): the file does not change within
  // the call, so parsing it again would fail again.
  std::map<std::string, ItdbPtr> parsed_;
  // Declared last: destroyed first, each waiting for its parse.
  std::map<std::string, std::future<ItdbPtr>> ahead_;
};

// Host copies of a device's artwork: its artwork folder (ArtworkDB beside
// the F<format>_<n>.ithmb files that hold the pixels) and its
// SysInfoExtended ("" when the device keeps none), which names the cover
// formats those files are read by.
struct DeviceArtwork {
  std::string folder;
  std::string sysinfo_extended;
};

// The covers of an older device's tracks, from one parse of its music
// database with its artwork database, kept for every cover asked of it
// afterwards. libgpod reads a cover's pixels only when one is asked for,
// from the .ithmb files, by the formats of the device it parsed them with;
// so the covers keep that device, the layout that reaches the files, and of
// the tracks only which picture each has (a whole library's parse would
// cost tens of MiB).
class TrackCovers {
 public:
  enum class Cover { kNoSuchTrack, kNone, kUnreadable, kPicture };

  // Null, with the reason recorded, when the file is no music database; an
  // artwork database libgpod cannot read leaves every track's cover
  // unreadable.
  static std::shared_ptr<const TrackCovers> Read(const char *path, const DeviceArtwork &artwork);
  ~TrackCovers();
  TrackCovers(const TrackCovers &) = delete;
  TrackCovers &operator=(const TrackCovers &) = delete;

  // The track's cover at the largest size the device keeps, into *picture
  // when the answer is kPicture.
  Cover Find(uint64_t track_id, GObjectPtr<GdkPixbuf> *picture) const;

 private:
  TrackCovers() = default;
  struct ArtworkFree {
    void operator()(Itdb_Artwork *a) const { if (a) itdb_artwork_free(a); }
  };
  struct Entry {
    Cover cover = Cover::kNone;
    size_t picture = 0;
  };
  std::shared_ptr<void> layout_;
  Itdb_Device *device_ = nullptr;
  std::vector<std::unique_ptr<Itdb_Artwork, ArtworkFree>> pictures_;
  std::unordered_map<uint64_t, Entry> tracks_;
  mutable std::mutex mutex_;
};

// Parses a music database file with libgpod, recording why it gave nothing.
Itdb_iTunesDB *m_itdb_parse_file(const char *path, GError **error);

}  // namespace tarn
