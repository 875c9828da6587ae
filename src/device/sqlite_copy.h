// Local copies of the SQLite databases a phone keeps in write-ahead-log
// mode (the music library, the photo library).
#pragma once

#include <string>

#include <libimobiledevice/afc.h>

#include "tarn/tarn_device.h"

namespace tarn {

// True when the device keeps a write-ahead log ("-wal") beside the database.
bool HasWriteAheadLog(afc_client_t client, const char *device_path);

// Makes local_path a whole, consistent copy of the device's database with
// the rows that live only in its write-ahead log: the database, its -wal and
// -shm are copied together under the device's sync lock into a private
// folder, checked, and folded into one self-contained file that replaces
// local_path only when complete. A copy that the device changed while it
// was read is made again (a few times), never used. A copy still current
// (the device's files have the size and time recorded with it) is kept.
// False, with the reason recorded, when no consistent copy could be made;
// local_path is then left as it was.
bool CopyWalDatabase(PodDevice *device, afc_client_t client, const char *device_path, const std::string &local_path);

}  // namespace tarn
