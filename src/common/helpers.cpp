// Property-list, path and string helpers: the single definition of how
// texts, missing values and paths are handled everywhere in the library.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/host_plist.h"
#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace {

char *CopyText(const char *text) {
  const size_t n = std::strlen(text);
  char *copy = static_cast<char *>(std::malloc(n + 1));
  if (copy) std::memcpy(copy, text, n + 1);
  return copy;
}

}  // namespace

namespace tarn {

int InsertPlistDictString(plist_t dict, const char *key, const char *text) {
  plist_dict_set_item(dict, key, plist_new_string(text ? text : ""));
  return 0;
}

int AddNoneValuePlistDictString(plist_t dict, const char *key, const char *text) {
  plist_dict_set_item(dict, key, plist_new_string(text && *text ? text : "(None)"));
  return 0;
}

void AddPlistStrToDict(plist_t dict, const char *key, plist_t node) {
  CString value = StringOf(node);
  InsertPlistDictString(dict, key, value.get());
}

void AddPlistNoneStrToDict(plist_t dict, const char *key, plist_t node) {
  CString value = StringOf(node);
  AddNoneValuePlistDictString(dict, key, value.get());
}

int AppendPlistArrayString(plist_t array, const char *text) {
  plist_array_append_item(array, plist_new_string(text ? text : ""));
  return 0;
}

plist_t PlistCopyZero(plist_t node) {
  return node ? plist_copy(node) : plist_new_uint(0);
}

plist_t PlistCopyEmptyString(plist_t node) {
  return node ? plist_copy(node) : plist_new_string("");
}

void PrintPlist(plist_t node) {
  ConsoleLine("..................................");
  if (node == nullptr) return;
  char *xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(node, &xml, &length);
  CString owned(xml);
  Console("the xml_doc:\n %s\n", xml ? xml : "");
}

int IsBinPlist(const char *path) {
  if (path == nullptr) return 0;
  HostFile f(std::fopen(path, "rb"));
  if (!f) return 0;
  char magic[8] = {0};
  if (std::fread(magic, 1, sizeof magic, f.get()) != sizeof magic) return 0;
  return std::memcmp(magic, "bplist00", 8) == 0 ? 1 : 0;
}

const char *GetFileName(const char *path) {
  if (path == nullptr) return nullptr;
  const char *slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

char *GetFilePostfix(const char *path) {
  if (path == nullptr) return nullptr;
  const char *dot = std::strrchr(path, '.');
  return dot ? CopyText(dot) : nullptr;
}

char *ConcatStr(const char *first, const char *second) {
  if (first == nullptr) first = "";
  if (second == nullptr) second = "";
  const size_t a = std::strlen(first), b = std::strlen(second);
  char *joined = static_cast<char *>(std::calloc(a + b + 1, 1));
  if (joined == nullptr) return nullptr;
  std::memcpy(joined, first, a);
  std::memcpy(joined + a, second, b);
  return joined;
}

char *ConcatFilePath(const char *dir, const char *name) {
  if (dir == nullptr) dir = "";
  if (name == nullptr) name = "";
  // The separator is decided by the last '/' alone: a directory that already
  // ends in '/' is a prefix, and an empty name turns a directory into one.
  const char *slash = std::strrchr(dir, '/');
  if (slash != nullptr && slash[1] != '\0') {
    CString with_sep(ConcatStr(dir, "/"));
    return ConcatStr(with_sep.get(), name);
  }
  return ConcatStr(dir, name);
}

int IsExistInStr(const char *text, const char *needle) {
  if (text == nullptr || needle == nullptr) return 0;
  return std::strstr(text, needle) != nullptr ? 1 : 0;
}

char *ReplaceChar(const char *text, char replacement, char target) {
  char *copy = CopyText(text ? text : "");
  if (copy == nullptr || replacement == target) return copy;
  for (char *p = copy; *p; ++p) {
    if (*p == target) *p = replacement;
  }
  return copy;
}

int64_t GetFileSize(const char *path) {
  struct stat st;
  if (path == nullptr || ::stat(path, &st) != 0) return 0;
  return static_cast<int64_t>(st.st_size);
}

int64_t WGetFileSize(const char *path) {
  if (path == nullptr) return 0;
  HostFile f(std::fopen(path, "rb"));
  if (!f) return 0;
  if (fseeko(f.get(), 0, SEEK_END) != 0) return 0;
  const off_t end = ftello(f.get());
  return end < 0 ? 0 : static_cast<int64_t>(end);
}

int Mkdir(const char *path) {
  errno = 0;
  const int status = TarnMkdir(path);
  if (status != 0) SetHostError(path == nullptr || *path == '\0' ? EINVAL : errno != 0 ? errno : EEXIST, path);
  return status;
}

}  // namespace tarn

extern "C" {

TARN_API int InsertPlistDictString(plist_t dict, const char *key, const char *text) {
  const tarn::ApiCall api_call;
  return tarn::InsertPlistDictString(dict, key, text);
}

TARN_API int AddNoneValuePlistDictString(plist_t dict, const char *key, const char *text) {
  const tarn::ApiCall api_call;
  return tarn::AddNoneValuePlistDictString(dict, key, text);
}

TARN_API void AddPlistStrToDict(plist_t dict, const char *key, plist_t node) {
  const tarn::ApiCall api_call;
  tarn::AddPlistStrToDict(dict, key, node);
}

TARN_API void AddPlistNoneStrToDict(plist_t dict, const char *key, plist_t node) {
  const tarn::ApiCall api_call;
  tarn::AddPlistNoneStrToDict(dict, key, node);
}

TARN_API int AppendPlistArrayString(plist_t array, const char *text) {
  const tarn::ApiCall api_call;
  return tarn::AppendPlistArrayString(array, text);
}

TARN_API plist_t PlistCopyZero(plist_t node) {
  const tarn::ApiCall api_call;
  return tarn::PlistCopyZero(node);
}

TARN_API plist_t PlistCopyEmptyString(plist_t node) {
  const tarn::ApiCall api_call;
  return tarn::PlistCopyEmptyString(node);
}

TARN_API void PrintPlist(plist_t node) {
  const tarn::ApiCall api_call;
  tarn::PrintPlist(node);
}

TARN_API int IsBinPlist(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::IsBinPlist(path);
}

TARN_API const char *GetFileName(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::GetFileName(path);
}

TARN_API char *GetFilePostfix(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::GetFilePostfix(path);
}

TARN_API char *ConcatStr(const char *first, const char *second) {
  const tarn::ApiCall api_call;
  return tarn::ConcatStr(first, second);
}

TARN_API char *ConcatFilePath(const char *dir, const char *name) {
  const tarn::ApiCall api_call;
  return tarn::ConcatFilePath(dir, name);
}

TARN_API int IsExistInStr(const char *text, const char *needle) {
  const tarn::ApiCall api_call;
  return tarn::IsExistInStr(text, needle);
}

TARN_API char *ReplaceChar(const char *text, char replacement, char target) {
  const tarn::ApiCall api_call;
  return tarn::ReplaceChar(text, replacement, target);
}

TARN_API int64_t GetFileSize(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::GetFileSize(path);
}

TARN_API int64_t WGetFileSize(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::WGetFileSize(path);
}

TARN_API int Mkdir(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::Mkdir(path);
}

}  // extern "C"
