// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetCameraPVList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t ReadCameraDbTypeSQLITE(PodDevice *, const char *) { return nullptr; }
TARN_API int CameraPictureCallback(void *, int, char **, char **) { return 0; }
TARN_API plist_t ReadCameraDbTypeFromDevice(PodDevice *) { return nullptr; }
}  // extern "C"
