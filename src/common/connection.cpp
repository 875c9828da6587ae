#include "common/connection.h"

#include "common/error.h"

#include <map>
#include <memory>
#include <mutex>
#include "tarn/tarn_device.h"

namespace tarn {

afc_client_t OpenIdeviceAndAfC(idevice_t *device, const char *device_id) {
  if (device == nullptr || device_id == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT, "No device identifier (or no place for the connection) was given.");
    return nullptr;
  }
  if (!ConnectDevice(device_id, device)) return nullptr;
  // On a refused handshake the device connection stays in *device for the
  // caller's CloseIdeviceAndAfC.
  lockdownd_client_t lockdown = Handshake(*device, device_id, "ideviceclient");
  if (lockdown == nullptr) return nullptr;
  afc_client_t afc = StartFileService(*device, lockdown, device_id);
  // Only the device connection and the file-conduit client live on.
  lockdownd_client_free(lockdown);
  return afc;
}

void CloseIdeviceAndAfC(afc_client_t client, idevice_t device) {
  if (client) afc_client_free(client);
  if (device) idevice_free(device);
}

DeviceCall::DeviceCall(const PodDevice *device, LockPolicy policy) : conn_(device, "ideviceclient") {
  if (policy == LockPolicy::kNone) return;
  if (policy == LockPolicy::kGiveUpWithout && conn_.afc() == nullptr) {
    ready_ = false;
    return;
  }
  lock_.emplace(conn_.afc());
  if (policy == LockPolicy::kGiveUpWithout) ready_ = lock_->opened();
}

bool ConnectDevice(const char *device_id, idevice_t *device) {
  *device = nullptr;
  if (device_id == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT, "No device identifier was given.");
    return false;
  }
  if (idevice_new(device, device_id) == IDEVICE_E_SUCCESS) return true;
  *device = nullptr;
  SetConnectError(device_id);
  return false;
}

lockdownd_client_t Handshake(idevice_t device, const char *device_id, const char *label) {
  lockdownd_client_t lockdown = nullptr;
  const lockdownd_error_t err = lockdownd_client_new_with_handshake(device, &lockdown, label);
  if (err == LOCKDOWN_E_SUCCESS) return lockdown;
  SetLockdownError(err, device_id);
  return nullptr;
}

afc_client_t StartFileService(idevice_t device, lockdownd_client_t lockdown, const char *device_id) {
  lockdownd_service_descriptor_t service = nullptr;
  afc_client_t afc = nullptr;
  const lockdownd_error_t err = lockdownd_start_service(lockdown, kAfcServiceName, &service);
  if (err != LOCKDOWN_E_SUCCESS || service == nullptr) {
    SetLockdownError(err == LOCKDOWN_E_SUCCESS ? LOCKDOWN_E_INVALID_SERVICE : err, device_id);
  } else if (afc_client_new(device, service, &afc) != AFC_E_SUCCESS) {
    afc = nullptr;
    // The port the device handed out could not be connected.
    SetLockdownError(LOCKDOWN_E_SERVICE_PROHIBITED, device_id);
  }
  if (service) lockdownd_service_descriptor_free(service);
  return afc;
}

void LockSyncFile(afc_client_t client, uint64_t handle) {
  const afc_error_t err = afc_file_lock(client, handle, AFC_LOCK_EX);
  if (err == AFC_E_OP_WOULD_BLOCK) {
    SetError(TARN_E_SYNC_LOCK_BUSY,
             "The device is syncing with another computer (another party holds its sync lock); the work went on "
             "without the lock.");
  } else {
    SetAfcError(err, kSyncLockPath);
  }
}

Link::Link(const char *device_id, const char *label, const std::string &app)
    : device_id_(device_id ? device_id : ""), app_(app) {
  if (!ConnectDevice(device_id, &device_)) {
    status_ = Status::kNoDevice;
    return;
  }
  lockdown_ = Handshake(device_, device_id, label);
  if (lockdown_ == nullptr) {
    status_ = Status::kHandshakeRefused;
    return;
  }
  status_ = Status::kOk;
  afc_ = app_.empty() ? StartFileService(device_, lockdown_, device_id)
                      : OpenAppDocuments(device_, lockdown_, device_id, app_, &house_arrest_);
}

Link::~Link() {
  // The file-conduit client of an app borrows the house_arrest connection,
  // so it goes first.
  if (afc_ && house_arrest_) ForgetAppClient(afc_);
  if (afc_) afc_client_free(afc_);
  if (house_arrest_) house_arrest_client_free(house_arrest_);
  if (lockdown_) lockdownd_client_free(lockdown_);
  if (device_) idevice_free(device_);
}

namespace {

// The connection of the outermost call on this thread that opened its own.
thread_local const Link *enclosing_link = nullptr;

// The connections callers hold on their handles. A handle is used by one
// thread at a time, but different handles live on different threads.
struct HeldLinks {
  std::mutex mutex;
  std::map<const PodDevice *, std::unique_ptr<Link>> links;
};

HeldLinks &Held() {
  static HeldLinks held;
  return held;
}

// The apps handles were created for; handles live on different threads.
struct HandleApps {
  std::mutex mutex;
  std::map<const PodDevice *, std::string> apps;
};

HandleApps &Apps() {
  static HandleApps apps;
  return apps;
}

}  // namespace

std::string AppOf(const PodDevice *device) {
  HandleApps &apps = Apps();
  const std::lock_guard<std::mutex> guard(apps.mutex);
  const auto it = apps.apps.find(device);
  return it == apps.apps.end() ? std::string() : it->second;
}

void SetAppOf(const PodDevice *device, const char *app) {
  HandleApps &apps = Apps();
  const std::lock_guard<std::mutex> guard(apps.mutex);
  apps.apps[device] = app;
}

void ForgetApp(const PodDevice *device) {
  HandleApps &apps = Apps();
  const std::lock_guard<std::mutex> guard(apps.mutex);
  apps.apps.erase(device);
}

const Link *HeldLink(const PodDevice *device) {
  if (device == nullptr) return nullptr;
  HeldLinks &held = Held();
  const std::lock_guard<std::mutex> guard(held.mutex);
  const auto it = held.links.find(device);
  return it == held.links.end() ? nullptr : it->second.get();
}

bool HoldLink(const PodDevice *device) {
  if (device == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT, "No device handle was given.");
    return false;
  }
  if (HeldLink(device) != nullptr) return true;
  auto link = std::make_unique<Link>(device->deviceId, "ideviceclient", AppOf(device));
  if (link->status() != Link::Status::kOk || link->afc() == nullptr) return false;
  HeldLinks &held = Held();
  const std::lock_guard<std::mutex> guard(held.mutex);
  held.links.emplace(device, std::move(link));
  return true;
}

void ReleaseLink(const PodDevice *device) {
  std::unique_ptr<Link> link;
  {
    HeldLinks &held = Held();
    const std::lock_guard<std::mutex> guard(held.mutex);
    const auto it = held.links.find(device);
    if (it == held.links.end()) return;
    link = std::move(it->second);
    held.links.erase(it);
  }
  // Closed outside the lock: closing talks to the device.
}

LockdownSession::LockdownSession(const PodDevice *device, const char *label) {
  const char *device_id = device ? device->deviceId : nullptr;
  if ((link_ = HeldLink(device)) != nullptr) return;
  const std::string app = device ? AppOf(device) : std::string();
  if (enclosing_link != nullptr && device_id != nullptr && enclosing_link->device_id() == device_id &&
      enclosing_link->app() == app) {
    link_ = enclosing_link;
    return;
  }
  own_.emplace(device_id, label, app);
  link_ = &*own_;
  enclosing_ = enclosing_link;
  enclosing_link = link_;
}

LockdownSession::~LockdownSession() {
  if (own_) enclosing_link = enclosing_;
}

AfcFile::AfcFile(afc_client_t client, const char *path, afc_file_mode_t mode) : client_(client) {
  if (client_ == nullptr || path == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT, client_ ? "No device path was given." : "No file-service connection was given.");
    return;
  }
  error_ = afc_file_open(client_, path, mode, &handle_);
  if (error_ != AFC_E_SUCCESS) {
    handle_ = 0;
    SetAfcError(error_, path);
  }
}

void AfcFile::close() {
  if (handle_ != 0) {
    afc_file_close(client_, handle_);
    handle_ = 0;
  }
}

SyncLock::SyncLock(afc_client_t client) : client_(client) {
  if (IsAppClient(client)) return;
  file_.emplace(client, kSyncLockPath, AFC_FOPEN_RW);
  if (file_->handle() != 0) LockSyncFile(client_, file_->handle());
}

SyncLock::~SyncLock() {
  if (file_ && file_->handle() != 0) afc_file_lock(client_, file_->handle(), AFC_LOCK_UN);
  // file_ closes itself.
}

}  // namespace tarn

extern "C" {

TARN_API uint64_t TarnSyncLock(afc_client_t client) {
  const tarn::ApiCall api_call;
  if (tarn::IsAppClient(client)) return 0;
  tarn::AfcFile file(client, tarn::kSyncLockPath, AFC_FOPEN_RW);
  if (!file.is_open()) return 0;
  tarn::LockSyncFile(client, file.handle());
  // The caller closes the lock file with TarnSyncUnlock.
  return file.release();
}

TARN_API void TarnSyncUnlock(afc_client_t client, uint64_t lock) {
  const tarn::QuietBrokenPipe quiet_pipe;
  // A release leaves the record alone: see the header.
  if (client == nullptr || lock == 0) return;
  afc_file_lock(client, lock, AFC_LOCK_UN);
  afc_file_close(client, lock);
}

}  // extern "C"
