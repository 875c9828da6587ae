// Fuzz target: the voice-recording SQLite reader, the database file as
// input, against a well-behaved device that answers every file-size question.
#include "fake_device.h"
#include "input_file.h"
#include "list_checks.h"
#include "tarn/tarn_device.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile file("Recordings.db");
  const char *path = file.Write(data, size);
  PodDevice *device = CreatePodDevice("00008030-000FUZZ0000DEV1");
  plist_t list = ReadRecordingDbTypeSQLITE(device, path);
  tarn_fuzz::CheckCountedList(list, "recordings");
  if (list) plist_free(list);
  FreePodDevice(device);
  tarn_fuzz::ExpectAllReleased("ReadRecordingDbTypeSQLITE");
  return 0;
}
