// The result shapes every catalogue list shares, and the one builder of the
// ten-key media item, for tracks of the music database and for purchases.
#pragma once

#include <cstdint>

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

}  // namespace tarn
