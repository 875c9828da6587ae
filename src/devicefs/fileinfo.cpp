// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API char **GetFileInfo(afc_client_t, const char *) { return nullptr; }
TARN_API char **GetDirOrFileInfo(PodDevice *, const char *) { return nullptr; }
TARN_API int IsDirExist(PodDevice *, const char *) { return 0; }
TARN_API int IsFileExist(PodDevice *, const char *) { return 0; }
TARN_API int MakeDir(PodDevice *, const char *) { return 1; }
}  // extern "C"
