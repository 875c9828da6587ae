// How the catalogue's readers hold a parsed local copy of the compressed
// music database.
#pragma once

#include <functional>
#include <map>
#include <string>

#include <gpod/itdb.h>

#include "common/raii.h"

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

 private:
  friend class MusicDatabase;
  bool active_ = false;
  // A failed parse is kept too (as null): the file does not change within
  // the call, so parsing it again would fail again.
  std::map<std::string, ItdbPtr> parsed_;
};

// Host copies of a device's artwork: its artwork folder (ArtworkDB beside
// the F<format>_<n>.ithmb files that hold the pixels) and its
// SysInfoExtended ("" when the device keeps none), which names the cover
// formats those files are read by.
struct DeviceArtwork {
  std::string folder;
  std::string sysinfo_extended;
};

// Parses the compressed music database at `path` together with the
// device's artwork, and hands the parse to `use` while libgpod can still
// read the covers' pixels (itdb_track_get_thumbnail). False, with the
// reason recorded, when the file is no music database; an artwork database
// libgpod cannot read leaves the tracks without covers.
bool ParseWithArtwork(const char *path, const DeviceArtwork &artwork,
                      const std::function<void(Itdb_iTunesDB *)> &use);

// Parses a music database file with libgpod, recording why it gave nothing.
Itdb_iTunesDB *m_itdb_parse_file(const char *path, GError **error);

}  // namespace tarn
