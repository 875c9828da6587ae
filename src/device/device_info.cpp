// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetDeviceInfo(PodDevice *) { return nullptr; }
TARN_API void SetDeviceUsage(PodDevice *, afc_client_t, plist_t) {}
}  // extern "C"
