// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetMusicList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t GetMovieList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t GetPodcastList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t GetTvshowList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t GetAudioBookList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t GetRingtonesList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t ReadTrackDbTypeCdb(const char *, uint32_t) { return nullptr; }
TARN_API int IsMatchTrackType(Itdb_Track *, uint32_t) { return 0; }
}  // extern "C"
