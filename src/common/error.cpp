#include "common/error.h"

#include <pthread.h>
#include <csignal>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <glib.h>
#include <libimobiledevice/libimobiledevice.h>

namespace tarn {
namespace {

// The message must outlive the record handed to the caller, so the record
// and the text it points into live side by side in thread-local storage.
struct ThreadError {
  TarnError record{TARN_OK, "", 0, 0, 0, 0, 0};
  std::string text;
  int depth = 0;  // exported functions on this thread's stack
};

ThreadError &Current() {
  thread_local ThreadError error;
  return error;
}

// Which reason may replace which within one call: a higher rank replaces a
// lower one, and among equals the first stays.
int Rank(TarnErrorCode code) {
  if (code == TARN_OK) return 0;
  if (code == TARN_E_SYNC_LOCK_BUSY) return 1;
  if (code >= TARN_E_NO_USBMUXD && code <= TARN_E_CONNECTION_LOST) return 3;
  // An app whose files could not be vended: no request of the call reached
  // them, so this explains every failure after it.
  if (code >= TARN_E_APP_NOT_INSTALLED && code <= TARN_E_APP_REFUSED) return 3;
  return 2;
}

void Record(TarnErrorCode code, std::string message, const TarnError &detail) {
  ThreadError &e = Current();
  if (Rank(code) <= Rank(e.record.code)) return;
  e.text = message.empty() ? tarn::TarnErrorMessage(code) : std::move(message);
  e.record = detail;
  e.record.code = code;
  e.record.message = e.text.c_str();
}

TarnError Detail(Reached p = {}) { return TarnError{TARN_OK, "", 0, 0, 0, p.done, p.total}; }

std::string DeviceName(const char *device_id) {
  return device_id && *device_id ? std::string("Device ") + device_id : std::string("The device");
}

std::string Quoted(const char *path) { return path ? std::string("\"") + path + "\"" : std::string("the request"); }

// " (after 1234 of 5678 bytes)"; the walks' entries have no total.
std::string ProgressText(Reached p, const char *unit) {
  if (p.done == 0 && p.total == 0) return {};
  std::string text = " (after " + std::to_string(p.done);
  if (p.total != 0) text += " of " + std::to_string(p.total);
  return text + " " + unit + ")";
}

const char *AfcCodeText(afc_error_t error) {
  switch (error) {
    case AFC_E_OP_HEADER_INVALID: return "an invalid request";
    case AFC_E_NO_RESOURCES: return "no resources left (too many open files)";
    case AFC_E_READ_ERROR: return "a read error";
    case AFC_E_WRITE_ERROR: return "a write error";
    case AFC_E_INVALID_ARG: return "an invalid argument";
    case AFC_E_OBJECT_IS_DIR: return "that it is a directory";
    case AFC_E_OP_TIMEOUT: return "a timeout";
    case AFC_E_TOO_MUCH_DATA: return "too much data";
    case AFC_E_END_OF_DATA: return "the end of the data";
    case AFC_E_OP_NOT_SUPPORTED: return "an operation it does not support";
    case AFC_E_OBJECT_EXISTS: return "that it exists already";
    case AFC_E_OBJECT_BUSY: return "that it is busy";
    case AFC_E_OP_WOULD_BLOCK: return "that it is locked by someone else";
    case AFC_E_IO_ERROR: return "an input/output error";
    case AFC_E_OP_INTERRUPTED: return "an interruption";
    case AFC_E_OP_IN_PROGRESS: return "an operation already in progress";
    case AFC_E_INTERNAL_ERROR: return "an internal error";
    case AFC_E_NO_MEM: return "no memory";
    case AFC_E_DIR_NOT_EMPTY: return "that the directory is not empty";
    default: return "an unknown error";
  }
}

}  // namespace

namespace {

struct PipeGuardState {
  int depth = 0;
  sigset_t saved{};
  bool pending_before = false;
};
thread_local PipeGuardState pipe_guard;

sigset_t PipeOnly() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

}  // namespace

QuietBrokenPipe::QuietBrokenPipe() {
  if (pipe_guard.depth++ != 0) return;
  const sigset_t pipe_only = PipeOnly();
  sigset_t pending;
  sigpending(&pending);
  pipe_guard.pending_before = sigismember(&pending, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &pipe_only, &pipe_guard.saved);
}

QuietBrokenPipe::~QuietBrokenPipe() {
  if (--pipe_guard.depth != 0) return;
  sigset_t pending;
  sigpending(&pending);
  // Only a signal our own writes raised is taken; one the application had
  // pending already stays its own.
  if (!pipe_guard.pending_before && sigismember(&pending, SIGPIPE) == 1) {
    const sigset_t pipe_only = PipeOnly();
    const struct timespec no_wait = {0, 0};
    sigtimedwait(&pipe_only, nullptr, &no_wait);
  }
  pthread_sigmask(SIG_SETMASK, &pipe_guard.saved, nullptr);
}

ApiCall::ApiCall() {
  ThreadError &e = Current();
  if (e.depth++ == 0) ClearError();
}

ApiCall::~ApiCall() { --Current().depth; }

KeepReason::KeepReason() : saved_(Current().record), text_(Current().text) {}

KeepReason::~KeepReason() {
  ThreadError &e = Current();
  if (Rank(e.record.code) == 3 && Rank(saved_.code) < 3) return;
  e.text = std::move(text_);
  e.record = saved_;
  e.record.message = e.text.c_str();
}

void SetError(TarnErrorCode code, const std::string &message, Reached progress) {
  Record(code, message, Detail(progress));
}

void SetLockdownError(lockdownd_error_t error, const char *device_id) {
  const std::string device = DeviceName(device_id);
  TarnErrorCode code = TARN_E_DEVICE;
  std::string message;
  switch (error) {
    case LOCKDOWN_E_PASSWORD_PROTECTED:
    case LOCKDOWN_E_ESCROW_LOCKED:
      code = TARN_E_LOCKED;
      message = device + " is locked with a passcode: unlock it and try again.";
      break;
    case LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING:
      code = TARN_E_PAIRING_PENDING;
      message = device + " is asking whether to trust this computer: unlock it, tap \"Trust\" and try again.";
      break;
    case LOCKDOWN_E_USER_DENIED_PAIRING:
      code = TARN_E_TRUST_DENIED;
      message = device + " was told not to trust this computer: unplug it, plug it in again and tap \"Trust\".";
      break;
    case LOCKDOWN_E_MISSING_PAIR_RECORD:
    case LOCKDOWN_E_MISSING_HOST_ID:
    case LOCKDOWN_E_PAIRING_FAILED:
    case LOCKDOWN_E_PAIRING_PROHIBITED_OVER_THIS_CONNECTION:
      code = TARN_E_NOT_PAIRED;
      message = "This computer is not paired with " + std::string(device_id ? "device " : "the device") +
                (device_id ? device_id : "") +
                ": unlock the device, connect it over USB and answer \"Trust this computer\".";
      break;
    case LOCKDOWN_E_INVALID_HOST_ID:
    case LOCKDOWN_E_INVALID_PAIR_RECORD:
    case LOCKDOWN_E_SSL_ERROR:
      code = TARN_E_PAIRING_INVALID;
      message = "The pairing with " + std::string(device_id ? "device " : "the device") + (device_id ? device_id : "") +
                (error == LOCKDOWN_E_SSL_ERROR ? " failed its secure handshake" : " is no longer valid") +
                " (the device was reset or forgot this computer): pair again with `idevicepair unpair` and "
                "`idevicepair pair`, and answer \"Trust this computer\" on the device.";
      break;
    case LOCKDOWN_E_SERVICE_PROHIBITED:
    case LOCKDOWN_E_INVALID_SERVICE:
    case LOCKDOWN_E_MISSING_SERVICE:
    case LOCKDOWN_E_SERVICE_LIMIT:
    case LOCKDOWN_E_NO_RUNNING_SESSION:
      code = TARN_E_SERVICE_REFUSED;
      message = device + " refused to start its file service: unlock it, or restart it, and try again.";
      break;
    case LOCKDOWN_E_MUX_ERROR:
    case LOCKDOWN_E_RECEIVE_TIMEOUT:
      code = TARN_E_CONNECTION_LOST;
      message = "The connection to " + std::string(device_id ? "device " : "the device") +
                (device_id ? device_id : "") + " was lost during the handshake: check the cable and try again.";
      break;
    default:
      message = device + " refused the connection (lockdown error " + std::to_string(static_cast<int>(error)) + ").";
      break;
  }
  TarnError detail = Detail();
  detail.lockdown_error = static_cast<int>(error);
  Record(code, std::move(message), detail);
}

void SetAfcError(afc_error_t error, const char *path, Reached progress) {
  if (error == AFC_E_SUCCESS) return;
  TarnError detail = Detail(progress);
  detail.afc_error = static_cast<int>(error);
  const std::string where = Quoted(path);
  switch (error) {
    case AFC_E_OBJECT_NOT_FOUND:
      Record(TARN_E_NOT_FOUND, where + " does not exist on the device.", detail);
      return;
    case AFC_E_PERM_DENIED:
      Record(TARN_E_PERMISSION, "The device does not allow access to " + where + ".", detail);
      return;
    case AFC_E_NO_SPACE_LEFT:
      Record(TARN_E_DEVICE_FULL,
             "The device has no space left for " + where + ProgressText(progress, "bytes") +
                 ": free some space on it and try again.",
             detail);
      return;
    // What libimobiledevice answers once the connection under a request is
    // gone: nothing more can be asked over this client.
    case AFC_E_MUX_ERROR:
    case AFC_E_NOT_ENOUGH_DATA:
    case AFC_E_SERVICE_NOT_CONNECTED:
    case AFC_E_UNKNOWN_PACKET_TYPE:
      Record(TARN_E_CONNECTION_LOST,
             "The connection to the device was lost while working on " + where + ProgressText(progress, "bytes") +
                 ": check the cable and try again.",
             detail);
      return;
    default:
      Record(TARN_E_FILE_SERVICE,
             "The device's file service answered error " + std::to_string(static_cast<int>(error)) + " (" +
                 AfcCodeText(error) + ") for " + where + ".",
             detail);
      return;
  }
}

void SetConnectError(const char *device_id) {
  // idevice_new says only "no device"; the device list tells a daemon out of
  // reach (an error) from a device that is not there (a list without it).
  char **ids = nullptr;
  int count = 0;
  const idevice_error_t err = idevice_get_device_list(&ids, &count);
  if (ids) idevice_device_list_free(ids);
  if (err != IDEVICE_E_SUCCESS) {
    const char *address = std::getenv("USBMUXD_SOCKET_ADDRESS");
    Record(TARN_E_NO_USBMUXD,
           std::string("The usbmux daemon (usbmuxd) cannot be reached at ") +
               (address && *address ? address : "/var/run/usbmuxd") +
               ": make sure it is installed and running and that you may use its socket.",
           Detail());
    return;
  }
  Record(TARN_E_NO_DEVICE,
         DeviceName(device_id) + " is not attached: connect it with a USB cable, switch it on and try again.",
         Detail());
}

void SetHostError(int error, const char *path, Reached progress) {
  TarnError detail = Detail(progress);
  detail.host_errno = error;
  const std::string where = Quoted(path);
  const std::string reason = g_strerror(error);
  if (error == ENOENT) {
    Record(TARN_E_NOT_FOUND, where + " does not exist on this computer.", detail);
  } else if (error == EACCES || error == EPERM || error == EROFS) {
    Record(TARN_E_PERMISSION, where + " cannot be used on this computer: " + reason + ".", detail);
  } else {
    Record(TARN_E_HOST_IO,
           where + " could not be read or written on this computer" + ProgressText(progress, "bytes") + ": " +
               reason + ".",
           detail);
  }
}

void SetDatabaseError(const char *path, const std::string &why) {
  if (path == nullptr || !g_file_test(path, G_FILE_TEST_IS_REGULAR)) {
    Record(TARN_E_DATABASE_ABSENT,
           "There is no copy of this database at " + Quoted(path) +
               ": the device has none, or InitDevice could not copy it.",
           Detail());
    return;
  }
  Record(TARN_E_DATABASE_UNREADABLE,
         "The database " + Quoted(path) + " cannot be read" + (why.empty() ? std::string() : ": " + why) +
             " (it is damaged, or in a format this library does not read).",
         Detail());
}

TarnErrorCode CurrentCode() { return Current().record.code; }

void SetProgress(Reached progress) {
  TarnError &r = Current().record;
  r.done = progress.done;
  r.total = progress.total;
}

void ClearError() {
  ThreadError &e = Current();
  e.text.clear();
  e.record = TarnError{TARN_OK, "", 0, 0, 0, 0, 0};
}

}  // namespace tarn

namespace tarn {

const char *TarnErrorMessage(int code) {
  switch (code) {
    case TARN_OK: return "No error.";
    case TARN_E_NO_USBMUXD: return "The usbmux daemon (usbmuxd) cannot be reached.";
    case TARN_E_NO_DEVICE: return "The device is not attached.";
    case TARN_E_NOT_PAIRED: return "This computer is not paired with the device.";
    case TARN_E_PAIRING_PENDING: return "The device is waiting for \"Trust this computer\" to be answered.";
    case TARN_E_TRUST_DENIED: return "The device was told not to trust this computer.";
    case TARN_E_LOCKED: return "The device is locked with a passcode.";
    case TARN_E_PAIRING_INVALID: return "The pairing with the device is no longer valid.";
    case TARN_E_SERVICE_REFUSED: return "The device refused to start its file service.";
    case TARN_E_CONNECTION_LOST: return "The connection to the device was lost.";
    case TARN_E_NOT_FOUND: return "No such file or directory.";
    case TARN_E_PERMISSION: return "Permission denied.";
    case TARN_E_DEVICE_FULL: return "The device has no space left.";
    case TARN_E_FILE_SERVICE: return "The device's file service reported an error.";
    case TARN_E_DATABASE_UNREADABLE: return "The media database cannot be read.";
    case TARN_E_DATABASE_ABSENT: return "The device has no such media database.";
    case TARN_E_NOT_REACHABLE: return "The device keeps this media where file access over USB cannot reach it.";
    case TARN_E_WALK_CUT: return "The walk stopped at its depth or entry bound; deeper entries were left out.";
    case TARN_E_SHORT_COPY: return "The copy ended before the end of the file.";
    case TARN_E_CANCELLED: return "Cancelled.";
    case TARN_E_SYNC_LOCK_BUSY: return "The device is syncing with another computer.";
    case TARN_E_HOST_IO: return "A file on this computer could not be read or written.";
    case TARN_E_INVALID_ARGUMENT: return "Invalid argument.";
    case TARN_E_DEVICE: return "The device did not do what was asked.";
    case TARN_E_APP_NOT_INSTALLED: return "No app of that identifier is installed on the device.";
    case TARN_E_APP_NOT_SHARING: return "The app does not share files with computers.";
    case TARN_E_APP_REFUSED: return "The device refused access to the app's files.";
  }
  return "Unknown error.";
}

}  // namespace tarn

extern "C" {

TARN_API const TarnError *TarnLastError(void) { return &tarn::Current().record; }

TARN_API void TarnClearError(void) { tarn::ClearError(); }

TARN_API const char *TarnErrorMessage(int code) {
  return tarn::TarnErrorMessage(code);
}

}  // extern "C"
