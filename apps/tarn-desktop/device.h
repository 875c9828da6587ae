// The window's hold on the library, over what it shares with tarn
// (apps/common): handles per worker, the attached devices, failures as
// sentences a person can act on, and the shared text and plist readers
// handed over as Qt strings.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <QString>
#include <QStringList>

#include <tarn/tarn_device.h>

#include "common/owners.h"
#include "common/plist_view.h"
#include "common/session.h"
#include "common/text.h"

namespace tarn::desktop {

using app::ArrayItems;
using app::DictArray;
using app::DictUint;
using app::PlistPtr;

// Lists are shared between the worker that fetched them and the models that
// show them; the last owner frees the list.
using SharedPlist = std::shared_ptr<void>;
SharedPlist Share(PlistPtr list);

inline QString Q(const std::string &text) { return QString::fromStdString(text); }
inline QString DictString(plist_t dict, const char *key) { return Q(app::DictString(dict, key)); }
inline QString Known(plist_t dict, const char *key) { return Q(app::Known(app::DictString(dict, key))); }
inline QString HumanSize(uint64_t bytes) { return Q(app::HumanSize(bytes)); }
inline QString HumanDuration(uint64_t millis) { return Q(app::HumanDuration(millis)); }
inline QString LocalTime(int64_t seconds) { return Q(app::LocalTime(seconds)); }

struct DeviceFree {
  void operator()(PodDevice *device) const { FreePodDevice(device); }
};
using DevicePtr = std::unique_ptr<PodDevice, DeviceFree>;

// Why something failed, for a person: what happened and what to do.
struct Reason {
  int code = 0;  // TarnErrorCode, 0 when the library said nothing
  QString text;  // empty: no failure
  bool failed() const { return !text.isEmpty(); }
};

// The reason the last library call on this thread recorded, or `fallback`
// when it recorded none (naming the unplugged device when that is why).
Reason LastReason(const QString &udid, const QString &fallback);
// A failure that apps/common threw.
Reason FromFailure(const app::Failure &failure);

// Identifiers of the attached devices, in the daemon's order.
QStringList AttachedDevices();

// A bare handle for one worker's file operations (they need no databases).
DevicePtr HandleFor(const QString &udid);

// The options of a worker's session with the device; `refresh` reads the
// databases afresh.
app::SessionOptions SessionFor(const QString &udid, bool refresh = false);

// A device path cleaned of "." and ".." and doubled separators; empty when
// it would name the root or leave it, so that nothing destructive reaches it.
QString SafeDevicePath(const QString &path);

}  // namespace tarn::desktop
