#include "images.h"

#include <cstdio>
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
  nlohmann::ordered_json d = description;
  if (d.contains("music") && d["music"].contains("source")) {
    fs::path src = d["music"]["source"].get<std::string>();
    if (src.is_relative()) d["music"]["source"] = (fs::path(TARN_SOURCE_DIR) / src).string();
  }
  std::ofstream(file) << d.dump();
  const std::string cmd = "'" + builder + "' '" + file.string() + "' '" + dir + "' 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) throw std::runtime_error("cannot run tarn-mkimage");
  std::string out;
  char buf[512];
  while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
  const int status = pclose(p);
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

std::string realdata(const std::string& file) {
  // The shared data lies beside the project's root; a checkout elsewhere
  // (a second work tree) names it with TARN_SHARED_DIR.
  const char* shared = std::getenv("TARN_SHARED_DIR");
  return std::string(shared && *shared ? shared : TARN_SHARED_DIR) + "/realdata/itunescdb/" + file;
}

}  // namespace tarn::testing
