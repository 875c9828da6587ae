// The window's hold on the library, over what it shares with tarn
// (apps/common): the chosen device's session, the attached devices,
// failures as the shared layer composes them, and the shared text and plist
// readers handed over as Qt strings.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <QString>
#include <QStringList>

#include <tarn/tarn_device.h>

#include "apps/common/failure.h"
#include "apps/common/owners.h"
#include "apps/common/plist_view.h"
#include "apps/common/session.h"
#include "apps/common/text.h"

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

// Why something failed, for a person: the shared layer's one shape, whose
// message says what happened and what to do.
using Reason = app::Failure;
inline QString Text(const Reason &reason) { return Q(reason.message); }

// The reason the last library call on this thread recorded, about `what`;
// when it recorded none and the device is no longer attached, that.
Reason DeviceReason(const QString &udid, const QString &what);

// Identifiers of the attached devices, in the daemon's order.
QStringList AttachedDevices();

// The options of a session with the device; `refresh` reads the databases
// afresh.
app::SessionOptions SessionFor(const QString &udid, bool refresh = false);

// A device path cleaned of "." and ".." and doubled separators; empty when
// it would name the root or leave it, so that nothing destructive reaches it.
QString SafeDevicePath(const QString &path);

}  // namespace tarn::desktop
