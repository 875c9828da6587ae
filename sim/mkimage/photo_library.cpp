#include <stdexcept>

#include "image.h"

namespace mkimage {

void WritePhotoLibrary(const nlohmann::ordered_json &, const std::filesystem::path &) {
  throw std::runtime_error("photo_library is not written yet");
}

}  // namespace mkimage
