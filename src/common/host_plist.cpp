#include "common/host_plist.h"

#include <glib.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include <sys/stat.h>

#include "common/error.h"

namespace tarn {
namespace {

// A NUL inside a string (a raw byte in XML, U+0000 in a binary plist's
// UTF-16) gives a libplist node whose recorded length runs past that NUL. plist_get_string_val
// aborts on such a node, and plist_copy of it (media items copy purchase
// values) keeps the long length over a short buffer, which plist_to_xml then
// reads past. Every string is cut at its first NUL once, here, so that what
// leaves a parse is safe to read, copy and print. The walk keeps its own
// stack: a hostile file may nest deeper than the call stack goes.
void CutStringsAtNul(plist_t root) {
  std::vector<plist_t> pending{root};
  while (!pending.empty()) {
    plist_t node = pending.back();
    pending.pop_back();
    switch (plist_get_node_type(node)) {
      case PLIST_STRING: {
        uint64_t length = 0;
        const char *text = plist_get_string_ptr(node, &length);
        if (text != nullptr && std::strlen(text) != length) {
          const std::string cut(text);  // the setter frees the old text first
          plist_set_string_val(node, cut.c_str());
        }
        break;
      }
      case PLIST_ARRAY:
        for (uint32_t i = 0, n = plist_array_get_size(node); i < n; ++i)
          pending.push_back(plist_array_get_item(node, i));
        break;
      case PLIST_DICT: {
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        const std::unique_ptr<void, decltype(&std::free)> owner(it, &std::free);
        for (;;) {
          plist_t value = nullptr;
          plist_dict_next_item(node, it, nullptr, &value);  // a key is not read: it may hold a NUL too
          if (value == nullptr) break;
          pending.push_back(value);
        }
        break;
      }
      default:
        break;
    }
  }
}

}  // namespace

PlistPtr ParseHostPlist(const char *path, PodPlistParser parser) {
  if (parser == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT, "No property-list parser was given.");
    return nullptr;
  }
  HostFile file(path ? std::fopen(path, "rb") : nullptr);
  if (!file) {
    SetDatabaseError(path, path ? g_strerror(errno) : "");
    return nullptr;
  }
  // The size of the file that was opened, not of whatever the name points
  // to by now.
  struct stat st;
  const int64_t size = ::fstat(fileno(file.get()), &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
  if (size <= 0 || size > UINT32_MAX) {
    SetDatabaseError(path, size <= 0 ? "it is empty" : "it is too large");
    return nullptr;
  }
  // One byte more than the file, zeroed: the XML parser may read a
  // terminator.
  std::vector<char> bytes(static_cast<size_t>(size) + 1, '\0');
  if (std::fread(bytes.data(), 1, static_cast<size_t>(size), file.get()) != static_cast<size_t>(size)) {
    SetDatabaseError(path, "it could not be read whole");
    return nullptr;
  }
  plist_t root = nullptr;
  parser(bytes.data(), static_cast<uint32_t>(size), &root);
  if (root == nullptr) SetDatabaseError(path, "it is no property list");
  if (root) CutStringsAtNul(root);
  return PlistPtr(root);
}

CString StringOf(plist_t node) {
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return nullptr;
  const char *text = plist_get_string_ptr(node, nullptr);
  return CString(text ? strdup(text) : nullptr);
}

}  // namespace tarn
