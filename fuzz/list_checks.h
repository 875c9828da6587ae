// What every counted list result must hold, whatever database it was read
// from: "number" is the length of "item" and "total" the sum of the items'
// "size". Aborts with a message otherwise.
#pragma once

#include <cstdio>
#include <cstdlib>

#include <plist/plist.h>

#include "tarn/tarn_device.h"

namespace tarn_fuzz {

[[noreturn]] inline void Broken(const char *what, const char *rule) {
  std::fprintf(stderr, "%s: %s\n", what, rule);
  std::abort();
}

inline uint64_t UintOf(plist_t dict, const char *key, const char *what) {
  plist_t node = plist_dict_get_item(dict, key);
  if (plist_get_node_type(node) != PLIST_UINT) Broken(what, key);
  uint64_t v = 0;
  plist_get_uint_val(node, &v);
  return v;
}

// has_total: whether the result carries "total" (the music-database
// recording list does not).
inline void CheckCountedList(plist_t list, const char *what, bool has_total = true) {
  if (list == nullptr) return;
  if (plist_get_node_type(list) != PLIST_DICT) Broken(what, "result is not a dictionary");
  plist_t items = plist_dict_get_item(list, "item");
  if (plist_get_node_type(items) != PLIST_ARRAY) Broken(what, "no item array");
  const uint32_t n = plist_array_get_size(items);
  if (UintOf(list, "number", what) != n) Broken(what, "number is not the length of item");
  if (!has_total) return;
  uint64_t sum = 0;
  for (uint32_t i = 0; i < n; ++i) sum += UintOf(plist_array_get_item(items, i), "size", what);
  if (UintOf(list, "total", what) != sum) Broken(what, "total is not the sum of the sizes");
}

// A compressed music database at `path`, parsed, and then read by every
// reader built on the parse; each list must be consistent in itself.
inline void ReadMusicDatabase(const char *path) {
  GError *error = nullptr;
  Itdb_iTunesDB *db = m_itdb_parse_file(path, &error);
  if (error) g_error_free(error);
  if (db == nullptr) return;  // the readers parse again and fail alike
  itdb_free(db);
  for (uint32_t kind = 0; kind <= 6; ++kind) {
    plist_t list = ReadTrackDbTypeCdb(path, kind);
    CheckCountedList(list, "track list");
    if (list) plist_free(list);
  }
  if (plist_t playlists = ReadPlaylistDbTypeCdb(path)) plist_free(playlists);
  plist_t recordings = ReadRecordingDbTypeCdb(path);
  CheckCountedList(recordings, "recordings", false);
  if (recordings) plist_free(recordings);
}

}  // namespace tarn_fuzz
