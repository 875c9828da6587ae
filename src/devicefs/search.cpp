// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API PodSearchItem *SearchFile(PodDevice *, const char *, const char *) { return nullptr; }
TARN_API void InternalSearchFile(afc_client_t, const char *, PodSearchState *) {}
TARN_API void FreeSearchResult(PodSearchItem *) {}
TARN_API int RenamePath(PodDevice *, const char *, const char *) { return 0; }
TARN_API int DeleteFile(PodDevice *, const char *) { return 1; }
TARN_API int DeleteDir(PodDevice *, const char *) { return 0; }
TARN_API void _TarnDeleteDir(afc_client_t, PodDir *, PodDir *) {}
}  // extern "C"
