// Placeholder: replaced by the real implementation.
#include "tarn/tarn_device.h"

extern "C" {

TARN_API Itdb_iTunesDB *m_itdb_parse_file(const char *, GError **) { return nullptr; }
}  // extern "C"
