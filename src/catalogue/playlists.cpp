// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetPlayList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t ReadPlaylistDbTypeCdb(const char *) { return nullptr; }
}  // extern "C"
