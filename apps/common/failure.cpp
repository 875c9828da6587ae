#include "apps/common/failure.h"

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

Failure Disconnected(TarnErrorCode code, size_t done, size_t total) {
  return {kDisconnected, code == TARN_OK ? TARN_E_CONNECTION_LOST : code,
          "device disconnected after " + std::to_string(done) + " of " + std::to_string(total) +
              " files copied. Reconnect it (check the cable) and try again: what was copied is kept."};
}

DeviceState StateOf(TarnErrorCode code) {
  switch (code) {
    case TARN_OK: return DeviceState::kReady;
    case TARN_E_NO_USBMUXD: return DeviceState::kNoUsbmuxd;
    case TARN_E_NO_DEVICE: return DeviceState::kUnplugged;
    case TARN_E_NOT_PAIRED: return DeviceState::kNotPaired;
    case TARN_E_PAIRING_PENDING: return DeviceState::kTrustPending;
    case TARN_E_TRUST_DENIED: return DeviceState::kTrustDenied;
    case TARN_E_PAIRING_INVALID: return DeviceState::kPairingInvalid;
    case TARN_E_LOCKED: return DeviceState::kLocked;
    case TARN_E_SERVICE_REFUSED: return DeviceState::kRefused;
    case TARN_E_SYNC_LOCK_BUSY: return DeviceState::kSyncing;
    default: return DeviceState::kOther;
  }
}

StateText DescribeState(DeviceState state, const std::string &udid) {
  const std::string device = udid.empty() ? "The device" : DeviceLabel(udid);
  switch (state) {
    case DeviceState::kReady: return {device + " is ready", ""};
    case DeviceState::kNoUsbmuxd:
      return {"The USB device service is not running",
              "usbmuxd, which lets programs reach iPhones and iPods over USB, cannot be reached. Start it "
              "(sudo systemctl start usbmuxd, or plug the phone in again so that udev starts it) and make sure "
              "your user may use its socket. This window looks again every few seconds."};
    case DeviceState::kNoDevice:
      return {"No phone is connected",
              "Connect an iPhone, iPad or iPod with a USB cable and unlock it. It appears here by itself."};
    case DeviceState::kUnplugged:
      return {device + " was unplugged",
              "Plug it in again to go on: this window stays on it and shows it again as soon as it is back."};
    case DeviceState::kNotPaired:
      return {device + " is not paired with this computer",
              "Unlock it and press Pair, then tap \"Trust\" on it when it asks whether to trust this computer."};
    case DeviceState::kTrustPending:
      return {device + " is waiting for you to trust this computer",
              "Unlock it and tap \"Trust\" in the \"Trust This Computer?\" message on its screen (you may be asked "
              "for its passcode). This window goes on by itself once you have."};
    case DeviceState::kTrustDenied:
      return {device + " does not trust this computer",
              "\"Don't Trust\" was tapped on it. Unplug it, plug it in again, unlock it and tap \"Trust\"; or "
              "press Pair to be asked again."};
    case DeviceState::kPairingInvalid:
      return {"The pairing with " + device + " is no longer valid",
              "It was reset or restored, or it forgot this computer. Press Pair Again, unlock it and tap "
              "\"Trust\" when it asks."};
    case DeviceState::kLocked:
      return {device + " is locked",
              "Unlock it with its passcode. This window tries again by itself every few seconds and shows it as "
              "soon as it opens."};
    case DeviceState::kRefused:
      return {device + " refused to share its files",
              "Unlock it and keep it unlocked; if that does not help, restart it. This window tries again by "
              "itself."};
    case DeviceState::kSyncing:
      return {device + " is syncing with another computer",
              "You can browse and copy from it, but nothing can be changed on it until the sync has finished."};
    case DeviceState::kOther: break;
  }
  return {device + " cannot be reached", "Unplug it, plug it in again and unlock it."};
}

bool ClearsByItself(DeviceState state) {
  switch (state) {
    case DeviceState::kNoUsbmuxd:
    case DeviceState::kNoDevice:
    case DeviceState::kUnplugged:
    case DeviceState::kTrustPending:
    case DeviceState::kLocked:
    case DeviceState::kRefused:
    case DeviceState::kSyncing: return true;
    default: return false;
  }
}

}  // namespace tarn::app
