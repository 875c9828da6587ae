// The result shapes every catalogue list shares, and the one builder of the
// ten-key media item, for tracks of the music database and for purchases.
#pragma once

#include <cstdint>
#include <string>

#include <gpod/itdb.h>
#include <plist/plist.h>

namespace tarn {

// {"number": 0, "total": 0, "item": []}, keys in that order.
plist_t NewTrackListResult();

// The "item" array of a list result.
plist_t ListItems(plist_t result);

// Adds to "number" and "total" of a list result.
void AddToListCounts(plist_t result, uint64_t number, uint64_t total);

// A track's size as the database holds it: a signed 32-bit value, widened
// with its sign so that totals add up the same way everywhere.
uint64_t TrackSize(const Itdb_Track *track);

// The media item of a music database track: "id", "size", "path" (":" turned
// into "/"), "title", "time", "artist", "album", "genre", "rating", "plays".
plist_t MediaItemFromTrack(const Itdb_Track *track);

// The media item of a purchases entry whose file is `device_path`, `size`
// bytes long on the device. Its "rating" carries the entry's "bitRate" and
// "plays" its "discCount": applications read them that way.
plist_t MediaItemFromPurchase(plist_t entry, const char *device_path, uint64_t size);

// One item of a phone's music library (MediaLibrary.sqlitedb), its values
// already checked: texts never null, numbers never negative.
struct LibraryTrack {
  uint64_t id = 0;
  int64_t media_type = 0;
  uint64_t size = 0;       // 0 for an item without a file on the phone
  std::string path;        // "" for an item without a file on the phone
  const char *title = "";
  uint64_t time = 0;       // milliseconds
  const char *artist = "";
  const char *album = "";
  const char *genre = "";
  uint64_t rating = 0;     // 0-100, stars times 20
  uint64_t plays = 0;
  const char *album_artist = "";
  const char *composer = "";
  uint64_t track = 0;
  uint64_t disc = 0;
  uint64_t year = 0;
  uint64_t date_added = 0;  // seconds since 1970, 0 when unknown
  bool cloud = false;       // no file on the phone: nothing to copy
  bool purchased = false;
  std::string artwork;      // the device path of its cover, "" when the library names none
};

// The media item of a music-library track: the ten keys every track list
// carries, then what this library knows beyond them, in this order:
// "album_artist", "composer" (strings, "" when unknown), "track", "disc",
// "year", "date_added" (unsigned integers, 0 when unknown), "cloud" and
// "purchased" (booleans), and "artwork" (the device path of its cover) only
// where the library names one. Callers that read the ten keys see them as
// always.
plist_t MediaItemFromLibrary(const LibraryTrack &track);

}  // namespace tarn
