// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetRecordingList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t ReadRecordingDbTypeSQLITE(PodDevice *, const char *) { return nullptr; }
TARN_API int RecordingDbCallback(void *, int, char **, char **) { return 0; }
TARN_API plist_t ReadRecordingDbTypeCdb(const char *) { return nullptr; }
TARN_API int IsMatchRecordingPath(const char *) { return 0; }
TARN_API char *GetFormatedRecordingTime(const char *, char *dest) { return dest; }
}  // extern "C"
