// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API uint32_t GetPurchaseMusicListFromPlist(PodDevice *, const char *, plist_t, uint64_t *, PodPlistParser) { return 0; }
}  // extern "C"
