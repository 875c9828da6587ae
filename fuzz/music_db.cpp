// Fuzz target: the compressed music database, the file as input: the parse
// itself and every reader built on it (track lists of each kind, playlists,
// recordings). A corrupt database must give null, never a crash.
#include "fake_device.h"
#include "input_file.h"
#include "list_checks.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile file("iTunesCDB");
  const char *path = file.Write(data, size);
  tarn_fuzz::ReadMusicDatabase(path);
  return 0;
}
