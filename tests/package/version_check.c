/* Prints the version the header names and the one the loaded library
 * reports, for versions_test.sh. */
#include <stdio.h>

#include <tarn/tarn_device.h>

int main(void) {
  printf("%d.%d.%d %s %s\n", TARN_DEVICE_VERSION_MAJOR, TARN_DEVICE_VERSION_MINOR, TARN_DEVICE_VERSION_PATCH,
         TARN_DEVICE_VERSION, TarnVersion());
  return 0;
}
