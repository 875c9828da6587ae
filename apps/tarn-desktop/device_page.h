// What a page of the window hears about the chosen device. Every page the
// window shows in a section (MainWindow::AddSection, MainWindow::AddView)
// may implement it; the window finds it with dynamic_cast and calls it on
// the window's thread.
#pragma once

#include <memory>

#include <QList>
#include <QString>

class QAction;

namespace tarn::desktop {

class DeviceLink;

class DevicePage {
 public:
  virtual ~DevicePage() = default;
  // Another device was chosen, or the chosen one went away (null): drop
  // what was shown, filters and searches included, since they belonged to
  // the other device.
  virtual void SetDevice(const std::shared_ptr<DeviceLink> &link) = 0;
  // The page is on screen and the device is open: read what is not read yet
  // over the link (its held connection: no new secure session).
  virtual void Activate() {}
  // Whether the device may be changed now; `why` says why not (the device
  // syncs with another computer). Reading stays allowed.
  virtual void SetWritable(bool writable, const QString &why) {
    (void)writable;
    (void)why;
  }
};

}  // namespace tarn::desktop
