// A device that exists only inside a fuzz target. The target program defines
// the libimobiledevice functions the library calls (usbmux device list,
// device connection, lockdown, file conduit), so every answer the library
// parses comes from here: from the fuzz input when one is set, otherwise from
// a small well-behaved device. Everything handed out is counted, so a target
// can insist that a call gave back every connection, file handle and lock.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

namespace tarn_fuzz {

// While set, every answer (error codes, string vectors, file handles, read
// data, lockdown values) is taken from data; once data is used up, requests
// succeed with empty answers. With null, the device is well behaved: every
// path is a regular file of kFixedFileSize bytes and every listing is empty.
void UseAnswers(FuzzedDataProvider *data);

inline constexpr unsigned kFixedFileSize = 1234;

// Aborts, naming the call, when a connection, lockdown client, service
// descriptor, file handle or lock is still held. Resets the counters.
void ExpectAllReleased(const char *after);

// Sends the library's console lines to /dev/null: printing them would cost
// more than the work being fuzzed.
void SilenceStdout();

}  // namespace tarn_fuzz
