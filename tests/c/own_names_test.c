/* An application may define a function whose name the library also exports
 * (short names such as these are common). The library's own calls must still
 * reach its own code: a book catalogue read names its catalogue through the
 * library's InsertPlistDictString, whatever the program defines. */
#include <plist/plist.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The library's declarations, without its header: the header would clash
 * with the program's own InsertPlistDictString below. */
typedef void (*PodPlistParser)(const char *data, uint32_t length, plist_t *root);
plist_t ReadBookFromPLIST(const char *path, const char *catalog, const char *prefix, PodPlistParser parser);

static int own_calls = 0;

/* The program's own function of the same name, doing something else. */
int InsertPlistDictString(plist_t dict, const char *key, const char *text) {
  (void)dict;
  (void)key;
  (void)text;
  ++own_calls;
  return -1;
}

int main(void) {
  char path[] = "/tmp/tarn-own-names-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return 2;
  static const char kCatalogue[] =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<plist version=\"1.0\"><dict><key>Books</key><array><dict/></array></dict></plist>\n";
  const ssize_t written = write(fd, kCatalogue, sizeof kCatalogue - 1);
  close(fd);
  if (written != (ssize_t)(sizeof kCatalogue - 1)) return 2;

  plist_t result = ReadBookFromPLIST(path, "UserBook", "/Books/", plist_from_xml);
  unlink(path);
  int failures = 0;
  char *catalog = NULL;
  plist_t node = result ? plist_dict_get_item(result, "catalog") : NULL;
  if (node) plist_get_string_val(node, &catalog);
  if (catalog == NULL || strcmp(catalog, "UserBook") != 0) {
    fprintf(stderr, "catalog is %s: the library called the program's InsertPlistDictString\n",
            catalog ? catalog : "(missing)");
    failures++;
  }
  if (own_calls != 0) {
    fprintf(stderr, "the program's InsertPlistDictString ran %d times inside the library\n", own_calls);
    failures++;
  }
  free(catalog);
  plist_free(result);
  return failures == 0 ? 0 : 1;
}
