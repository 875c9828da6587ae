/* Checks, as a C compiler sees the records, that every field of the data
 * records sits where an application expects it: the order of the fields is
 * part of the interface, so a record that moved fails the build. The two
 * function tables are checked slot by slot, against the functions they must
 * hold, by the handle's own tests. */
#include <stddef.h>
#include <stdio.h>

#include "tarn/tarn_device.h"

#define P sizeof(void *)
#define AT(type, field, offset) _Static_assert(offsetof(type, field) == (offset), #type "." #field " moved")

/* Four 32-bit counters, then pointers in their native alignment. */
AT(PodDir, dir_count, 0);
AT(PodDir, file_count, 4);
AT(PodDir, level, 8);
AT(PodDir, max_level, 12);
AT(PodDir, parent, 16);
AT(PodDir, prev_dir, 16 + 1 * P);
AT(PodDir, next_dir, 16 + 2 * P);
AT(PodDir, first_dir, 16 + 3 * P);
AT(PodDir, first_file, 16 + 4 * P);
AT(PodDir, name, 16 + 5 * P);
AT(PodDir, parent_path, 16 + 6 * P);
AT(PodDir, path, 16 + 7 * P);
AT(PodDir, reserved, 16 + 8 * P);
AT(PodDir, create_date, 16 + 9 * P);
AT(PodDir, modify_date, 16 + 10 * P);

AT(PodFile, parent, 0 * P);
AT(PodFile, prev_file, 1 * P);
AT(PodFile, next_file, 2 * P);
AT(PodFile, name, 3 * P);
AT(PodFile, parent_path, 4 * P);
AT(PodFile, path, 5 * P);
AT(PodFile, size, 6 * P);
AT(PodFile, create_date, 7 * P);
AT(PodFile, modify_date, 8 * P);

AT(PodSearchItem, record, 0);
AT(PodSearchItem, kind, P);
AT(PodSearchItem, next, 2 * P);

int main(void) {
  printf("record layout: all fields in place\n");
  return 0;
}
