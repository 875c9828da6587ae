// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API void CopyFileFromDeviceToNative(PodDevice *, const char *, const char *, PodProgressCallback) {}
TARN_API int CopyFileFromNativeToDevice(PodDevice *, const char *, const char *, PodProgressCallback) { return 1; }
TARN_API void CopyDeviceDirectory(PodDevice *, const char *, const char *) {}
TARN_API void _CopyFileFromDeviceToNative(PodDevice *, afc_client_t, const char *, const char *, PodProgressCallback) {}
TARN_API void _TarnCopyFileFromNativeToDevice(PodDevice *, afc_client_t, const char *, const char *, PodProgressCallback) {}
TARN_API void _CopyDirectory(PodDevice *, afc_client_t, const char *, const char *, const char *) {}
}  // extern "C"
