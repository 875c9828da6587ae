// The service record, the device list, the device handle and the per-call
// connection.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <libimobiledevice/lockdown.h>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "tarn/tarn_device.h"

extern "C" {

TARN_API PodDeviceService *CreatePodDeviceService(void) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("CreatePodDeviceService");
  auto *service = static_cast<PodDeviceService *>(std::calloc(1, sizeof(PodDeviceService)));
  if (service == nullptr) return nullptr;
  service->GetDevicesId = GetDevicesId;
  service->CreatePodDevice = CreatePodDevice;
  service->FreePodDevice = FreePodDevice;
  return service;
}

TARN_API void FreePodDeviceService(PodDeviceService *service) { std::free(service); }

TARN_API plist_t GetDevicesId(void) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("GetDevicesId");
  char **ids = nullptr;
  int count = 0;
  const idevice_error_t err = idevice_get_device_list(&ids, &count);
  if (err < 0 || count <= 0 || ids == nullptr) {
    if (ids) idevice_device_list_free(ids);
    // With no identifier the connection error tells only "daemon out of
    // reach" from "no device".
    if (err < 0) {
      tarn::SetConnectError(nullptr);
    } else {
      tarn::SetError(TARN_E_NO_DEVICE, "No device is attached: connect one with a USB cable and switch it on.");
    }
    return nullptr;
  }
  plist_t list = plist_new_array();
  for (int i = 0; i < count && ids[i] != nullptr; ++i) plist_array_append_item(list, plist_new_string(ids[i]));
  idevice_device_list_free(ids);
  tarn::ConsoleLine("GetDevicesId END");
  tarn::PrintPlist(list);
  return list;
}

TARN_API PodDevice *CreatePodDevice(const char *device_id) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("CreatePodDevice");
  // Zero-filled, so that a handle freed without InitDevice releases nothing
  // that the library did not set.
  auto *d = static_cast<PodDevice *>(std::calloc(1, sizeof(PodDevice)));
  if (d == nullptr) return nullptr;
  d->deviceId = device_id ? strdup(device_id) : nullptr;
  d->InitDevice = InitDevice;
  d->GetDeviceInfo = GetDeviceInfo;
  d->CopyFileFromDeviceToNative = CopyFileFromDeviceToNative;
  d->CopyFileFromNativeToDevice = CopyFileFromNativeToDevice;
  d->CopyDeviceDirectory = CopyDeviceDirectory;
  d->GetMusicList = GetMusicList;
  d->GetMovieList = GetMovieList;
  d->GetMusicList2 = GetMusicList;
  d->GetPlayList = GetPlayList;
  d->GetMovieList2 = GetMovieList;
  d->GetPodcastList = GetPodcastList;
  d->GetTvshowList = GetTvshowList;
  d->GetAudioBookList = GetAudioBookList;
  d->GetRecordingList = GetRecordingList;
  d->GetRingtonesList = GetRingtonesList;
  d->GetUserPictureListFromDevice = GetUserPictureListFromDevice;
  d->GetBookList = GetBookList;
  d->GetCameraPVList = GetCameraPVList;
  d->MakeDir = MakeDir;
  d->IsDirExist = IsDirExist;
  d->IsFileExist = IsFileExist;
  d->RenamePath = RenamePath;
  d->DeleteFile = DeleteFile;
  d->DeleteDir = DeleteDir;
  d->GetPodDir = GetPodDir;
  d->FreePodDir = FreePodDir;
  d->GetDirOrFileInfo = GetDirOrFileInfo;
  d->SearchFile = SearchFile;
  return d;
}

TARN_API void FreePodDevice(PodDevice *device) {
  const tarn::QuietBrokenPipe quiet_pipe;
  if (device == nullptr) return;
  tarn::ReleaseLink(device);
  tarn::ForgetApp(device);
  std::free(device->deviceId);
  device->deviceId = nullptr;
  std::free(device->hostDir);
  device->hostDir = nullptr;
  if (device->dbInfo) plist_free(device->dbInfo);
  device->dbInfo = nullptr;
  std::free(device);
}

TARN_API afc_client_t OpenIdeviceAndAfC(idevice_t *device, const char *device_id) {
  const tarn::ApiCall api_call;
  return tarn::OpenIdeviceAndAfC(device, device_id);
}

TARN_API void CloseIdeviceAndAfC(afc_client_t client, idevice_t device) {
  const tarn::QuietBrokenPipe quiet_pipe;
  tarn::CloseIdeviceAndAfC(client, device);
}

TARN_API int TarnHoldConnection(PodDevice *device) {
  const tarn::ApiCall api_call;
  return tarn::HoldLink(device) ? 0 : 1;
}

TARN_API void TarnReleaseConnection(PodDevice *device) {
  const tarn::QuietBrokenPipe quiet_pipe;
  tarn::ReleaseLink(device);
}

TARN_API afc_client_t TarnHeldClient(PodDevice *device) {
  const tarn::Link *link = tarn::HeldLink(device);
  return link != nullptr ? link->afc() : nullptr;
}

TARN_API char *TarnGetDeviceName(PodDevice *device) {
  const tarn::ApiCall api_call;
  if (device == nullptr || device->deviceId == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No device handle was given.");
    return nullptr;
  }
  char *name = nullptr;
  lockdownd_error_t err = LOCKDOWN_E_SUCCESS;
  if (const tarn::Link *held = tarn::HeldLink(device); held != nullptr && held->lockdown() != nullptr) {
    err = lockdownd_get_device_name(held->lockdown(), &name);
  } else {
    // The name is one of the values a device gives without a session, so
    // asking for it costs no secure handshake, and a locked device answers.
    idevice_t raw = nullptr;
    if (!tarn::ConnectDevice(device->deviceId, &raw)) return nullptr;
    const tarn::IdevicePtr connection(raw);
    lockdownd_client_t client = nullptr;
    err = lockdownd_client_new(connection.get(), &client, "ideviceclient");
    const tarn::LockdownPtr lockdown(client);
    if (err == LOCKDOWN_E_SUCCESS) err = lockdownd_get_device_name(lockdown.get(), &name);
  }
  if (err != LOCKDOWN_E_SUCCESS || name == nullptr) {
    std::free(name);
    tarn::SetLockdownError(err == LOCKDOWN_E_SUCCESS ? LOCKDOWN_E_UNKNOWN_ERROR : err, device->deviceId);
    return nullptr;
  }
  return name;
}

TARN_API int TarnPairDevice(PodDevice *device) {
  const tarn::ApiCall api_call;
  if (device == nullptr || device->deviceId == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No device handle was given.");
    return 1;
  }
  // The held connection was made with the record this call replaces.
  tarn::ReleaseLink(device);
  idevice_t raw = nullptr;
  if (!tarn::ConnectDevice(device->deviceId, &raw)) return 1;
  const tarn::IdevicePtr connection(raw);
  // Pairing is asked outside a session: the device has no record to start
  // one with.
  lockdownd_client_t client = nullptr;
  lockdownd_error_t err = lockdownd_client_new(connection.get(), &client, "ideviceclient");
  const tarn::LockdownPtr lockdown(client);
  // A null record: libimobiledevice makes a new one (new host identity and
  // certificates) and saves it through usbmuxd once the device accepts it.
  if (err == LOCKDOWN_E_SUCCESS) err = lockdownd_pair(lockdown.get(), nullptr);
  if (err != LOCKDOWN_E_SUCCESS) {
    tarn::SetLockdownError(err, device->deviceId);
    return 1;
  }
  return 0;
}

}  // extern "C"
