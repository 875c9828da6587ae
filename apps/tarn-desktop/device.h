// The window's hold on the library: owners for what its C functions hand
// out, a handle per worker, the attached devices, and failures turned into
// sentences a person can act on. Only the public header is used, as any
// application would.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <QString>
#include <QStringList>

#include <tarn/tarn_device.h>

namespace tarn::desktop {

struct PlistFree {
  void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;
// Lists are shared between the worker that fetched them and the models that
// show them; the last owner frees the list on its own thread.
using SharedPlist = std::shared_ptr<void>;
SharedPlist Share(plist_t node);

struct DeviceFree {
  void operator()(PodDevice *device) const { FreePodDevice(device); }
};
using DevicePtr = std::unique_ptr<PodDevice, DeviceFree>;

// Why something failed and what the person can do about it.
struct Reason {
  int code = 0;        // TarnErrorCode, 0 when the library said nothing
  QString what;        // empty: no failure
  QString remedy;
  bool failed() const { return !what.isEmpty(); }
  QString text() const { return remedy.isEmpty() ? what : what + " " + remedy; }
};

// The reason the last library call on this thread recorded, or `fallback`
// (with a remedy of its own when the device has gone) when it recorded none.
Reason LastReason(const QString &udid, const QString &fallback);

// Identifiers of the attached devices, in the daemon's order.
QStringList AttachedDevices();

// The folder the databases of a device are copied into; the window owns it.
QString WorkDirFor(const QString &udid);
// Empties the folder so that the next handle reads the databases afresh.
void ClearWorkDir(const QString &udid);

// A bare handle for one worker's file operations (they need no databases).
DevicePtr HandleFor(const QString &udid);
// A handle initialised over the device's work folder, for one worker.
// Null with `why` filled when the device cannot be reached.
DevicePtr OpenDevice(const QString &udid, Reason *why);

// Property-list lookups that tolerate missing keys and other node types.
QString DictString(plist_t dict, const char *key);
uint64_t DictUint(plist_t dict, const char *key);
plist_t DictArray(plist_t dict, const char *key);
std::vector<plist_t> ArrayItems(plist_t array);
// The library writes "(None)" for a missing artist, album or genre.
QString Known(const QString &text);

QString HumanSize(uint64_t bytes);
QString HumanDuration(uint64_t millis);
QString LocalTime(int64_t seconds);

// A device path cleaned of "." and ".." and doubled separators; empty when
// it would name the root or leave it, so that nothing destructive reaches it.
QString SafeDevicePath(const QString &path);

}  // namespace tarn::desktop
