// tarn-mkimage DESCRIPTION.json OUTDIR
//
// Builds a device image for tarn-devsim from a JSON description ("-" reads
// it from standard input). OUTDIR must not exist yet or be empty, so that an
// image never mixes with an older one.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "image.h"

namespace fs = std::filesystem;

int main(int argc, char **argv) {
  if (argc == 2 && (std::string(argv[1]) == "-h" || std::string(argv[1]) == "--help")) {
    std::puts("usage: tarn-mkimage DESCRIPTION.json OUTDIR\n"
              "Builds a simulated device image (OUTDIR/media, OUTDIR/device.json) from a JSON\n"
              "description; see sim/mkimage/README.md. DESCRIPTION may be - for standard input.");
    return 0;
  }
  if (argc != 3) {
    std::fputs("usage: tarn-mkimage DESCRIPTION.json OUTDIR\n", stderr);
    return 2;
  }
  const std::string source = argv[1];
  const fs::path out = argv[2];
  try {
    nlohmann::ordered_json description;
    fs::path base = fs::current_path();
    if (source == "-") {
      description = nlohmann::ordered_json::parse(std::cin);
    } else {
      std::ifstream in(source);
      if (!in) throw std::runtime_error("cannot read " + source);
      description = nlohmann::ordered_json::parse(in);
      base = fs::absolute(source).parent_path();
    }
    if (fs::exists(out) && !fs::is_empty(out)) throw std::runtime_error(out.string() + " exists and is not empty");
    mkimage::BuildImage(description, out, base);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "tarn-mkimage: %s\n", e.what());
    return 1;
  }
  return 0;
}
