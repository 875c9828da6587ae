// Fuzz target: the plain music database that the compressed file holds.
// The input is the database as libgpod's parser sees it (header, then the
// inflated body); the target deflates the body and writes the file the
// device would hold, with a valid zlib checksum and total length. Mutating
// the compressed file instead (the music_db target) almost never gets past
// zlib's checksum, so this is the target that reaches the record structure.
#include <zlib.h>

#include <cstring>
#include <vector>

#include "fake_device.h"
#include "input_file.h"
#include "list_checks.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 12 || size > (size_t{1} << 22)) return -1;
  uint32_t header_length;
  std::memcpy(&header_length, data + 4, 4);
  if (header_length < 12 || header_length > size) return -1;
  const size_t body = size - header_length;
  uLongf packed_length = compressBound(body);
  std::vector<uint8_t> file(header_length + packed_length);
  std::memcpy(file.data(), data, header_length);
  if (compress2(file.data() + header_length, &packed_length, data + header_length, body, 1) != Z_OK) return -1;
  file.resize(header_length + packed_length);
  const uint32_t total = static_cast<uint32_t>(file.size());
  std::memcpy(file.data() + 8, &total, 4);
  // The compression flag: a compressed database says so.
  if (header_length >= 0xAA) file[0xA8] = 1, file[0xA9] = 0;

  static const tarn_fuzz::InputFile input("iTunesCDB");
  const char *path = input.Write(file.data(), file.size());
  tarn_fuzz::ReadMusicDatabase(path);
  return 0;
}
