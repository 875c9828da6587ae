// How work on a device ends when it cannot go on, and how one file of a
// batch went wrong: a status that a program can act on (tarn turns it into
// its exit code), the library's reason behind it, and the sentence a person
// reads. This is the one shape failures take through the shared layer, and
// the one place that composes the sentence, for both programs.
#pragma once

#include <cstddef>
#include <string>

#include <tarn/tarn_device.h>

namespace tarn::app {

// Each status has its own number so that scripts can tell them apart; tarn
// exits with it.
enum Status : int {
  kOk = 0,
  kFailed = 1,          // the device did not do what was asked
  kUsage = 2,           // bad command line or argument
  kNoDevice = 3,        // no device attached
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
  kNoApp = 14,          // the app is not installed, shares no files, or the device refused its files
  kCancelled = 130,     // interrupted by the user (128 + SIGINT, as shells report it)
  kTerminated = 143,    // stopped by SIGTERM (128 + 15; SIGHUP gives 129), after cleaning up
};

struct Failure {
  int status = kOk;
  TarnErrorCode code = TARN_OK;  // the library's reason behind it; TARN_OK when it gave none
  std::string message;           // for a person: what happened and what to do
  bool failed() const { return status != kOk; }
};

// Thrown to end the work: the program shows the message and stops with the status.
[[noreturn]] void Fail(int status, std::string message);
[[noreturn]] void Fail(Failure failure);

// What a person reads for a library reason: its sentence, which already says
// what to do, with the device called by its name once the name is known.
// Empty for TARN_OK.
std::string Describe(const TarnError &error);
// Describe() of the last library call on this thread.
std::string LastReason();

// The last library call's reason as a failure about `what`: "<what>: <reason>",
// or the reason alone when it is about reaching the device (it names the
// device and the remedy itself), or `what` alone when the library recorded
// nothing. The status is the reason's, `fallback` for reasons without one.
Failure FromLastError(int fallback, const std::string &what);
// The same for a reason kept from an earlier call.
Failure FromError(const TarnError &error, int fallback, const std::string &what);
[[noreturn]] void FailWithReason(int fallback, const std::string &what);

// The status a library reason belongs to; `fallback` for those with none.
int StatusOf(TarnErrorCode code, int fallback);

// Whether a reason means that the device connection is gone or was never
// made: a batch stops there, whatever reason said it.
bool BreaksConnection(TarnErrorCode code);

// The batch a lost connection ended: "device disconnected after N of M files
// copied", and what to do.
Failure Disconnected(TarnErrorCode code, size_t done, size_t total);

// What keeps a person from a device, as a window shows it: one state per
// reason a person can act on, each with one heading and one sentence of what
// to do, composed here beside the reasons' own sentences.
enum class DeviceState {
  kReady,
  kNoUsbmuxd,       // the usbmux daemon is not running
  kNoDevice,        // nothing attached
  kUnplugged,       // the chosen device went away
  kNotPaired,       // never paired with this computer
  kTrustPending,    // "Trust This Computer?" is open on the device
  kTrustDenied,     // the person tapped Don't Trust
  kPairingInvalid,  // the device was reset or forgot this computer
  kLocked,          // locked with a passcode
  kRefused,         // the device refused its file service
  kSyncing,         // syncing with another computer: reading only
  kOther,           // any other reason: its own sentence tells
};
DeviceState StateOf(TarnErrorCode code);
struct StateText {
  std::string heading;  // short, what is the matter
  std::string advice;   // what to do about it
};
// The state's text about a device (named by DeviceLabel); `udid` may be empty.
StateText DescribeState(DeviceState state, const std::string &udid);
// Whether the state can clear without the person telling the program
// (unlocking, tapping Trust, plugging in, a sync ending), so that a program
// may look again by itself.
bool ClearsByItself(DeviceState state);

// From now on, sentences about this device call it by `name`.
void RememberDeviceName(const std::string &udid, const std::string &name);
// "Anna's iPhone", or "device UDID" while the name is not known.
std::string DeviceLabel(const std::string &udid);

}  // namespace tarn::app
