// A file-conduit client the way applications build one with
// libimobiledevice: device, lockdown handshake, StartService, AFC.
#pragma once

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "test_util.h"

namespace tarn::testing {

class AfcClient {
 public:
  explicit AfcClient(const std::string& udid) {
    if (idevice_new(&dev_, udid.c_str()) != IDEVICE_E_SUCCESS) {
      error = "idevice_new";
      return;
    }
    lockdownd_client_t ld = nullptr;
    lockdown_err = lockdownd_client_new_with_handshake(dev_, &ld, "tarn-test");
    if (lockdown_err != LOCKDOWN_E_SUCCESS) {
      error = "handshake";
      return;
    }
    lockdownd_service_descriptor_t svc = nullptr;
    lockdown_err = lockdownd_start_service(ld, "com.apple.afc", &svc);
    lockdownd_client_free(ld);
    if (lockdown_err != LOCKDOWN_E_SUCCESS) {
      error = "start_service";
      return;
    }
    afc_error_t e = afc_client_new(dev_, svc, &afc_);
    lockdownd_service_descriptor_free(svc);
    if (e != AFC_E_SUCCESS) error = "afc_client_new";
  }
  ~AfcClient() {
    if (afc_) afc_client_free(afc_);
    if (dev_) idevice_free(dev_);
  }
  AfcClient(const AfcClient&) = delete;
  AfcClient& operator=(const AfcClient&) = delete;

  bool ok() const { return error.empty(); }
  afc_client_t get() const { return afc_; }

  std::map<std::string, std::string> file_info(const std::string& path, afc_error_t* err = nullptr) {
    char** info = nullptr;
    afc_error_t e = afc_get_file_info(afc_, path.c_str(), &info);
    if (err) *err = e;
    return take_pairs(info);
  }
  std::map<std::string, std::string> device_info() {
    char** info = nullptr;
    afc_get_device_info(afc_, &info);
    return take_pairs(info);
  }
  std::vector<std::string> list(const std::string& path, afc_error_t* err = nullptr) {
    char** names = nullptr;
    afc_error_t e = afc_read_directory(afc_, path.c_str(), &names);
    if (err) *err = e;
    std::vector<std::string> out;
    for (char** p = names; p && *p; ++p) out.emplace_back(*p);
    if (names) afc_dictionary_free(names);
    return out;
  }
  afc_error_t put(const std::string& path, const std::string& data, afc_file_mode_t mode = AFC_FOPEN_WRONLY) {
    uint64_t h = 0;
    afc_error_t e = afc_file_open(afc_, path.c_str(), mode, &h);
    if (e != AFC_E_SUCCESS) return e;
    uint32_t n = 0;
    e = afc_file_write(afc_, h, data.data(), static_cast<uint32_t>(data.size()), &n);
    afc_file_close(afc_, h);
    return e;
  }
  afc_error_t get(const std::string& path, std::string& data) {
    uint64_t h = 0;
    data.clear();
    afc_error_t e = afc_file_open(afc_, path.c_str(), AFC_FOPEN_RDONLY, &h);
    if (e != AFC_E_SUCCESS) return e;
    char buf[65536];
    while (true) {
      uint32_t n = 0;
      e = afc_file_read(afc_, h, buf, sizeof buf, &n);
      if (e != AFC_E_SUCCESS || n == 0) break;
      data.append(buf, n);
    }
    afc_file_close(afc_, h);
    return e;
  }

  std::string error;
  lockdownd_error_t lockdown_err = LOCKDOWN_E_SUCCESS;

 private:
  static std::map<std::string, std::string> take_pairs(char** kv) {
    std::map<std::string, std::string> out;
    for (char** p = kv; p && p[0] && p[1]; p += 2) out[p[0]] = p[1];
    if (kv) afc_dictionary_free(kv);
    return out;
  }
  idevice_t dev_ = nullptr;
  afc_client_t afc_ = nullptr;
};

}  // namespace tarn::testing
