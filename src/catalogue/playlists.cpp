// Every playlist of the music database, each member as a full media item.
#include <cstdio>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/raii.h"
#include "musicdb/music_database.h"
#include "tarn/tarn_device.h"

namespace tarn {

plist_t ReadPlaylistDbTypeCdb(const char *path) {
  const tarn::MusicDatabase db(path);
  if (!db) return nullptr;
  const uint32_t count = itdb_playlists_number(db.get());
  tarn::Console("playlists_number is %d\n", static_cast<int>(count));
  if (count == 0) return nullptr;
  plist_t result = plist_new_array();
  for (GList *l = db->playlists; l != nullptr; l = l->next) {
    auto *playlist = static_cast<Itdb_Playlist *>(l->data);
    plist_t entry = plist_new_dict();
    plist_array_append_item(result, entry);
    // libgpod names every playlist it reads; an empty name is still kept
    // as the empty string rather than left out.
    tarn::InsertPlistDictString(entry, "name", playlist->name);
    plist_dict_set_item(entry, "number", plist_new_uint(g_list_length(playlist->members)));
    plist_t items = plist_new_array();
    plist_dict_set_item(entry, "item", items);
    for (GList *m = playlist->members; m != nullptr; m = m->next) {
      plist_array_append_item(items, tarn::MediaItemFromTrack(static_cast<Itdb_Track *>(m->data)));
    }
  }
  return result;
}

}  // namespace tarn

extern "C" {

TARN_API plist_t ReadPlaylistDbTypeCdb(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::ReadPlaylistDbTypeCdb(path);
}

TARN_API plist_t GetPlayList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("GetPlayList");
  plist_t result = nullptr;
  if (const auto library = tarn::MediaLibraryCopy(device)) {
    result = tarn::ReadPlaylistDbTypeSQLITE(library->c_str());
  } else if (!tarn::WalkDbFiles(device, "TrackDb", [&](uint64_t type, const char *device_path) {
        if (type != tarn::kTrackDbCdb) return false;
        result = tarn::ReadPlaylistDbTypeCdb(tarn::LocalCopyPath(device, device_path).c_str());
        return true;
      })) {
    return nullptr;
  }
  tarn::PrintPlist(result);
  tarn::ConsoleLine("GetPlayList END");
  return result;
}

}  // extern "C"
