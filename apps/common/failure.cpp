#include "common/failure.h"

#include <cerrno>

namespace tarn::app {

[[noreturn]] void Fail(int status, std::string message) { throw Failure{status, std::move(message)}; }

namespace {

// The one step a person can take, where there is one.
const char *Remedy(const TarnError &error) {
  switch (error.code) {
    case TARN_E_NO_USBMUXD: return "Start usbmuxd (sudo systemctl start usbmuxd) and try again.";
    case TARN_E_NO_DEVICE: return "Connect the device with a USB cable.";
    case TARN_E_NOT_PAIRED:
    case TARN_E_PAIRING_PENDING: return "Unlock the device and tap Trust, then try again.";
    case TARN_E_TRUST_DENIED: return "Unplug the device, plug it in again, unlock it and tap Trust.";
    case TARN_E_LOCKED: return "Unlock the device and try again.";
    case TARN_E_PAIRING_INVALID: return "Run `idevicepair unpair` then `idevicepair pair`, and tap Trust on the device.";
    case TARN_E_SERVICE_REFUSED: return "Unplug the device and plug it in again; restart it if that does not help.";
    case TARN_E_CONNECTION_LOST: return "Check the cable and try again.";
    case TARN_E_DEVICE_FULL: return "Free some space on the device.";
    case TARN_E_SYNC_LOCK_BUSY: return "Wait until the device has finished syncing with the other computer.";
    case TARN_E_HOST_IO: return error.host_errno == ENOSPC ? "Free some space on this computer." : "";
    default: return "";
  }
}

}  // namespace

std::string Reason(const TarnError &error) {
  if (error.code == TARN_OK) return "";
  std::string text = error.message != nullptr && error.message[0] != '\0' ? error.message
                                                                          : TarnErrorMessage(error.code);
  const std::string remedy = Remedy(error);
  if (!remedy.empty()) text += " " + remedy;
  return text;
}

std::string LastReason() { return Reason(*TarnLastError()); }

std::string Because(const std::string &what) {
  const std::string why = LastReason();
  return why.empty() ? what : what + ": " + why;
}

int StatusOf(TarnErrorCode code, int fallback) {
  switch (code) {
    case TARN_E_NO_USBMUXD: return kNoUsbmuxd;
    case TARN_E_NO_DEVICE: return kDeviceNotFound;
    case TARN_E_NOT_PAIRED:
    case TARN_E_PAIRING_PENDING:
    case TARN_E_TRUST_DENIED:
    case TARN_E_LOCKED:
    case TARN_E_PAIRING_INVALID:
    case TARN_E_SERVICE_REFUSED: return kUnreachable;
    case TARN_E_NOT_FOUND: return kNotOnDevice;
    case TARN_E_CANCELLED: return kCancelled;
    case TARN_E_CONNECTION_LOST: return kDisconnected;
    case TARN_E_DEVICE_FULL: return kDeviceFull;
    case TARN_E_SYNC_LOCK_BUSY: return kBusy;
    default: return fallback;
  }
}

[[noreturn]] void FailWithReason(int fallback, const std::string &what) {
  const TarnError &error = *TarnLastError();
  Fail(StatusOf(error.code, fallback), Because(what));
}

}  // namespace tarn::app
