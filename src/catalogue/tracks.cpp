// Track lists by media kind, read from the local copy of the compressed
// music database; the music list also takes in the purchases.
#include <cstdio>
#include <string>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/raii.h"
#include "musicdb/music_database.h"
#include "tarn/tarn_device.h"

namespace {

// A kind's list reads the phone's music library where it has one, else the
// compressed database only: the plain iTunesDB is never taken as a fallback.
plist_t ListOfKind(PodDevice *device, uint32_t kind) {
  if (const auto library = tarn::MediaLibraryCopy(device)) return tarn::ReadTrackDbTypeSQLITE(library->c_str(), kind);
  plist_t result = nullptr;
  tarn::WalkDbFiles(device, "TrackDb", [&](uint64_t type, const char *device_path) {
    if (type != tarn::kTrackDbCdb) return false;
    result = tarn::ReadTrackDbTypeCdb(tarn::LocalCopyPath(device, device_path).c_str(), kind);
    return true;
  });
  return result;
}

}  // namespace

namespace tarn {

int IsMatchTrackType(Itdb_Track *track, uint32_t kind) {
  if (track == nullptr) return 0;
  // The whole value is compared, never single bits: a track that combines
  // flags (0x60, 0x3) is no TV show and no movie and counts as music.
  const uint32_t type = track->mediatype;
  switch (kind) {
    case tarn::kMusicKind:
      return type != 0x2 && type != 0x4 && type != 0x6 && type != 0x8 && type != 0x40 && type != 0x4000 &&
             type != 0x400000;
    case tarn::kMovieKind: return type == 0x2;
    case tarn::kPodcastKind: return type == 0x4 || type == 0x6;
    case tarn::kTvShowKind: return type == 0x40;
    case tarn::kAudioBookKind: return type == 0x8;
    case tarn::kRingtoneKind: return type == 0x4000;
    case 6: return type == 0x400000;
    default: return 0;
  }
}

plist_t ReadTrackDbTypeCdb(const char *path, uint32_t kind) {
  const tarn::MusicDatabase db(path);
  if (!db || itdb_tracks_number(db.get()) == 0) return nullptr;
  tarn::PlistPtr result(tarn::NewTrackListResult());
  plist_t items = tarn::ListItems(result.get());
  uint64_t count = 0, total = 0;
  for (GList *l = db->tracks; l != nullptr; l = l->next) {
    auto *track = static_cast<Itdb_Track *>(l->data);
    if (tarn::IsMatchTrackType(track, kind) != 1) continue;
    plist_array_append_item(items, tarn::MediaItemFromTrack(track));
    total += tarn::TrackSize(track);
    ++count;
  }
  tarn::AddToListCounts(result.get(), count, total);
  return result.release();
}

plist_t GetMusicList(PodDevice *device) {
  tarn::ConsoleLine("GetAudioList");
  // The phone's music library holds its purchases too: the purchases plist
  // beside it would list them twice.
  if (const auto library = tarn::MediaLibraryCopy(device))
    return tarn::ReadTrackDbTypeSQLITE(library->c_str(), tarn::kMusicKind);
  plist_t result = nullptr;
  tarn::WalkDbFiles(device, "TrackDb", [&](uint64_t type, const char *device_path) {
    const std::string local = tarn::LocalCopyPath(device, device_path);
    if (type == tarn::kTrackDbCdb) {
      result = tarn::ReadTrackDbTypeCdb(local.c_str(), tarn::kMusicKind);
      return false;
    }
    if (type != tarn::kTrackDbPurchases) return false;
    // Purchases come after the database tracks, also when the database
    // gave nothing.
    if (result == nullptr) result = tarn::NewTrackListResult();
    PodPlistParser parser = tarn::IsBinPlist(local.c_str()) ? plist_from_bin : plist_from_xml;
    uint64_t bytes = 0;
    const uint32_t added =
        tarn::GetPurchaseMusicListFromPlist(device, local.c_str(), tarn::ListItems(result), &bytes, parser);
    tarn::AddToListCounts(result, added, bytes);
    return true;
  });
  return result;
}

plist_t GetMovieList(PodDevice *device) {
  tarn::ConsoleLine("GetVideoList");
  return ListOfKind(device, tarn::kMovieKind);
}

}  // namespace tarn

extern "C" {

TARN_API int IsMatchTrackType(Itdb_Track *track, uint32_t kind) {
  const tarn::ApiCall api_call;
  return tarn::IsMatchTrackType(track, kind);
}

TARN_API plist_t ReadTrackDbTypeCdb(const char *path, uint32_t kind) {
  const tarn::ApiCall api_call;
  return tarn::ReadTrackDbTypeCdb(path, kind);
}

TARN_API plist_t GetMusicList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return tarn::GetMusicList(device);
}

TARN_API plist_t GetMovieList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return tarn::GetMovieList(device);
}
TARN_API plist_t GetPodcastList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return ListOfKind(device, tarn::kPodcastKind);
}
TARN_API plist_t GetTvshowList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return ListOfKind(device, tarn::kTvShowKind);
}
TARN_API plist_t GetAudioBookList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return ListOfKind(device, tarn::kAudioBookKind);
}
TARN_API plist_t GetRingtonesList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return ListOfKind(device, tarn::kRingtoneKind);
}

}  // extern "C"
