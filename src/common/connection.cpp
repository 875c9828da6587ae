#include "common/connection.h"

#include "common/error.h"
#include "tarn/tarn_device.h"

namespace tarn {

DeviceConnection::DeviceConnection(const char *device_id) {
  afc_ = OpenIdeviceAndAfC(&device_, device_id);
}

DeviceConnection::~DeviceConnection() { CloseIdeviceAndAfC(afc_, device_); }

LockdownSession::LockdownSession(const char *device_id, const char *label) {
  if (device_id == nullptr || idevice_new(&device_, device_id) != IDEVICE_E_SUCCESS) {
    device_ = nullptr;
    status_ = Status::kNoDevice;
    return;
  }
  if (lockdownd_client_new_with_handshake(device_, &lockdown_, label) != LOCKDOWN_E_SUCCESS) {
    lockdown_ = nullptr;
    status_ = Status::kHandshakeRefused;
    return;
  }
  status_ = Status::kOk;
  lockdownd_service_descriptor_t service = nullptr;
  if (lockdownd_start_service(lockdown_, kAfcServiceName, &service) == LOCKDOWN_E_SUCCESS && service) {
    if (afc_client_new(device_, service, &afc_) != AFC_E_SUCCESS) afc_ = nullptr;
  }
  if (service) lockdownd_service_descriptor_free(service);
}

LockdownSession::~LockdownSession() {
  if (afc_) afc_client_free(afc_);
  if (lockdown_) lockdownd_client_free(lockdown_);
  if (device_) idevice_free(device_);
}

AfcFile::AfcFile(afc_client_t client, const char *path, afc_file_mode_t mode) : client_(client) {
  if (client_ == nullptr || path == nullptr) return;
  error_ = afc_file_open(client_, path, mode, &handle_);
  if (error_ != AFC_E_SUCCESS) handle_ = 0;
}

void AfcFile::close() {
  if (handle_ != 0) {
    afc_file_close(client_, handle_);
    handle_ = 0;
  }
}

SyncLock::SyncLock(afc_client_t client)
    : client_(client), file_(client, kSyncLockPath, AFC_FOPEN_RW) {
  if (file_.handle() != 0) afc_file_lock(client_, file_.handle(), AFC_LOCK_EX);
}

SyncLock::~SyncLock() {
  if (file_.handle() != 0) afc_file_lock(client_, file_.handle(), AFC_LOCK_UN);
  // file_ closes itself.
}

}  // namespace tarn

extern "C" {

TARN_API uint64_t TarnSyncLock(afc_client_t client) {
  tarn::ClearError();
  if (client == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT);
    return 0;
  }
  uint64_t handle = 0;
  if (afc_file_open(client, tarn::kSyncLockPath, AFC_FOPEN_RW, &handle) != AFC_E_SUCCESS || handle == 0) {
    tarn::SetError(TARN_E_DEVICE, "The device's sync-lock file could not be opened.");
    return 0;
  }
  if (afc_file_lock(client, handle, AFC_LOCK_EX) != AFC_E_SUCCESS) tarn::SetError(TARN_E_SYNC_LOCK_BUSY);
  return handle;
}

TARN_API void TarnSyncUnlock(afc_client_t client, uint64_t lock) {
  tarn::ClearError();
  if (client == nullptr || lock == 0) return;
  afc_file_lock(client, lock, AFC_LOCK_UN);
  afc_file_close(client, lock);
}

}  // extern "C"
