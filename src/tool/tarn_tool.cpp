// Tarn_Tool: host-side services that Tarn_Device imports.
#include "tarn/tarn_tool.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>

extern "C" {

TARN_TOOL_API int TarnIsFileExists(const char *path) {
  struct stat st;
  return path != nullptr && ::stat(path, &st) == 0 ? 1 : 0;
}

TARN_TOOL_API char *TarnGetLocalFormatTime(int32_t seconds, const char *format, size_t size) {
  if (format == nullptr || size == 0) return nullptr;
  time_t t = static_cast<time_t>(seconds);
  struct tm local {};
  if (localtime_r(&t, &local) == nullptr) return nullptr;
  char *text = static_cast<char *>(std::calloc(size, 1));
  if (text == nullptr) return nullptr;
  // strftime leaves the buffer unspecified when the text does not fit; the
  // caller then gets an empty text rather than a truncated one.
  if (std::strftime(text, size, format, &local) == 0) text[0] = '\0';
  return text;
}

TARN_TOOL_API int TarnMkdir(const char *path) {
  if (path == nullptr || *path == '\0') return 1;
  std::string p(path);
  // Create each missing ancestor in turn; EEXIST from a racing creator is
  // fine, the final stat decides.
  for (size_t pos = p.find('/', 1); pos != std::string::npos; pos = p.find('/', pos + 1)) {
    std::string prefix = p.substr(0, pos);
    if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) break;
  }
  ::mkdir(p.c_str(), 0755);
  struct stat st;
  return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? 0 : 1;
}

TARN_TOOL_API void TarnToLower(char *text) {
  if (text == nullptr) return;
  for (unsigned char *c = reinterpret_cast<unsigned char *>(text); *c; ++c) {
    if (*c >= 'A' && *c <= 'Z') *c = static_cast<unsigned char>(*c - 'A' + 'a');
  }
}

}  // extern "C"
