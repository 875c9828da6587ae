#include "common/error.h"

namespace tarn {
namespace {

// The message must outlive the record handed to the caller, so the record
// and the text it points into live side by side in thread-local storage.
struct ThreadError {
  TarnError record{TARN_OK, "", 0, 0, 0, 0, 0};
  std::string text;
};

ThreadError &Current() {
  thread_local ThreadError error;
  return error;
}

}  // namespace

void SetError(TarnErrorCode code, std::string message) {
  ThreadError &e = Current();
  e.text = message.empty() ? TarnErrorMessage(code) : std::move(message);
  e.record = TarnError{code, e.text.c_str(), 0, 0, 0, 0, 0};
}

TarnError &CurrentError() { return Current().record; }

void ClearError() {
  ThreadError &e = Current();
  e.text.clear();
  e.record = TarnError{TARN_OK, "", 0, 0, 0, 0, 0};
}

}  // namespace tarn

extern "C" {

TARN_API const TarnError *TarnLastError(void) { return &tarn::Current().record; }

TARN_API void TarnClearError(void) { tarn::ClearError(); }

TARN_API const char *TarnErrorMessage(int code) {
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
    case TARN_E_WALK_CUT: return "The walk stopped at its depth or entry bound; deeper entries were left out.";
    case TARN_E_SHORT_COPY: return "The copy ended before the end of the file.";
    case TARN_E_CANCELLED: return "Cancelled.";
    case TARN_E_SYNC_LOCK_BUSY: return "The device is syncing with another computer.";
    case TARN_E_HOST_IO: return "A file on this computer could not be read or written.";
    case TARN_E_INVALID_ARGUMENT: return "Invalid argument.";
    case TARN_E_DEVICE: return "The device did not do what was asked.";
  }
  return "Unknown error.";
}

}  // extern "C"
