// Fuzz target: the music-library readers (MediaLibrary.sqlitedb of current
// phones), the database file as input. Every list kind and the playlists
// are read from each input.
#include "fake_device.h"
#include "input_file.h"
#include "list_checks.h"
#include "tarn/tarn_device.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile file("MediaLibrary.sqlitedb");
  const char *path = file.Write(data, size);
  for (uint32_t kind = 0; kind < 8; ++kind) {
    plist_t list = ReadTrackDbTypeSQLITE(path, kind);
    tarn_fuzz::CheckCountedList(list, "music library");
    if (list) plist_free(list);
  }
  plist_t playlists = ReadPlaylistDbTypeSQLITE(path);
  if (playlists) plist_free(playlists);
  return 0;
}
