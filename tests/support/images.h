// Device images for tests, built by tarn-mkimage from JSON descriptions
// (sim/mkimage/README.md has the format).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace tarn::testing {

// Builds the image described by `description` into `dir`. Objects keep the
// order they were written in (a plain nlohmann::json converts, but sorts its
// keys). `dir` must not exist or be empty. Relative "source" files are taken relative to the
// project's root. Throws std::runtime_error with the builder's message.
void build_image(const nlohmann::ordered_json& description, const std::string& dir);

// The path of a shipped description: sim/images/<name>.json.
std::string shipped_description(const std::string& name);

// A shipped description, parsed.
nlohmann::ordered_json load_description(const std::string& name);

// The path of a real device database in the shared test data, e.g.
// realdata("iphone-a.itunescdb"). The environment variable TARN_SHARED_DIR
// overrides where the shared data is found.
std::string realdata(const std::string& file);

}  // namespace tarn::testing
