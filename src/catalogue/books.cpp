// Books: the user's own and the purchased books, each from its catalogue
// plist, presented with the media item's keys where they mean something.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/host_plist.h"
#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace {

// Reader kind of each book database type: 0 and 1 are the music databases
// (their books are listed as audiobooks), 2 the catalogue plists read here.
constexpr int32_t BookDbTypeMapping[] = {0, 1, 2, 2};
constexpr int32_t kBookPlist = 2;
// A device keeps at most these two catalogues.
constexpr int kMaxCatalogues = 2;

constexpr const char *kUserBookName = "/Books.plist";
constexpr const char *kPurchaseBookName = "/Purchases.plist";
constexpr const char *kUserBookDir = "/Books/";
constexpr const char *kPurchaseBookDir = "/Books/Purchases/";

plist_t BookItem(plist_t book, const char *prefix) {
  if (plist_get_node_type(book) != PLIST_DICT) book = nullptr;
  plist_t item = plist_new_dict();
  AddPlistStrToDict(item, "title", plist_dict_get_item(book, "Name"));
  InsertPlistDictString(item, "time", "");
  AddPlistNoneStrToDict(item, "artist", plist_dict_get_item(book, "Artist"));
  AddPlistNoneStrToDict(item, "album", plist_dict_get_item(book, "Album"));
  InsertPlistDictString(item, "rating", "");
  AddPlistNoneStrToDict(item, "genre", plist_dict_get_item(book, "Genre"));
  plist_t path = plist_dict_get_item(book, "Path");
  if (plist_get_node_type(path) == PLIST_STRING) {
    const tarn::CString relative = tarn::StringOf(path);
    tarn::CString full(ConcatStr(prefix, relative.get()));
    InsertPlistDictString(item, "path", full.get());
  } else {
    InsertPlistDictString(item, "path", "");
  }
  return item;
}

}  // namespace

extern "C" {

TARN_API plist_t ReadBookFromPLIST(const char *path, const char *catalog, const char *prefix, PodPlistParser parser) {
  const tarn::ApiCall api_call;
  tarn::PlistPtr root = tarn::ParseHostPlist(path, parser);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return nullptr;
  plist_t books = plist_dict_get_item(root.get(), "Books");
  if (plist_get_node_type(books) != PLIST_ARRAY || plist_array_get_size(books) == 0) return nullptr;
  plist_t result = plist_new_dict();
  InsertPlistDictString(result, "catalog", catalog);
  plist_t items = plist_new_array();
  const uint32_t n = plist_array_get_size(books);
  for (uint32_t i = 0; i < n; ++i) plist_array_append_item(items, BookItem(plist_array_get_item(books, i), prefix));
  plist_dict_set_item(result, "number", plist_new_uint(n));
  plist_dict_set_item(result, "item", items);
  return result;
}

TARN_API plist_t ReadBookDbTypePLIST(const char *path, const char *name) {
  const tarn::ApiCall api_call;
  PodPlistParser parser = IsBinPlist(path) ? plist_from_bin : plist_from_xml;
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, kUserBookName) == 0) return ReadBookFromPLIST(path, "UserBook", kUserBookDir, parser);
  if (std::strcmp(name, kPurchaseBookName) == 0)
    return ReadBookFromPLIST(path, "PurchaseBook", kPurchaseBookDir, parser);
  return nullptr;
}

TARN_API plist_t ReadBookDbTypePLISTBin(const char *path) {
  const tarn::ApiCall api_call;
  return ReadBookFromPLIST(path, "PurchaseBook", kPurchaseBookDir, plist_from_bin);
}

TARN_API plist_t GetBookList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("GetBookList");
  tarn::PlistPtr catalogues(plist_new_array());
  int read = 0;
  const bool listed = tarn::WalkDbFiles(device, "BookDb", [&](uint64_t type, const char *device_path) {
    if (type >= std::size(BookDbTypeMapping) || BookDbTypeMapping[type] != kBookPlist) return false;
    const char *name = std::strrchr(device_path, '/');
    plist_t catalogue = ReadBookDbTypePLIST(tarn::LocalCopyPath(device, device_path).c_str(), name ? name : "");
    if (catalogue) plist_array_append_item(catalogues.get(), catalogue);
    return ++read == kMaxCatalogues;
  });
  if (!listed) return nullptr;
  // No catalogue with a book gives an empty array, not null: the device
  // has book catalogues, they are empty.
  PrintPlist(catalogues.get());
  return catalogues.release();
}

}  // extern "C"
