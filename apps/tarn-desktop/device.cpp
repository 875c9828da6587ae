#include "device.h"

#include <QDir>

#include "apps/common/failure.h"

namespace tarn::desktop {

SharedPlist Share(PlistPtr list) {
  if (!list) return nullptr;
  return SharedPlist(list.release(), app::PlistFree());
}

Reason DeviceReason(const QString &udid, const QString &what) {
  return app::WhyFailed(udid.toStdString(), app::kFailed, what.toStdString());
}

QStringList AttachedDevices() {
  QStringList ids;
  for (const std::string &id : app::AttachedDevices()) ids << Q(id);
  return ids;
}

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
