// Pictures the programs read and write themselves: HEIC decoded through
// libheif, since neither Qt nor the command line reads it, and JPEG written
// through libjpeg for the import's conversion of HEIC for programs that do
// not read HEIC. JPEG and PNG are read by Qt in the window.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::app {

// Pixels as 8-bit RGB triples, rows packed.
struct RgbImage {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;
  bool empty() const { return width <= 0 || height <= 0; }
};

// Whether a file name is that of a HEIF picture (.heic, .heif), ignoring case.
bool IsHeic(std::string_view name);

// The picture of a HEIC file, turned as the file says it is shown. With
// `smallest_side` > 0 an embedded thumbnail is taken instead of the full
// picture when one has at least that many pixels on its shorter side: a
// phone's HEIC carries one, and it decodes in a fraction of the time.
// Fails with kFailed when the file is not a picture libheif can decode.
RgbImage DecodeHeic(const std::filesystem::path &file, int smallest_side = 0);

// The picture as a baseline JPEG of the given quality (1-100).
std::string EncodeJpeg(const RgbImage &image, int quality);

// `heic` decoded and written whole to `jpeg` (through a temporary name).
// Fails with kFailed (not a picture) or kHostPath (cannot write).
void ConvertHeicToJpeg(const std::filesystem::path &heic, const std::filesystem::path &jpeg, int quality = 92);

}  // namespace tarn::app
