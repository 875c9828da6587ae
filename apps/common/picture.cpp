#include "apps/common/picture.h"

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <cstdio>
#include <memory>

#include <jpeglib.h>
#include <libheif/heif.h>

#include "apps/common/failure.h"
#include "apps/common/host_file.h"

namespace tarn::app {
namespace {

struct HeifContext {
  heif_context *ctx = heif_context_alloc();
  ~HeifContext() { heif_context_free(ctx); }
};
struct HeifHandle {
  heif_image_handle *handle = nullptr;
  ~HeifHandle() { heif_image_handle_release(handle); }
};
struct HeifImage {
  heif_image *image = nullptr;
  ~HeifImage() { heif_image_release(image); }
};

void Check(const heif_error &error) {
  if (error.code != heif_error_Ok)
    Fail(kFailed, std::string("not a HEIC picture that libheif can read (") + error.message + ")");
}

// libjpeg ends the process on an error unless told otherwise; its errors
// come back here and leave through longjmp, before any C++ object of the
// caller's frame is made.
struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf back;
};
[[noreturn]] void JpegFailed(j_common_ptr info) { std::longjmp(reinterpret_cast<JpegError *>(info->err)->back, 1); }

// Compresses into `*out` (malloc'd by libjpeg); false on a libjpeg error.
bool Compress(const RgbImage &image, int quality, unsigned char **out, unsigned long *size) {
  jpeg_compress_struct info;
  JpegError error;
  info.err = jpeg_std_error(&error.manager);
  error.manager.error_exit = JpegFailed;
  if (setjmp(error.back) != 0) {
    jpeg_destroy_compress(&info);
    return false;
  }
  jpeg_create_compress(&info);
  jpeg_mem_dest(&info, out, size);
  info.image_width = static_cast<JDIMENSION>(image.width);
  info.image_height = static_cast<JDIMENSION>(image.height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  jpeg_start_compress(&info, TRUE);
  const size_t stride = static_cast<size_t>(image.width) * 3;
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(image.pixels.data() + info.next_scanline * stride);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  return true;
}

}  // namespace

bool IsHeic(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  std::string ext(name.substr(dot + 1));
  for (char &c : ext) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return ext == "heic" || ext == "heif";
}

RgbImage DecodeHeic(const std::filesystem::path &file, int smallest_side) {
  HeifContext context;
  Check(heif_context_read_from_file(context.ctx, file.c_str(), nullptr));
  HeifHandle primary;
  Check(heif_context_get_primary_image_handle(context.ctx, &primary.handle));
  HeifHandle thumbnail;
  const heif_image_handle *chosen = primary.handle;
  if (smallest_side > 0) {
    const int count = heif_image_handle_get_number_of_thumbnails(primary.handle);
    std::vector<heif_item_id> ids(static_cast<size_t>(std::max(count, 0)));
    heif_image_handle_get_list_of_thumbnail_IDs(primary.handle, ids.data(), count);
    for (heif_item_id id : ids) {
      HeifHandle candidate;
      if (heif_image_handle_get_thumbnail(primary.handle, id, &candidate.handle).code != heif_error_Ok) continue;
      if (std::min(heif_image_handle_get_width(candidate.handle), heif_image_handle_get_height(candidate.handle)) <
          smallest_side)
        continue;
      std::swap(thumbnail.handle, candidate.handle);
      chosen = thumbnail.handle;
      break;
    }
  }
  HeifImage decoded;
  Check(heif_decode_image(chosen, &decoded.image, heif_colorspace_RGB, heif_chroma_interleaved_RGB, nullptr));
  int stride = 0;
  const uint8_t *plane = heif_image_get_plane_readonly(decoded.image, heif_channel_interleaved, &stride);
  RgbImage out;
  out.width = heif_image_get_width(decoded.image, heif_channel_interleaved);
  out.height = heif_image_get_height(decoded.image, heif_channel_interleaved);
  if (plane == nullptr || out.empty()) Fail(kFailed, "the HEIC file holds no picture");
  const size_t row = static_cast<size_t>(out.width) * 3;
  out.pixels.resize(row * static_cast<size_t>(out.height));
  for (int y = 0; y < out.height; ++y)
    std::copy_n(plane + static_cast<size_t>(y) * static_cast<size_t>(stride), row, out.pixels.data() + row * static_cast<size_t>(y));
  return out;
}

std::string EncodeJpeg(const RgbImage &image, int quality) {
  if (image.empty() || image.pixels.size() < static_cast<size_t>(image.width) * static_cast<size_t>(image.height) * 3)
    Fail(kFailed, "no picture to write as JPEG");
  unsigned char *buffer = nullptr;
  unsigned long size = 0;
  const bool done = Compress(image, quality, &buffer, &size);
  const std::unique_ptr<unsigned char, decltype(&std::free)> owned(buffer, &std::free);
  if (!done) Fail(kFailed, "the picture could not be written as JPEG");
  return std::string(reinterpret_cast<const char *>(buffer), size);
}

void ConvertHeicToJpeg(const std::filesystem::path &heic, const std::filesystem::path &jpeg, int quality) {
  WriteWhole(jpeg, EncodeJpeg(DecodeHeic(heic), quality));
}

}  // namespace tarn::app
