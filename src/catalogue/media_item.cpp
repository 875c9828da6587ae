#include "catalogue/media_item.h"

#include "common/helpers.h"
#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace tarn {

plist_t NewTrackListResult() {
  plist_t result = plist_new_dict();
  plist_dict_set_item(result, "number", plist_new_uint(0));
  plist_dict_set_item(result, "total", plist_new_uint(0));
  plist_dict_set_item(result, "item", plist_new_array());
  return result;
}

plist_t ListItems(plist_t result) { return plist_dict_get_item(result, "item"); }

void AddToListCounts(plist_t result, uint64_t number, uint64_t total) {
  for (const auto &[key, add] : {std::pair{"number", number}, std::pair{"total", total}}) {
    uint64_t value = 0;
    plist_get_uint_val(plist_dict_get_item(result, key), &value);
    plist_dict_set_item(result, key, plist_new_uint(value + add));
  }
}

uint64_t TrackSize(const Itdb_Track *track) {
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(track->size)));
}

plist_t MediaItemFromTrack(const Itdb_Track *track) {
  plist_t item = plist_new_dict();
  plist_dict_set_item(item, "id", plist_new_uint(track->id));
  plist_dict_set_item(item, "size", plist_new_uint(TrackSize(track)));
  CString path(tarn::ReplaceChar(track->ipod_path, '/', ':'));
  tarn::InsertPlistDictString(item, "path", path.get());
  tarn::InsertPlistDictString(item, "title", track->title);
  plist_dict_set_item(item, "time", plist_new_uint(static_cast<uint64_t>(static_cast<int64_t>(track->tracklen))));
  tarn::AddNoneValuePlistDictString(item, "artist", track->artist);
  tarn::AddNoneValuePlistDictString(item, "album", track->album);
  tarn::AddNoneValuePlistDictString(item, "genre", track->genre);
  plist_dict_set_item(item, "rating", plist_new_uint(track->rating));
  plist_dict_set_item(item, "plays", plist_new_uint(track->playcount));
  return item;
}

plist_t MediaItemFromPurchase(plist_t entry, const char *device_path, uint64_t size) {
  plist_t item = plist_new_dict();
  plist_dict_set_item(item, "id", plist_copy(plist_dict_get_item(entry, "itemId")));
  plist_dict_set_item(item, "size", plist_new_uint(size));
  plist_dict_set_item(item, "path", plist_new_string(device_path));
  plist_dict_set_item(item, "title", tarn::PlistCopyEmptyString(plist_dict_get_item(entry, "itemName")));
  plist_dict_set_item(item, "time", tarn::PlistCopyZero(plist_dict_get_item(entry, "duration")));
  plist_dict_set_item(item, "artist", tarn::PlistCopyEmptyString(plist_dict_get_item(entry, "playlistArtistName")));
  plist_dict_set_item(item, "album", tarn::PlistCopyEmptyString(plist_dict_get_item(entry, "playlistName")));
  plist_dict_set_item(item, "genre", tarn::PlistCopyEmptyString(plist_dict_get_item(entry, "genre")));
  // Deliberately crossed: the purchase's bit rate and disc count are what
  // its "rating" and "plays" have always carried.
  plist_dict_set_item(item, "rating", tarn::PlistCopyZero(plist_dict_get_item(entry, "bitRate")));
  plist_dict_set_item(item, "plays", tarn::PlistCopyZero(plist_dict_get_item(entry, "discCount")));
  return item;
}

plist_t MediaItemFromLibrary(const LibraryTrack &track) {
  plist_t item = plist_new_dict();
  plist_dict_set_item(item, "id", plist_new_uint(track.id));
  plist_dict_set_item(item, "size", plist_new_uint(track.size));
  tarn::InsertPlistDictString(item, "path", track.path.c_str());
  tarn::InsertPlistDictString(item, "title", track.title);
  plist_dict_set_item(item, "time", plist_new_uint(track.time));
  tarn::AddNoneValuePlistDictString(item, "artist", track.artist);
  tarn::AddNoneValuePlistDictString(item, "album", track.album);
  tarn::AddNoneValuePlistDictString(item, "genre", track.genre);
  plist_dict_set_item(item, "rating", plist_new_uint(track.rating));
  plist_dict_set_item(item, "plays", plist_new_uint(track.plays));
  tarn::InsertPlistDictString(item, "album_artist", track.album_artist);
  tarn::InsertPlistDictString(item, "composer", track.composer);
  plist_dict_set_item(item, "track", plist_new_uint(track.track));
  plist_dict_set_item(item, "disc", plist_new_uint(track.disc));
  plist_dict_set_item(item, "year", plist_new_uint(track.year));
  plist_dict_set_item(item, "date_added", plist_new_uint(track.date_added));
  plist_dict_set_item(item, "cloud", plist_new_bool(track.cloud));
  plist_dict_set_item(item, "purchased", plist_new_bool(track.purchased));
  if (!track.artwork.empty()) tarn::InsertPlistDictString(item, "artwork", track.artwork.c_str());
  return item;
}

}  // namespace tarn
