// How work on a device ends when it cannot go on: a status that a program can
// act on (tarn turns it into its exit code) and a sentence for the person,
// built from the library's reason for the last failure with the one thing
// they can do about it.
#pragma once

#include <string>

#include <tarn/tarn_device.h>

namespace tarn::app {

// Each status has its own number so that scripts can tell them apart; tarn
// exits with it.
enum Status : int {
  kOk = 0,
  kFailed = 1,          // the device did not do what was asked
  kUsage = 2,           // bad command line or argument
  kNoDevice = 3,        // no device attached, or usbmuxd not running
  kDeviceNotFound = 4,  // the named device is not attached
  kSeveralDevices = 5,  // several attached and none chosen
  kUnreachable = 6,     // attached, but locked, not trusted, or a service was refused
  kNotOnDevice = 7,     // a device path does not exist (or is of the wrong kind)
  kHostPath = 8,        // a host path cannot be read or written
  kExists = 9,          // the target already exists
  kDisconnected = 10,   // the device went away in the middle of the work
  kDeviceFull = 11,     // the device has no space left
  kBusy = 12,           // the device is syncing with another computer; nothing was written
  kNoUsbmuxd = 13,      // the usbmux daemon cannot be reached
  kCancelled = 130,     // interrupted by the user (128 + SIGINT, as shells report it)
  kTerminated = 143,    // stopped by SIGTERM (128 + 15; SIGHUP gives 129), after cleaning up
};

// Thrown to end the work: the program shows `message` and stops with `status`.
struct Failure {
  int status;
  std::string message;
};
[[noreturn]] void Fail(int status, std::string message);

// What the library recorded for its last call on this thread, as a person
// reads it: the library's sentence and, where there is one, what to do
// ("Unlock it and tap Trust."). Empty when nothing was recorded.
std::string Reason(const TarnError &error);
std::string LastReason();

// "<what>: <reason>" from the last library call, or `what` alone when the
// library recorded nothing.
std::string Because(const std::string &what);

// The status a library reason belongs to; `fallback` for those with none.
int StatusOf(TarnErrorCode code, int fallback);

// Ends the work with the library's last reason.
[[noreturn]] void FailWithReason(int fallback, const std::string &what);

}  // namespace tarn::app
