// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetUserPictureListFromDevice(PodDevice *) { return nullptr; }
TARN_API plist_t GetPictureListFromDevice(PodDevice *, const char **, int32_t) { return nullptr; }
TARN_API int GetDirAllPicture(afc_client_t, plist_t, const char *, uint64_t *) { return 0; }
TARN_API plist_t GetUserPictureList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t ReadUserPictureDbTypeCdb(const char *) { return nullptr; }
}  // extern "C"
