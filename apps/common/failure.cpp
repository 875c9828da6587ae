#include "common/failure.h"

#include <cerrno>
#include <map>
#include <mutex>

namespace tarn::app {

[[noreturn]] void Fail(int status, std::string message) { throw Failure{status, TARN_OK, std::move(message)}; }
[[noreturn]] void Fail(Failure failure) { throw std::move(failure); }

namespace {

struct Names {
  std::mutex mutex;
  std::map<std::string, std::string> by_udid;
};

Names &KnownNames() {
  static Names names;
  return names;
}

std::string NameOf(const std::string &udid) {
  Names &names = KnownNames();
  const std::lock_guard<std::mutex> guard(names.mutex);
  const auto it = names.by_udid.find(udid);
  return it == names.by_udid.end() ? "" : it->second;
}

// The library names a device "Device UDID" at the start of a sentence and
// "device UDID" inside one; a known name takes the place of both.
void NameDevices(std::string &text) {
  for (const char *word : {"Device ", "device "}) {
    for (size_t at = 0; (at = text.find(word, at)) != std::string::npos;) {
      const size_t id_start = at + std::char_traits<char>::length(word);
      size_t id_end = id_start;
      while (id_end < text.size() && (std::isalnum(static_cast<unsigned char>(text[id_end])) || text[id_end] == '-'))
        ++id_end;
      const std::string name = id_end > id_start ? NameOf(text.substr(id_start, id_end - id_start)) : "";
      if (name.empty()) {
        at = id_end;
        continue;
      }
      text.replace(at, id_end - at, name);
      at += name.size();
    }
  }
}

}  // namespace

void RememberDeviceName(const std::string &udid, const std::string &name) {
  if (udid.empty() || name.empty()) return;
  Names &names = KnownNames();
  const std::lock_guard<std::mutex> guard(names.mutex);
  names.by_udid[udid] = name;
}

std::string DeviceLabel(const std::string &udid) {
  const std::string name = NameOf(udid);
  return name.empty() ? "device " + udid : name;
}

std::string Describe(const TarnError &error) {
  if (error.code == TARN_OK) return "";
  std::string text = error.message != nullptr && error.message[0] != '\0' ? error.message
                                                                          : TarnErrorMessage(error.code);
  NameDevices(text);
  // The one reason whose sentence has no remedy of its own.
  if (error.code == TARN_E_HOST_IO && error.host_errno == ENOSPC) text += " Free some space on this computer.";
  return text;
}

std::string LastReason() { return Describe(*TarnLastError()); }

bool BreaksConnection(TarnErrorCode code) { return code >= TARN_E_NO_USBMUXD && code <= TARN_E_CONNECTION_LOST; }

Failure FromLastError(int fallback, const std::string &what) { return FromError(*TarnLastError(), fallback, what); }

Failure FromError(const TarnError &error, int fallback, const std::string &what) {
  // A sync that did not stop the call and a walk cut at its bounds are no
  // reason for a failure.
  if (error.code == TARN_OK || error.code == TARN_E_SYNC_LOCK_BUSY || error.code == TARN_E_WALK_CUT)
    return {fallback, TARN_OK, what};
  const std::string why = Describe(error);
  // Reaching the device: the reason names the device and says what to do.
  const bool alone = (BreaksConnection(error.code) && error.code != TARN_E_CONNECTION_LOST) || what.empty();
  return {StatusOf(error.code, fallback), error.code, alone ? why : what + ": " + why};
}

[[noreturn]] void FailWithReason(int fallback, const std::string &what) { Fail(FromLastError(fallback, what)); }

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
    case TARN_E_APP_NOT_INSTALLED:
    case TARN_E_APP_NOT_SHARING:
    case TARN_E_APP_REFUSED: return kNoApp;
    default: return fallback;
  }
}

}  // namespace tarn::app
