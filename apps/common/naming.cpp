#include "apps/common/naming.h"

#include <glib.h>

#include <memory>

namespace tarn::app {
namespace {

// Room is left for " (NNN)", an extension and a temporary suffix within the
// 255 bytes most file systems allow per name.
constexpr size_t kMaxNameBytes = 200;
constexpr size_t kMaxExtensionBytes = 16;

bool Forbidden(unsigned char c) {
  switch (c) {
    case '/': case '\\': case ':': case '*': case '?': case '"': case '<': case '>': case '|':
      return true;
    default:
      return c < 0x20 || c == 0x7f;
  }
}

std::string Folded(const std::string &text) {
  std::unique_ptr<gchar, decltype(&g_free)> folded(g_utf8_casefold(text.c_str(), -1), g_free);
  return folded ? std::string(folded.get()) : text;
}

}  // namespace

std::string SafeName(std::string_view name, std::string_view fallback) {
  std::string out;
  out.reserve(name.size());
  const char *p = name.data();
  const char *end = p + name.size();
  while (p < end) {
    const char *bad = nullptr;
    if (g_utf8_validate(p, end - p, &bad)) bad = end;
    for (; p < bad; ++p) out.push_back(Forbidden(static_cast<unsigned char>(*p)) ? '_' : *p);
    if (p < end) {  // one invalid byte
      out.push_back('_');
      ++p;
    }
  }
  size_t first = out.find_first_not_of(". ");
  out.erase(0, first == std::string::npos ? out.size() : first);
  while (!out.empty() && (out.back() == '.' || out.back() == ' ')) out.pop_back();
  if (out.size() > kMaxNameBytes) {
    size_t cut = kMaxNameBytes;
    while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
    out.resize(cut);
    while (!out.empty() && (out.back() == '.' || out.back() == ' ')) out.pop_back();
  }
  return out.empty() ? std::string(fallback) : out;
}

std::string BaseName(std::string_view device_path) {
  const size_t slash = device_path.find_last_of('/');
  return std::string(slash == std::string_view::npos ? device_path : device_path.substr(slash + 1));
}

std::string Extension(std::string_view device_path) {
  const std::string base = BaseName(device_path);
  const size_t dot = base.find_last_of('.');
  if (dot == std::string::npos || dot == 0 || base.size() - dot > kMaxExtensionBytes) return "";
  const std::string ext = SafeName(base.substr(dot + 1), "");
  return ext.empty() ? "" : "." + ext;
}

std::string RecordingTime(const std::string &title, const char *separator) {
  if (title.size() < 15 || title[8] != ' ') return title;
  for (size_t i = 0; i < 15; ++i)
    if (i != 8 && (title[i] < '0' || title[i] > '9')) return title;
  return title.substr(0, 4) + "-" + title.substr(4, 2) + "-" + title.substr(6, 2) + " " + title.substr(9, 2) +
         separator + title.substr(11, 2) + separator + title.substr(13, 2);
}

std::string NameRegistry::Directory(const std::vector<std::string> &dirs) {
  std::string path;
  for (const auto &dir : dirs) {
    std::string candidate = path.empty() ? dir : path + "/" + dir;
    auto [it, inserted] = dir_spelling_.emplace(Folded(candidate), candidate);
    path = it->second;
    (void)inserted;
  }
  return path;
}

std::string NameRegistry::Claim(const std::vector<std::string> &dirs, const std::string &stem,
                                const std::string &ext, const std::function<bool(const std::string &)> &occupied,
                                bool *displaced) {
  const std::string dir = Directory(dirs);
  const std::string prefix = dir.empty() ? "" : dir + "/";
  if (displaced != nullptr) *displaced = false;
  for (int n = 1;; ++n) {
    std::string name = n == 1 ? stem + ext : stem + " (" + std::to_string(n) + ")" + ext;
    std::string path = prefix + name;
    const std::string folded = Folded(path);
    if (dir_spelling_.count(folded) != 0 || taken_.count(folded) != 0) continue;
    if (occupied && occupied(path)) {
      if (displaced != nullptr) *displaced = true;
      continue;
    }
    taken_.insert(folded);
    return path;
  }
}

void NameRegistry::Reserve(const std::string &path) { taken_.insert(Folded(path)); }

}  // namespace tarn::app
