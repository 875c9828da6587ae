// The record of what an export or an import wrote into a directory, kept in
// it as .tarn-export.json: for each file the device it came from, its
// device path, size and device time. Only a file found here is ever skipped
// as "already there" or replaced; a person's own file of the same name is
// left alone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace tarn::app {

class Manifest {
 public:
  static constexpr const char *kName = ".tarn-export.json";

  Manifest(std::filesystem::path dir, std::string udid);

  // The record of `rel` when it holds `device_path` of this device.
  const nlohmann::json *Find(const std::string &rel, const std::string &device_path) const;
  // Where an earlier run put `device_path` of this device, if anywhere.
  std::string RelOf(const std::string &device_path) const;
  // Whether the record names `rel` at all, for any file of any device.
  bool Knows(const std::string &rel) const { return json_["files"].contains(rel); }
  void Record(const std::string &rel, const std::string &device_path, uint64_t size, int64_t mtime);
  // Written beside and renamed over, like every other file.
  void Save() const;

 private:
  std::filesystem::path path_;
  std::string udid_;
  nlohmann::json json_ = {{"files", nlohmann::json::object()}};
  // Device path -> rel for this device: a roll of 20,000 pictures is looked
  // up once per picture, which a walk of the record each time would make
  // quadratic.
  std::unordered_map<std::string, std::string> by_path_;
};

}  // namespace tarn::app
