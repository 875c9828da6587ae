// Books: the user's own and the purchased books, each from its catalogue
// plist, presented with the media item's keys where they mean something.
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "catalogue/catalogue.h"
#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/helpers.h"
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
  tarn::AddPlistStrToDict(item, "title", plist_dict_get_item(book, "Name"));
  tarn::InsertPlistDictString(item, "time", "");
  tarn::AddPlistNoneStrToDict(item, "artist", plist_dict_get_item(book, "Artist"));
  tarn::AddPlistNoneStrToDict(item, "album", plist_dict_get_item(book, "Album"));
  tarn::InsertPlistDictString(item, "rating", "");
  tarn::AddPlistNoneStrToDict(item, "genre", plist_dict_get_item(book, "Genre"));
  plist_t path = plist_dict_get_item(book, "Path");
  if (plist_get_node_type(path) == PLIST_STRING) {
    const tarn::CString relative = tarn::StringOf(path);
    // The prefix is the caller's text, glued on as given: a path join would
    // add a '/' to a prefix that a caller wrote without one.
    const std::string full = std::string(prefix ? prefix : "") + relative.get();
    tarn::InsertPlistDictString(item, "path", full.c_str());
  } else {
    tarn::InsertPlistDictString(item, "path", "");
  }
  return item;
}

}  // namespace

namespace tarn {

plist_t ReadBookFromPLIST(const char *path, const char *catalog, const char *prefix, PodPlistParser parser) {
  tarn::PlistPtr root = tarn::ParseHostPlist(path, parser);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return nullptr;
  plist_t books = plist_dict_get_item(root.get(), "Books");
  if (plist_get_node_type(books) != PLIST_ARRAY || plist_array_get_size(books) == 0) return nullptr;
  plist_t result = plist_new_dict();
  tarn::InsertPlistDictString(result, "catalog", catalog);
  plist_t items = plist_new_array();
  const uint32_t n = plist_array_get_size(books);
  for (uint32_t i = 0; i < n; ++i) plist_array_append_item(items, BookItem(plist_array_get_item(books, i), prefix));
  plist_dict_set_item(result, "number", plist_new_uint(n));
  plist_dict_set_item(result, "item", items);
  return result;
}

plist_t ReadBookDbTypePLIST(const char *path, const char *name) {
  PodPlistParser parser = tarn::IsBinPlist(path) ? plist_from_bin : plist_from_xml;
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, kUserBookName) == 0) return tarn::ReadBookFromPLIST(path, "UserBook", kUserBookDir, parser);
  if (std::strcmp(name, kPurchaseBookName) == 0)
    return tarn::ReadBookFromPLIST(path, "PurchaseBook", kPurchaseBookDir, parser);
  return nullptr;
}

}  // namespace tarn

extern "C" {

TARN_API plist_t ReadBookFromPLIST(const char *path, const char *catalog, const char *prefix, PodPlistParser parser) {
  const tarn::ApiCall api_call;
  return tarn::ReadBookFromPLIST(path, catalog, prefix, parser);
}

TARN_API plist_t ReadBookDbTypePLIST(const char *path, const char *name) {
  const tarn::ApiCall api_call;
  return tarn::ReadBookDbTypePLIST(path, name);
}

TARN_API plist_t ReadBookDbTypePLISTBin(const char *path) {
  const tarn::ApiCall api_call;
  return tarn::ReadBookFromPLIST(path, "PurchaseBook", kPurchaseBookDir, plist_from_bin);
}

TARN_API plist_t GetBookList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("GetBookList");
  tarn::PlistPtr catalogues(plist_new_array());
  int read = 0;
  const bool listed = tarn::WalkDbFiles(device, "BookDb", [&](uint64_t type, const char *device_path) {
    if (type >= std::size(BookDbTypeMapping) || BookDbTypeMapping[type] != kBookPlist) return false;
    const char *name = std::strrchr(device_path, '/');
    plist_t catalogue = tarn::ReadBookDbTypePLIST(tarn::LocalCopyPath(device, device_path).c_str(), name ? name : "");
    if (catalogue) plist_array_append_item(catalogues.get(), catalogue);
    return ++read == kMaxCatalogues;
  });
  if (read == 0 && tarn::MediaLibraryCopy(device)) {
    // Books on a current phone are in the Books app's own library unless a
    // computer synced them into the book catalogues above.
    tarn::SetError(TARN_E_NOT_REACHABLE,
                   "This phone keeps its books in the Books app, which file access over USB cannot reach; only "
                   "books synced from a computer are listed here. Open them in the Books app on the phone.");
    return nullptr;
  }
  if (!listed) return nullptr;
  // No catalogue with a book gives an empty array, not null: the device
  // has book catalogues, they are empty.
  tarn::PrintPlist(catalogues.get());
  return catalogues.release();
}

}  // extern "C"
