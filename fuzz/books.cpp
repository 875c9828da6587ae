// Fuzz target: the book catalogue readers, the catalogue file as input, both
// as the user's books (XML or binary, as GetBookList picks) and through the
// binary reader of purchased books.
#include "fake_device.h"
#include "input_file.h"
#include "tarn/tarn_device.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile user("Books.plist");
  static const tarn_fuzz::InputFile purchased("Purchases.plist");
  for (const auto *file : {&user, &purchased}) {
    const char *path = file->Write(data, size);
    const char *name = file == &user ? "/Books.plist" : "/Purchases.plist";
    if (plist_t catalogue = ReadBookDbTypePLIST(path, name)) {
      plist_t items = plist_dict_get_item(catalogue, "item");
      uint64_t number = 0;
      plist_get_uint_val(plist_dict_get_item(catalogue, "number"), &number);
      if (plist_get_node_type(items) != PLIST_ARRAY || number != plist_array_get_size(items)) std::abort();
      plist_free(catalogue);
    }
  }
  if (plist_t catalogue = ReadBookDbTypePLISTBin(purchased.Write(data, size))) plist_free(catalogue);
  return 0;
}
