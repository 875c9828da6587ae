/*
 * list_music: prints the music of an attached device, one track a line.
 *
 *   cc list_music.c $(pkg-config --cflags --libs tarn_device) -o list_music
 *   ./list_music [WORKDIR [UDID]]
 *
 * WORKDIR (default /tmp/list_music) receives the copies of the device's
 * databases; without UDID the first attached device is used.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <tarn/tarn_device.h>

static const char *text(plist_t dict, const char *key) {
  plist_t node = plist_dict_get_item(dict, key);
  const char *value = node != NULL ? plist_get_string_ptr(node, NULL) : NULL;
  return value != NULL ? value : "";
}

static uint64_t number(plist_t dict, const char *key) {
  uint64_t value = 0;
  plist_t node = plist_dict_get_item(dict, key);
  if (node != NULL) plist_get_uint_val(node, &value);
  return value;
}

int main(int argc, char **argv) {
  const char *workdir = argc > 1 ? argv[1] : "/tmp/list_music";
  char *udid = NULL;
  if (argc > 2) {
    udid = strdup(argv[2]);
  } else {
    plist_t ids = GetDevicesId();
    if (ids != NULL && plist_array_get_size(ids) > 0) plist_get_string_val(plist_array_get_item(ids, 0), &udid);
    plist_free(ids);
  }
  if (udid == NULL) {
    fprintf(stderr, "list_music: no device attached\n");
    return 1;
  }

  mkdir(workdir, 0700);
  PodDevice *device = CreatePodDevice(udid);
  int status = 1;
  if (InitDevice(device, workdir) != 0) {
    fprintf(stderr, "list_music: cannot reach %s\n", udid);
  } else {
    plist_t music = GetMusicList(device, 0, 0);
    plist_t items = music != NULL ? plist_dict_get_item(music, "item") : NULL;
    uint32_t count = items != NULL ? plist_array_get_size(items) : 0;
    /* The library prints progress lines on standard output; the listing
       starts after a line of its own. */
    printf("--- %u tracks\n", count);
    for (uint32_t i = 0; i < count; ++i) {
      plist_t item = plist_array_get_item(items, i);
      uint64_t seconds = number(item, "time") / 1000;
      printf("%s\t%s\t%s\t%llu:%02llu\n", text(item, "artist"), text(item, "album"), text(item, "title"),
             (unsigned long long)(seconds / 60), (unsigned long long)(seconds % 60));
    }
    plist_free(music);
    status = 0;
  }
  FreePodDevice(device);
  free(udid);
  return status;
}
