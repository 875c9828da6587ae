// Building a device image (a media partition plus its device description)
// from a JSON description; sim/mkimage/README.md documents the format.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

namespace mkimage {

// Builds the image into `out` (out/media, out/device.json). Relative file
// names in the description are taken relative to `base`. Throws
// std::runtime_error naming what could not be built.
void BuildImage(const nlohmann::ordered_json &description, const std::filesystem::path &out,
                const std::filesystem::path &base);

// Writes a file of `size` bytes: `content` when given, else a hole (sparse),
// so that large media cost no disk. `mtime` 0 leaves the current time.
void WriteFile(const std::filesystem::path &path, uint64_t size, const std::string &content = "",
               int64_t mtime = 0);

// A real, decodable picture of width x height pixels in `format` ("jpeg",
// "png" or "heic"): a gradient whose colours follow `seed`, so that no two
// pictures of different seeds are alike.
std::string PictureFile(const std::string &format, int width, int height, uint32_t seed);

// Writes the music database section below `media`.
void WriteMusic(const nlohmann::ordered_json &music, const std::filesystem::path &media,
                const std::filesystem::path &base);

// Writes a current phone's music library (MediaLibrary.sqlitedb with its
// -wal and -shm) below `media`; the whole-library playlist is named
// `device_name`.
void WriteMediaLibrary(const nlohmann::ordered_json &library, const std::filesystem::path &media,
                       const std::filesystem::path &base, const std::string &device_name);

// Writes a current phone's photo library (PhotoData/Photos.sqlite with its
// -wal and -shm) and its files below `media`.
void WritePhotoLibrary(const nlohmann::ordered_json &library, const std::filesystem::path &media);

}  // namespace mkimage
