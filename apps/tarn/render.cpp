#include "render.h"

#include <glib.h>

#include <algorithm>
#include <ctime>
#include <memory>

namespace tarn::cli {

std::string HumanSize(uint64_t bytes) {
  static const char *const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024.0 && unit < 6) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, value < 10.0 ? "%.2f %s" : value < 100.0 ? "%.1f %s" : "%.0f %s", value,
                kUnits[unit]);
  return text;
}

std::string HumanDuration(uint64_t millis) {
  const uint64_t seconds = millis / 1000;
  char text[48];
  if (seconds >= 3600) {
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", static_cast<unsigned long long>(seconds / 3600),
                  static_cast<unsigned long long>(seconds / 60 % 60), static_cast<unsigned long long>(seconds % 60));
  } else {
    std::snprintf(text, sizeof text, "%llu:%02llu", static_cast<unsigned long long>(seconds / 60),
                  static_cast<unsigned long long>(seconds % 60));
  }
  return text;
}

std::string LocalTime(int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return "?";
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &tm);
  return text;
}

nlohmann::ordered_json PlistToJson(plist_t node) {
  using nlohmann::ordered_json;
  if (node == nullptr) return nullptr;
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      ordered_json object = ordered_json::object();
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char *key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, it, &key, &value);
        if (key == nullptr) break;
        object[key] = PlistToJson(value);
        std::free(key);
      }
      std::free(it);
      return object;
    }
    case PLIST_ARRAY: {
      ordered_json array = ordered_json::array();
      for (uint32_t i = 0; i < plist_array_get_size(node); ++i)
        array.push_back(PlistToJson(plist_array_get_item(node, i)));
      return array;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      char *text = nullptr;
      if (plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &text);
      else plist_get_key_val(node, &text);
      std::string value = text != nullptr ? text : "";
      std::free(text);
      return value;
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return value;
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return value;
    }
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0;
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // Property-list dates count from 2001-01-01.
      const std::time_t t = static_cast<std::time_t>(sec) + 978307200;
      std::tm tm{};
      gmtime_r(&t, &tm);
      char text[32];
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
      return std::string(text);
    }
    case PLIST_DATA: {
      char *data = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &data, &length);
      std::unique_ptr<gchar, decltype(&g_free)> encoded(
          g_base64_encode(reinterpret_cast<const guchar *>(data), static_cast<gsize>(length)), g_free);
      std::free(data);
      return std::string(encoded.get());
    }
    case PLIST_UID: {
      uint64_t value = 0;
      plist_get_uid_val(node, &value);
      return value;
    }
    default:
      return nullptr;
  }
}

std::string PlistToXml(plist_t node) {
  if (node == nullptr) return "";
  char *xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(node, &xml, &length);
  std::string text = xml != nullptr ? std::string(xml, length) : "";
  std::free(xml);
  return text;
}

std::string DictString(plist_t dict, const char *key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return "";
  char *text = nullptr;
  plist_get_string_val(node, &text);
  std::string value = text != nullptr ? text : "";
  std::free(text);
  return value;
}

uint64_t DictUint(plist_t dict, const char *key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  uint64_t value = 0;
  if (node != nullptr && plist_get_node_type(node) == PLIST_UINT) plist_get_uint_val(node, &value);
  return value;
}

std::string Known(const std::string &text) { return text == "(None)" ? "" : text; }

std::vector<plist_t> ArrayItems(plist_t array) {
  std::vector<plist_t> items;
  for (uint32_t i = 0; array != nullptr && i < plist_array_get_size(array); ++i)
    items.push_back(plist_array_get_item(array, i));
  return items;
}

plist_t DictArray(plist_t dict, const char *key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  return node != nullptr && plist_get_node_type(node) == PLIST_ARRAY ? node : nullptr;
}

namespace {

size_t CharWidth(gunichar c) {
  if (g_unichar_iszerowidth(c)) return 0;
  return g_unichar_iswide(c) ? 2 : 1;
}

// Cuts text to at most `width` cells, ending in "…" when anything was cut.
std::string Fit(const std::string &text, size_t width) {
  if (width == 0 || DisplayWidth(text) <= width) return text;
  std::string out;
  size_t used = 0;
  for (const char *p = text.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
    const size_t w = CharWidth(g_utf8_get_char(p));
    if (used + w + 1 > width) break;
    out.append(p, g_utf8_next_char(p) - p);
    used += w;
  }
  return out + "\u2026";
}

}  // namespace

size_t DisplayWidth(const std::string &text) {
  if (!g_utf8_validate(text.c_str(), static_cast<gssize>(text.size()), nullptr)) return text.size();
  size_t width = 0;
  for (const char *p = text.c_str(); *p != '\0'; p = g_utf8_next_char(p)) width += CharWidth(g_utf8_get_char(p));
  return width;
}

void Table::Print(std::FILE *out) const {
  std::vector<std::vector<std::string>> cells;
  std::vector<size_t> widths(columns_.size(), 0);
  auto measure = [&](const std::vector<std::string> &row) {
    std::vector<std::string> fitted;
    for (size_t c = 0; c < columns_.size(); ++c) {
      // Text that is not UTF-8 would upset a terminal; it is shown escaped.
      std::string cell = c < row.size() ? row[c] : "";
      if (!g_utf8_validate(cell.c_str(), static_cast<gssize>(cell.size()), nullptr)) {
        std::unique_ptr<gchar, decltype(&g_free)> valid(g_utf8_make_valid(cell.c_str(), -1), g_free);
        cell = valid.get();
      }
      fitted.push_back(Fit(cell, columns_[c].max_width));
      widths[c] = std::max(widths[c], DisplayWidth(fitted.back()));
    }
    cells.push_back(std::move(fitted));
  };
  std::vector<std::string> header;
  for (const auto &column : columns_) header.push_back(column.header);
  measure(header);
  for (const auto &row : rows_) measure(row);
  for (const auto &row : cells) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      const size_t pad = widths[c] - DisplayWidth(row[c]);
      const bool last = c + 1 == row.size();
      if (columns_[c].align == kRight) line += std::string(pad, ' ') + row[c];
      else line += last ? row[c] : row[c] + std::string(pad, ' ');
      if (!last) line += "  ";
    }
    std::fprintf(out, "%s\n", line.c_str());
  }
}

}  // namespace tarn::cli
