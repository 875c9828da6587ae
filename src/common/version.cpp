// TarnVersion: compiled into the library, so that an application learns the
// version it runs with rather than the one its header named.
#include "tarn/tarn_device.h"

extern "C" TARN_API const char *TarnVersion(void) { return TARN_DEVICE_VERSION; }
