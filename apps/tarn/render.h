// Rendering for people and for scripts: readable sizes and durations,
// aligned tables, and property lists as JSON or XML.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <plist/plist.h>

namespace tarn::cli {

std::string HumanSize(uint64_t bytes);        // "5.3 MiB"
std::string HumanDuration(uint64_t millis);   // "3:07", "1:02:03"
std::string LocalTime(int64_t seconds);       // "2022-06-01 10:15"

// Every node kind of a property list, keys in their order; dates become
// ISO 8601 text and data base64 text, the two kinds JSON lacks.
nlohmann::ordered_json PlistToJson(plist_t node);
// The property list as XML, exactly as libplist writes it; nothing for null.
std::string PlistToXml(plist_t node);

// Plist lookups that tolerate a missing key or another node type.
std::string DictString(plist_t dict, const char *key);
uint64_t DictUint(plist_t dict, const char *key);
plist_t DictArray(plist_t dict, const char *key);
// The library writes "(None)" for a missing artist, album or genre; this
// gives "" for it.
std::string Known(const std::string &text);

// The elements of an array node; none for null.
std::vector<plist_t> ArrayItems(plist_t array);

// Display width of UTF-8 text in terminal cells.
size_t DisplayWidth(const std::string &text);

class Table {
 public:
  enum Align { kLeft, kRight };
  struct Column {
    std::string header;
    Align align = kLeft;
    size_t max_width = 0;  // 0: no limit; longer cells end in "…"
  };
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void Print(std::FILE *out) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace tarn::cli
