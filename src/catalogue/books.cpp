// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API plist_t GetBookList(PodDevice *, uint32_t, uint32_t) { return nullptr; }
TARN_API plist_t ReadBookDbTypePLIST(const char *, const char *) { return nullptr; }
TARN_API plist_t ReadBookDbTypePLISTBin(const char *) { return nullptr; }
TARN_API plist_t ReadBookFromPLIST(const char *, const char *, const char *, PodPlistParser) { return nullptr; }
}  // extern "C"
