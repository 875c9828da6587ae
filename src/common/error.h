// The calling thread's reason for the last failure (TarnLastError).
//
// Every exported function opens with an ApiCall; the outermost one on a
// thread clears the record, so the library's calls to its own exported
// functions add to the caller's record instead of wiping it. Library code
// records a reason where it learns it, through the setters below; the two
// mappings (lockdown and file-conduit codes) are the only places that turn a
// protocol code into a reason.
//
// Within one call the first reason stays, with two exceptions that keep the
// record pointing at the cause: a reason that breaks the connection
// (TARN_E_NO_DEVICE ... TARN_E_CONNECTION_LOST) replaces any other, because
// it explains every failure after it; and TARN_E_SYNC_LOCK_BUSY, which did
// not stop the call, gives way to any failure.
#pragma once

#include <cstdint>
#include <string>

#include <libimobiledevice/afc.h>
#include <libimobiledevice/lockdown.h>
#include <tarn/tarn_device.h>

namespace tarn {

// While one lives on a thread, a write to a connection the phone has
// closed (it was unplugged, or dropped the session) fails with an error
// instead of raising SIGPIPE, whose default action would end the
// application that loaded us: the signal is blocked on this thread, and one
// raised meanwhile is taken before the mask is restored. The application's
// own disposition of SIGPIPE is left alone.
class QuietBrokenPipe {
 public:
  QuietBrokenPipe();
  ~QuietBrokenPipe();
  QuietBrokenPipe(const QuietBrokenPipe &) = delete;
  QuietBrokenPipe &operator=(const QuietBrokenPipe &) = delete;
};

// Opens every exported function (release functions excepted, see the
// header); only the outermost on a thread clears the record.
class ApiCall {
 public:
  ApiCall();
  ~ApiCall();
  ApiCall(const ApiCall &) = delete;
  ApiCall &operator=(const ApiCall &) = delete;

 private:
  QuietBrokenPipe quiet_pipe_;
};

// Failures inside are answers, not failures of the caller (a probe for a
// file that may be absent, a list whose absence only counts as 0): they
// leave the record as it was. A reason that breaks the connection still
// goes through, as it explains whatever fails next.
class KeepReason {
 public:
  KeepReason();
  ~KeepReason();
  KeepReason(const KeepReason &) = delete;
  KeepReason &operator=(const KeepReason &) = delete;

 private:
  TarnError saved_;
  std::string text_;
};

// How far a call got before it failed: bytes or entries done, and what the
// call set out to do.
struct Reached {
  uint64_t done = 0;
  uint64_t total = 0;
};

// Records a reason. `message` is the whole sentence a person reads; empty
// takes the code's fixed sentence.
void SetError(TarnErrorCode code, const std::string &message = {}, Reached progress = {});

// A failed lockdown step with the device device_id (a handshake, a service
// start): the one mapping of lockdown codes.
void SetLockdownError(lockdownd_error_t error, const char *device_id);

// A failed file-conduit request about a device path (may be null): the one
// mapping of file-conduit codes. A request that breaks off because the
// connection went records TARN_E_CONNECTION_LOST with the progress given.
void SetAfcError(afc_error_t error, const char *path, Reached progress = {});

// A device connection that could not be made: usbmuxd out of reach or the
// device not attached.
void SetConnectError(const char *device_id);

// A host file operation on path that failed with errno value `error`.
void SetHostError(int error, const char *path, Reached progress = {});

// A media database whose local copy at path gave nothing: absent when no
// file is there, else unreadable, with why (may be empty).
void SetDatabaseError(const char *path, const std::string &why);

// The code recorded so far in this call.
TarnErrorCode CurrentCode();

// Sets the progress of the current record (a walk's entries when its
// connection was lost).
void SetProgress(Reached progress);

void ClearError();

// The fixed text of a code (TarnErrorMessage).
const char *TarnErrorMessage(int code);

}  // namespace tarn
