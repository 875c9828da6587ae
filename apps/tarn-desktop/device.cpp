#include "device.h"

#include <QDir>

#include "common/failure.h"

namespace tarn::desktop {

SharedPlist Share(PlistPtr list) {
  if (!list) return nullptr;
  return SharedPlist(list.release(), app::PlistFree());
}

Reason LastReason(const QString &udid, const QString &fallback) {
  const TarnError *error = TarnLastError();
  if (error->code != TARN_OK && error->code != TARN_E_SYNC_LOCK_BUSY && error->code != TARN_E_WALK_CUT)
    return {error->code, Q(app::Reason(*error))};
  // The library may have said nothing; a device that is no longer listed
  // is the likeliest cause and the one a person can fix.
  if (!udid.isEmpty() && !AttachedDevices().contains(udid)) {
    const std::string what = (fallback + ' ' + QObject::tr("The device %1 is no longer attached.").arg(udid)).toStdString();
    TarnError gone{};
    gone.code = TARN_E_NO_DEVICE;
    gone.message = what.c_str();
    return {TARN_E_NO_DEVICE, Q(app::Reason(gone))};
  }
  return {0, fallback};
}

Reason FromFailure(const app::Failure &failure) {
  const TarnError *error = TarnLastError();
  return {error->code, Q(failure.message)};
}

QStringList AttachedDevices() {
  QStringList ids;
  for (const std::string &id : app::AttachedDevices()) ids << Q(id);
  return ids;
}

DevicePtr HandleFor(const QString &udid) { return DevicePtr(CreatePodDevice(udid.toUtf8().constData())); }

app::SessionOptions SessionFor(const QString &udid, bool refresh) {
  app::SessionOptions options;
  options.udid = udid.toStdString();
  options.refresh = refresh;
  return options;
}

QString SafeDevicePath(const QString &path) {
  const QString clean = QDir::cleanPath(QLatin1Char('/') + path);
  if (clean == QLatin1String("/") || clean.startsWith(QLatin1String("/.."))) return {};
  return clean;
}

}  // namespace tarn::desktop
