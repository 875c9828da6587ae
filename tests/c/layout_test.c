/* Checks, as a C compiler sees the records, that every field of the data
 * records sits where an application expects it: the order of the fields is
 * part of the interface. The two function tables are checked slot by slot,
 * against the functions they must hold, by the handle's own tests. */
#include <stddef.h>
#include <stdio.h>

#include "tarn/tarn_device.h"

static int failures = 0;

#define EXPECT_SLOT(type, field, index)                                                  \
  do {                                                                                   \
    if (offsetof(type, field) != (size_t)(index) * sizeof(void *)) {                     \
      fprintf(stderr, "%s.%s at offset %zu, expected slot %d\n", #type, #field,          \
              offsetof(type, field), (index));                                           \
      failures++;                                                                        \
    }                                                                                    \
  } while (0)

#define EXPECT_AT(type, field, offset)                                                   \
  do {                                                                                   \
    if (offsetof(type, field) != (size_t)(offset)) {                                     \
      fprintf(stderr, "%s.%s at offset %zu, expected %zu\n", #type, #field,              \
              offsetof(type, field), (size_t)(offset));                                  \
      failures++;                                                                        \
    }                                                                                    \
  } while (0)

int main(void) {
  const size_t p = sizeof(void *);

  /* Four 32-bit counters, then pointers in their native alignment. */
  EXPECT_AT(PodDir, dir_count, 0);
  EXPECT_AT(PodDir, file_count, 4);
  EXPECT_AT(PodDir, level, 8);
  EXPECT_AT(PodDir, max_level, 12);
  EXPECT_AT(PodDir, parent, 16);
  EXPECT_AT(PodDir, prev_dir, 16 + 1 * p);
  EXPECT_AT(PodDir, next_dir, 16 + 2 * p);
  EXPECT_AT(PodDir, first_dir, 16 + 3 * p);
  EXPECT_AT(PodDir, first_file, 16 + 4 * p);
  EXPECT_AT(PodDir, name, 16 + 5 * p);
  EXPECT_AT(PodDir, parent_path, 16 + 6 * p);
  EXPECT_AT(PodDir, path, 16 + 7 * p);
  EXPECT_AT(PodDir, reserved, 16 + 8 * p);
  EXPECT_AT(PodDir, create_date, 16 + 9 * p);
  EXPECT_AT(PodDir, modify_date, 16 + 10 * p);

  EXPECT_SLOT(PodFile, parent, 0);
  EXPECT_SLOT(PodFile, prev_file, 1);
  EXPECT_SLOT(PodFile, next_file, 2);
  EXPECT_SLOT(PodFile, name, 3);
  EXPECT_SLOT(PodFile, parent_path, 4);
  EXPECT_SLOT(PodFile, path, 5);
  EXPECT_SLOT(PodFile, size, 6);
  EXPECT_SLOT(PodFile, create_date, 7);
  EXPECT_SLOT(PodFile, modify_date, 8);

  EXPECT_AT(PodSearchItem, record, 0);
  EXPECT_AT(PodSearchItem, kind, p);
  EXPECT_AT(PodSearchItem, next, 2 * p);

  if (failures) return 1;
  printf("record layout: all fields in place\n");
  return 0;
}
