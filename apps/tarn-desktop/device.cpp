#include "device.h"

#include <QDateTime>
#include <QDir>
#include <QLocale>
#include <QStandardPaths>

namespace tarn::desktop {

SharedPlist Share(plist_t node) {
  if (node == nullptr) return nullptr;
  return SharedPlist(node, PlistFree());
}

namespace {

// What a person can do about each reason; the library's own sentence says
// what happened.
QString RemedyFor(int code) {
  switch (code) {
    case TARN_E_NO_USBMUXD:
      return QObject::tr("Start the usbmuxd service (sudo systemctl start usbmuxd) and check that you may use its socket.");
    case TARN_E_NO_DEVICE: return QObject::tr("Plug the device in again, then press Refresh (F5).");
    case TARN_E_NOT_PAIRED: return QObject::tr("Unlock the device and tap Trust when it asks, then press Refresh (F5).");
    case TARN_E_PAIRING_PENDING: return QObject::tr("Tap Trust on the device, then press Refresh (F5).");
    case TARN_E_TRUST_DENIED:
      return QObject::tr("Unplug the device, plug it in again and tap Trust this time.");
    case TARN_E_LOCKED: return QObject::tr("Unlock the device with its passcode, then press Refresh (F5).");
    case TARN_E_PAIRING_INVALID:
      return QObject::tr("Pair again: run \"idevicepair unpair\" and then \"idevicepair pair\", and tap Trust on the device.");
    case TARN_E_SERVICE_REFUSED: return QObject::tr("Restart the device and try again.");
    case TARN_E_CONNECTION_LOST: return QObject::tr("Check the cable, plug the device in again and retry.");
    case TARN_E_NOT_FOUND: return QObject::tr("Press Refresh (F5): it may have been moved or removed.");
    case TARN_E_PERMISSION: return QObject::tr("Choose another place, or check its permissions.");
    case TARN_E_DEVICE_FULL: return QObject::tr("Free some space on the device and retry.");
    case TARN_E_DATABASE_UNREADABLE:
      return QObject::tr("Sync the device once with its computer so that it writes its library again.");
    case TARN_E_SYNC_LOCK_BUSY: return QObject::tr("Wait until the device has finished syncing with the other computer.");
    case TARN_E_HOST_IO: return QObject::tr("Check that the folder on this computer has space and can be written.");
    default: return {};
  }
}

}  // namespace

Reason LastReason(const QString &udid, const QString &fallback) {
  const TarnError *error = TarnLastError();
  Reason reason;
  if (error->code != TARN_OK && error->code != TARN_E_SYNC_LOCK_BUSY && error->code != TARN_E_WALK_CUT) {
    reason.code = error->code;
    reason.what = QString::fromUtf8(error->message);
    reason.remedy = RemedyFor(error->code);
    return reason;
  }
  reason.what = fallback;
  // The library may have said nothing; a device that is no longer listed
  // is the likeliest cause and the one a person can fix.
  if (!udid.isEmpty() && !AttachedDevices().contains(udid)) {
    reason.code = TARN_E_NO_DEVICE;
    reason.what = fallback + " " + QObject::tr("The device is no longer attached.");
    reason.remedy = RemedyFor(TARN_E_NO_DEVICE);
  }
  return reason;
}

QStringList AttachedDevices() {
  QStringList ids;
  PlistPtr list(GetDevicesId());
  if (!list || plist_get_node_type(list.get()) != PLIST_ARRAY) return ids;
  for (plist_t node : ArrayItems(list.get()))
    if (plist_get_node_type(node) == PLIST_STRING) ids << QString::fromUtf8(plist_get_string_ptr(node, nullptr));
  return ids;
}

QString WorkDirFor(const QString &udid) {
  QString safe = udid;
  for (QChar &c : safe)
    if (!c.isLetterOrNumber() && c != '-') c = '_';
  if (safe.isEmpty()) safe = "device";
  return QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/devices/" + safe;
}

void ClearWorkDir(const QString &udid) {
  QDir dir(WorkDirFor(udid));
  dir.removeRecursively();
  QDir().mkpath(dir.path());
}

DevicePtr HandleFor(const QString &udid) { return DevicePtr(CreatePodDevice(udid.toUtf8().constData())); }

DevicePtr OpenDevice(const QString &udid, Reason *why) {
  const QString dir = WorkDirFor(udid);
  QDir().mkpath(dir);
  DevicePtr device(CreatePodDevice(udid.toUtf8().constData()));
  if (device && InitDevice(device.get(), QDir::cleanPath(dir).toUtf8().constData()) == 0) return device;
  if (why != nullptr) *why = LastReason(udid, QObject::tr("The device %1 cannot be reached.").arg(udid));
  return nullptr;
}

QString DictString(plist_t dict, const char *key) {
  plist_t node = dict != nullptr && plist_get_node_type(dict) == PLIST_DICT ? plist_dict_get_item(dict, key) : nullptr;
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return {};
  return QString::fromUtf8(plist_get_string_ptr(node, nullptr));
}

uint64_t DictUint(plist_t dict, const char *key) {
  plist_t node = dict != nullptr && plist_get_node_type(dict) == PLIST_DICT ? plist_dict_get_item(dict, key) : nullptr;
  uint64_t value = 0;
  if (node != nullptr && plist_get_node_type(node) == PLIST_UINT) plist_get_uint_val(node, &value);
  return value;
}

plist_t DictArray(plist_t dict, const char *key) {
  plist_t node = dict != nullptr && plist_get_node_type(dict) == PLIST_DICT ? plist_dict_get_item(dict, key) : nullptr;
  return node != nullptr && plist_get_node_type(node) == PLIST_ARRAY ? node : nullptr;
}

std::vector<plist_t> ArrayItems(plist_t array) {
  std::vector<plist_t> items;
  if (array == nullptr || plist_get_node_type(array) != PLIST_ARRAY) return items;
  const uint32_t n = plist_array_get_size(array);
  items.reserve(n);
  for (uint32_t i = 0; i < n; ++i) items.push_back(plist_array_get_item(array, i));
  return items;
}

QString Known(const QString &text) { return text == QLatin1String("(None)") ? QString() : text; }

QString HumanSize(uint64_t bytes) {
  return QLocale::system().formattedDataSize(static_cast<qint64>(bytes), 1, QLocale::DataSizeIecFormat);
}

QString HumanDuration(uint64_t millis) {
  const uint64_t s = millis / 1000;
  if (s >= 3600) return QString::asprintf("%llu:%02llu:%02llu", static_cast<unsigned long long>(s / 3600),
                                          static_cast<unsigned long long>(s / 60 % 60), static_cast<unsigned long long>(s % 60));
  return QString::asprintf("%llu:%02llu", static_cast<unsigned long long>(s / 60), static_cast<unsigned long long>(s % 60));
}

QString LocalTime(int64_t seconds) {
  return QDateTime::fromSecsSinceEpoch(seconds).toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

QString SafeDevicePath(const QString &path) {
  const QString clean = QDir::cleanPath(QLatin1Char('/') + path);
  if (clean == QLatin1String("/") || clean.startsWith(QLatin1String("/.."))) return {};
  return clean;
}

}  // namespace tarn::desktop
