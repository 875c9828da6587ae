// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API int InitDevice(PodDevice *, const char *) { return 1; }
TARN_API int IsPodFileValid(afc_client_t, const char *) { return 0; }
TARN_API plist_t GetMusicDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetPodcastDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetTvshowDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetAudioBookDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetMovieDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetBookDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetCameraDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetRecordingDBFileInfo(afc_client_t) { return nullptr; }
TARN_API plist_t GetUserPictureDBFileInfo(afc_client_t) { return nullptr; }
TARN_API int CopyDbFileToNativeDir(PodDevice *, afc_client_t, plist_t) { return 1; }
}  // extern "C"
