// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API PodDir *GetPodDir(PodDevice *, const char *, uint32_t) { return nullptr; }
TARN_API void FreePodDir(PodDir *, int, PodDir *) {}
TARN_API void SetDirInfo(char **, PodDir *, const char *) {}
TARN_API void SetFileInfo(char **, PodFile *, const char *) {}
TARN_API void StoreSubFolderAndFilesInfo(afc_client_t, PodDir *, PodDir *, int32_t) {}
}  // extern "C"
