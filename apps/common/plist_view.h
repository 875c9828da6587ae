// Reading the library's property lists: lookups that tolerate a missing key
// or another node type, and the lists as JSON or XML for scripts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <plist/plist.h>

namespace tarn::app {

// Every node kind of a property list, keys in their order; dates become
// ISO 8601 text and data base64 text, the two kinds JSON lacks.
nlohmann::ordered_json PlistToJson(plist_t node);
// The property list as XML, exactly as libplist writes it; nothing for null.
std::string PlistToXml(plist_t node);

std::string DictString(plist_t dict, const char *key);
uint64_t DictUint(plist_t dict, const char *key);
// A boolean value; false when missing or of another type.
bool DictBool(plist_t dict, const char *key);
plist_t DictArray(plist_t dict, const char *key);
// The library writes "(None)" for a missing artist, album or genre; this
// gives "" for it.
std::string Known(const std::string &text);

// The elements of an array node; none for null.
std::vector<plist_t> ArrayItems(plist_t array);

}  // namespace tarn::app
