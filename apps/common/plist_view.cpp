#include "apps/common/plist_view.h"

#include <glib.h>

#include <cstdlib>
#include <ctime>
#include <memory>

namespace tarn::app {

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
  // libplist copies control characters from device text as they are, and
  // XML 1.0 has no way to write them, escaped or not: they become U+FFFD
  // so that the document stays well-formed.
  std::string valid;
  valid.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 && c != '\t' && c != '\n' && c != '\r') valid += "\uFFFD";
    else valid += c;
  }
  return valid;
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

bool DictBool(plist_t dict, const char *key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  uint8_t value = 0;
  if (node != nullptr && plist_get_node_type(node) == PLIST_BOOLEAN) plist_get_bool_val(node, &value);
  return value != 0;
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

}  // namespace tarn::app
