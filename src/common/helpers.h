// The library's own property-list, path and string helpers. The exported
// functions of the same names are thin wrappers around these; library code
// calls these, so that its behaviour never depends on which global symbol
// of a common name (GetFileName, Mkdir...) the process resolved first.
#pragma once

#include <cstdint>

#include <plist/plist.h>

namespace tarn {

int InsertPlistDictString(plist_t dict, const char *key, const char *text);
int AddNoneValuePlistDictString(plist_t dict, const char *key, const char *text);
void AddPlistStrToDict(plist_t dict, const char *key, plist_t node);
void AddPlistNoneStrToDict(plist_t dict, const char *key, plist_t node);
int AppendPlistArrayString(plist_t array, const char *text);
plist_t PlistCopyZero(plist_t node);
plist_t PlistCopyEmptyString(plist_t node);
void PrintPlist(plist_t node);
int IsBinPlist(const char *path);
const char *GetFileName(const char *path);
char *GetFilePostfix(const char *path);
char *ConcatStr(const char *first, const char *second);
char *ConcatFilePath(const char *dir, const char *name);
int IsExistInStr(const char *text, const char *needle);
char *ReplaceChar(const char *text, char replacement, char target);
int64_t GetFileSize(const char *path);
int64_t WGetFileSize(const char *path);
int Mkdir(const char *path);

}  // namespace tarn
