// The apps installed on a device and the way into one app's Documents:
// installation_proxy's Browse for the list, springboardservices for the
// icons, house_arrest's VendDocuments for the file conduit a handle made
// for an app connects over.
#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <type_traits>
#include <string>
#include <vector>

#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/lockdown.h>
#include <libimobiledevice/property_list_service.h>
#include <libimobiledevice/sbservices.h>

#include "common/connection.h"
#include "common/error.h"
#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace tarn {
namespace {

constexpr const char *kInstallationProxy = "com.apple.mobile.installation_proxy";
constexpr const char *kHouseArrest = "com.apple.mobile.house_arrest";
constexpr const char *kSpringboard = "com.apple.springboardservices";
// As long as libimobiledevice waits for any other answer of a phone.
constexpr unsigned kAnswerTimeoutMs = 30000;

struct ServiceDeleter {
  void operator()(lockdownd_service_descriptor_t s) const { if (s) lockdownd_service_descriptor_free(s); }
};
using ServicePtr = std::unique_ptr<std::remove_pointer_t<lockdownd_service_descriptor_t>, ServiceDeleter>;
struct PlistServiceDeleter {
  void operator()(property_list_service_client_t c) const { if (c) property_list_service_client_free(c); }
};
using PlistServicePtr = std::unique_ptr<std::remove_pointer_t<property_list_service_client_t>, PlistServiceDeleter>;
struct SpringboardDeleter {
  void operator()(sbservices_client_t c) const { if (c) sbservices_client_free(c); }
};
using SpringboardPtr = std::unique_ptr<std::remove_pointer_t<sbservices_client_t>, SpringboardDeleter>;
struct HouseArrestDeleter {
  void operator()(house_arrest_client_t c) const { if (c) house_arrest_client_free(c); }
};
using HouseArrestPtr = std::unique_ptr<std::remove_pointer_t<house_arrest_client_t>, HouseArrestDeleter>;

// The clients that reach an app's files (see IsAppClient).
struct AppClients {
  std::mutex mutex;
  std::set<afc_client_t> clients;
};

AppClients &Clients() {
  static AppClients clients;
  return clients;
}

ServicePtr StartService(lockdownd_client_t lockdown, const char *name, const char *device_id) {
  lockdownd_service_descriptor_t service = nullptr;
  const lockdownd_error_t err = lockdownd_start_service(lockdown, name, &service);
  ServicePtr owned(service);
  if (err != LOCKDOWN_E_SUCCESS || service == nullptr) {
    SetLockdownError(err == LOCKDOWN_E_SUCCESS ? LOCKDOWN_E_INVALID_SERVICE : err, device_id);
    return nullptr;
  }
  return owned;
}

std::string StringOf(plist_t dict, const char *key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return {};
  char *text = nullptr;
  plist_get_string_val(node, &text);
  const CString owned(text);
  return text ? text : "";
}

bool BoolOf(plist_t dict, const char *key) {
  plist_t node = plist_dict_get_item(dict, key);
  uint8_t value = 0;
  if (node != nullptr && plist_get_node_type(node) == PLIST_BOOLEAN) plist_get_bool_val(node, &value);
  return value != 0;
}

struct AppRecord {
  std::string identifier, name, version;
  bool file_sharing = false;
};

// Every user app, as the device sends them: pages of "BrowsingApplications"
// with a CurrentList, then "Complete". Spoken here rather than through
// instproxy_browse(), which waits for ever on a device that stops
// answering in the middle of the list.
bool BrowseApps(idevice_t device, lockdownd_client_t lockdown, const char *device_id, std::vector<AppRecord> *apps) {
  const ServicePtr service = StartService(lockdown, kInstallationProxy, device_id);
  if (!service) return false;
  property_list_service_client_t raw = nullptr;
  if (property_list_service_client_new(device, service.get(), &raw) != PROPERTY_LIST_SERVICE_E_SUCCESS) {
    SetLockdownError(LOCKDOWN_E_SERVICE_PROHIBITED, device_id);
    return false;
  }
  const PlistServicePtr client(raw);
  const PlistPtr command(plist_new_dict());
  plist_t options = plist_new_dict();
  plist_dict_set_item(options, "ApplicationType", plist_new_string("User"));
  plist_t attributes = plist_new_array();
  for (const char *key : {"CFBundleIdentifier", "CFBundleDisplayName", "CFBundleName", "CFBundleShortVersionString",
                          "CFBundleVersion", "UIFileSharingEnabled"})
    plist_array_append_item(attributes, plist_new_string(key));
  plist_dict_set_item(options, "ReturnAttributes", attributes);
  plist_dict_set_item(command.get(), "Command", plist_new_string("Browse"));
  plist_dict_set_item(command.get(), "ClientOptions", options);
  const std::string lost = "The connection to device " + std::string(device_id) + " broke while it listed its apps.";
  if (property_list_service_send_binary_plist(client.get(), command.get()) != PROPERTY_LIST_SERVICE_E_SUCCESS) {
    SetError(TARN_E_CONNECTION_LOST, lost);
    return false;
  }
  while (true) {
    plist_t answer_raw = nullptr;
    const property_list_service_error_t err =
        property_list_service_receive_plist_with_timeout(client.get(), &answer_raw, kAnswerTimeoutMs);
    const PlistPtr answer(answer_raw);
    if (err != PROPERTY_LIST_SERVICE_E_SUCCESS || !answer || plist_get_node_type(answer.get()) != PLIST_DICT) {
      SetError(TARN_E_CONNECTION_LOST, lost, Reached{apps->size(), 0});
      return false;
    }
    if (const std::string error = StringOf(answer.get(), "Error"); !error.empty()) {
      SetError(TARN_E_DEVICE, "Device " + std::string(device_id) + " did not list its apps: " + error + ".");
      return false;
    }
    plist_t list = plist_dict_get_item(answer.get(), "CurrentList");
    for (uint32_t i = 0; list && plist_get_node_type(list) == PLIST_ARRAY && i < plist_array_get_size(list); ++i) {
      plist_t app = plist_array_get_item(list, i);
      if (plist_get_node_type(app) != PLIST_DICT) continue;
      AppRecord record;
      record.identifier = StringOf(app, "CFBundleIdentifier");
      if (record.identifier.empty()) continue;
      record.name = StringOf(app, "CFBundleDisplayName");
      if (record.name.empty()) record.name = StringOf(app, "CFBundleName");
      if (record.name.empty()) record.name = record.identifier;
      record.version = StringOf(app, "CFBundleShortVersionString");
      if (record.version.empty()) record.version = StringOf(app, "CFBundleVersion");
      record.file_sharing = BoolOf(app, "UIFileSharingEnabled");
      apps->push_back(std::move(record));
    }
    if (StringOf(answer.get(), "Status") == "Complete") return true;
  }
}

// Why house_arrest would not vend an app's Documents. A phone answers
// "InstallationLookupFailed" both for an app that is not there and for one
// that shares nothing; the app list tells the two apart.
void SetVendRefusal(idevice_t device, lockdownd_client_t lockdown, const char *device_id, const std::string &app,
                    const std::string &answer) {
  const std::string on = " on device " + std::string(device_id);
  if (answer == "InstallationLookupFailed") {
    std::vector<AppRecord> apps;
    bool listed = false;
    {
      const KeepReason keep;  // a list that fails leaves the refusal's reason
      listed = BrowseApps(device, lockdown, device_id, &apps);
    }
    const auto it = std::find_if(apps.begin(), apps.end(), [&](const AppRecord &r) { return r.identifier == app; });
    if (listed && it == apps.end()) {
      SetError(TARN_E_APP_NOT_INSTALLED, "No app \"" + app + "\" is installed" + on +
                                             ": check the identifier with the list of apps.");
      return;
    }
    if (listed && !it->file_sharing) {
      SetError(TARN_E_APP_NOT_SHARING, "The app \"" + it->name + "\" (" + app + ")" + on +
                                           " does not share files with computers, so its Documents cannot be "
                                           "reached; only apps with file sharing can.");
      return;
    }
  }
  SetError(TARN_E_APP_REFUSED, "Device " + std::string(device_id) + " refused access to the files of app \"" + app +
                                   "\" (" + (answer.empty() ? std::string("no answer") : answer) + ").");
}

}  // namespace

bool IsAppClient(afc_client_t client) {
  if (client == nullptr) return false;
  AppClients &clients = Clients();
  const std::lock_guard<std::mutex> guard(clients.mutex);
  return clients.clients.count(client) != 0;
}

void ForgetAppClient(afc_client_t client) {
  AppClients &clients = Clients();
  const std::lock_guard<std::mutex> guard(clients.mutex);
  clients.clients.erase(client);
}

afc_client_t OpenAppDocuments(idevice_t device, lockdownd_client_t lockdown, const char *device_id,
                              const std::string &app, house_arrest_client_t *house_arrest) {
  *house_arrest = nullptr;
  const ServicePtr service = StartService(lockdown, kHouseArrest, device_id);
  if (!service) return nullptr;
  house_arrest_client_t raw = nullptr;
  if (house_arrest_client_new(device, service.get(), &raw) != HOUSE_ARREST_E_SUCCESS) {
    SetLockdownError(LOCKDOWN_E_SERVICE_PROHIBITED, device_id);
    return nullptr;
  }
  HouseArrestPtr client(raw);
  plist_t result_raw = nullptr;
  if (house_arrest_send_command(client.get(), "VendDocuments", app.c_str()) != HOUSE_ARREST_E_SUCCESS ||
      house_arrest_get_result(client.get(), &result_raw) != HOUSE_ARREST_E_SUCCESS) {
    const PlistPtr dropped(result_raw);
    SetError(TARN_E_CONNECTION_LOST, "The connection to device " + std::string(device_id) +
                                         " broke while it was asked for the files of app \"" + app + "\".");
    return nullptr;
  }
  const PlistPtr result(result_raw);
  const std::string error = result ? StringOf(result.get(), "Error") : "no answer";
  if (!error.empty() || StringOf(result.get(), "Status") != "Complete") {
    client.reset();  // the refusal's connection is of no further use
    SetVendRefusal(device, lockdown, device_id, app, error);
    return nullptr;
  }
  afc_client_t afc = nullptr;
  if (afc_client_new_from_house_arrest_client(client.get(), &afc) != AFC_E_SUCCESS) {
    SetError(TARN_E_APP_REFUSED, "The files of app \"" + app + "\" on device " + std::string(device_id) +
                                     " could not be opened.");
    return nullptr;
  }
  {
    AppClients &clients = Clients();
    const std::lock_guard<std::mutex> guard(clients.mutex);
    clients.clients.insert(afc);
  }
  *house_arrest = client.release();
  return afc;
}

}  // namespace tarn

extern "C" {

TARN_API plist_t TarnListApps(PodDevice *device, int with_icons) {
  const tarn::ApiCall api_call;
  if (device == nullptr || device->deviceId == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No device handle was given.");
    return nullptr;
  }
  const tarn::LockdownSession session(device, "ideviceclient");
  if (session.status() != tarn::LockdownSession::Status::kOk) return nullptr;
  std::vector<tarn::AppRecord> apps;
  if (!tarn::BrowseApps(session.device(), session.lockdown(), device->deviceId, &apps)) return nullptr;
  std::sort(apps.begin(), apps.end(), [](const tarn::AppRecord &a, const tarn::AppRecord &b) {
    const int by_name = g_ascii_strcasecmp(a.name.c_str(), b.name.c_str());
    return by_name != 0 ? by_name < 0 : a.identifier < b.identifier;
  });
  tarn::SpringboardPtr springboard;
  if (with_icons != 0) {
    if (const tarn::ServicePtr service = tarn::StartService(session.lockdown(), tarn::kSpringboard, device->deviceId)) {
      sbservices_client_t raw = nullptr;
      if (sbservices_client_new(session.device(), service.get(), &raw) == SBSERVICES_E_SUCCESS) springboard.reset(raw);
    }
    if (!springboard) return nullptr;
  }
  tarn::PlistPtr list(plist_new_array());
  for (const tarn::AppRecord &app : apps) {
    plist_t item = plist_new_dict();
    plist_dict_set_item(item, "identifier", plist_new_string(app.identifier.c_str()));
    plist_dict_set_item(item, "name", plist_new_string(app.name.c_str()));
    plist_dict_set_item(item, "version", plist_new_string(app.version.c_str()));
    plist_dict_set_item(item, "file_sharing", plist_new_bool(app.file_sharing ? 1 : 0));
    plist_array_append_item(list.get(), item);
    if (!springboard) continue;
    char *png = nullptr;
    uint64_t size = 0;
    const sbservices_error_t err = sbservices_get_icon_pngdata(springboard.get(), app.identifier.c_str(), &png, &size);
    const tarn::CString owned(png);
    if (err != SBSERVICES_E_SUCCESS) {
      tarn::SetError(TARN_E_CONNECTION_LOST, "The connection to device " + std::string(device->deviceId) +
                                                 " broke while it gave the apps' icons.");
      return nullptr;
    }
    if (png != nullptr && size > 0) plist_dict_set_item(item, "icon", plist_new_data(png, size));
  }
  return list.release();
}

TARN_API PodDevice *CreatePodDeviceForApp(const char *device_id, const char *bundle_id) {
  const tarn::ApiCall api_call;
  if (device_id == nullptr || *device_id == '\0' || bundle_id == nullptr || *bundle_id == '\0') {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A device identifier and an app's bundle identifier are needed.");
    return nullptr;
  }
  PodDevice *device = CreatePodDevice(device_id);
  if (device != nullptr) tarn::SetAppOf(device, bundle_id);
  return device;
}

}  // extern "C"
