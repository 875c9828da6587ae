#include "apps/common/export_record.h"

#include <fstream>

#include "apps/common/host_file.h"

namespace tarn::app {

Manifest::Manifest(std::filesystem::path dir, std::string udid)
    : path_(std::move(dir) / kName), udid_(std::move(udid)) {
  std::ifstream in(path_, std::ios::binary);
  if (!in) return;
  json_ = nlohmann::json::parse(in, nullptr, false);
  if (!json_.is_object() || !json_["files"].is_object()) json_ = {{"files", nlohmann::json::object()}};
  for (const auto &[rel, entry] : json_["files"].items())
    if (entry.is_object() && entry.value("device", "") == udid_) by_path_.emplace(entry.value("path", ""), rel);
}

const nlohmann::json *Manifest::Find(const std::string &rel, const std::string &device_path) const {
  const auto &files = json_["files"];
  const auto it = files.find(rel);
  if (it == files.end() || !it->is_object() || it->value("device", "") != udid_ ||
      it->value("path", "") != device_path)
    return nullptr;
  return &*it;
}

std::string Manifest::RelOf(const std::string &device_path) const {
  const auto it = by_path_.find(device_path);
  return it == by_path_.end() ? "" : it->second;
}

void Manifest::Record(const std::string &rel, const std::string &device_path, uint64_t size, int64_t mtime) {
  json_["files"][rel] = {{"device", udid_}, {"path", device_path}, {"size", size}, {"mtime", mtime}};
  by_path_[device_path] = rel;
}

void Manifest::Save() const { WriteWhole(path_, json_.dump(1) + "\n"); }

}  // namespace tarn::app
