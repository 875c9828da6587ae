#include "images.h"

#include "test_util.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace tarn::testing {

void build_image(const nlohmann::ordered_json& description, const std::string& dir) {
  namespace fs = std::filesystem;
  const std::string builder = TARN_MKIMAGE_PATH;
  if (builder.empty()) throw std::runtime_error("tarn-mkimage was not built");
  fs::create_directories(dir);
  // The builder reads the description from a file beside the image;
  // relative sources resolve against the project's root.
  const fs::path file = fs::path(dir).parent_path() / (fs::path(dir).filename().string() + ".json");
  nlohmann::ordered_json d = description.is_null() ? nlohmann::ordered_json::object() : description;
  if (d.contains("music") && d["music"].contains("source")) {
    fs::path src = d["music"]["source"].get<std::string>();
    if (src.is_relative()) d["music"]["source"] = (fs::path(TARN_SOURCE_DIR) / src).string();
  }
  std::ofstream(file) << d.dump();
  int status = -1;
  // The benchmarks' large device takes the builder up to a minute.
  const std::string out = run_command("'" + builder + "' '" + file.string() + "' '" + dir + "'", &status, 600);
  fs::remove(file);
  if (status != 0) throw std::runtime_error("tarn-mkimage failed: " + out);
}

std::string shipped_description(const std::string& name) {
  return std::string(TARN_SOURCE_DIR) + "/sim/images/" + name + ".json";
}

nlohmann::ordered_json load_description(const std::string& name) {
  std::ifstream in(shipped_description(name));
  if (!in) throw std::runtime_error("no shipped description " + name);
  return nlohmann::ordered_json::parse(in);
}

std::string realdata(const std::string& file) { return realdata_file("itunescdb/" + file); }

std::string realdata_file(const std::string& relative) {
  return std::string(TARN_SHARED_DIR) + "/realdata/" + relative;
}

}  // namespace tarn::testing
