// Fuzz target: the compressed music database, the file as input: the parse
// itself and every reader built on it (track lists of each kind, playlists,
// recordings). A corrupt database must give null, never a crash.
#include "fake_device.h"
#include "input_file.h"
#include "list_checks.h"
#include "tarn/tarn_device.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile file("iTunesCDB");
  const char *path = file.Write(data, size);
  GError *error = nullptr;
  Itdb_iTunesDB *db = m_itdb_parse_file(path, &error);
  if (error) g_error_free(error);
  if (db == nullptr) return 0;  // the readers parse again and fail alike
  itdb_free(db);
  for (uint32_t kind = 0; kind <= 6; ++kind) {
    plist_t list = ReadTrackDbTypeCdb(path, kind);
    tarn_fuzz::CheckCountedList(list, "track list");
    if (list) plist_free(list);
  }
  if (plist_t playlists = ReadPlaylistDbTypeCdb(path)) plist_free(playlists);
  plist_t recordings = ReadRecordingDbTypeCdb(path);
  tarn_fuzz::CheckCountedList(recordings, "recordings", false);
  if (recordings) plist_free(recordings);
  return 0;
}
