#include "device.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace devsim {

const char* op_name(Op op) {
  static constexpr const char* names[] = {
      "GetDeviceInfo", "GetFileInfo", "ReadDirectory", "FileOpen",    "FileRead",
      "FileWrite",     "FileSeek",    "FileTell",      "FileClose",   "FileLock",
      "FileSetSize",   "MakeDir",     "RemovePath",    "RenamePath",  "Other"};
  int i = static_cast<int>(op);
  return (i >= 0 && i < static_cast<int>(Op::Count)) ? names[i] : "Other";
}

namespace {

using json = nlohmann::json;

// A stable 40-hex-digit identifier for images whose description names none.
std::string hex_id(const std::string& seed, size_t digits) {
  std::string out;
  uint64_t h = 1469598103934665603ull;
  while (out.size() < digits) {
    for (char c : seed) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    h = (h ^ out.size()) * 1099511628211ull;
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
    out += buf;
  }
  out.resize(digits);
  return out;
}

plist_t json_to_plist(const json& j) {
  switch (j.type()) {
    case json::value_t::boolean: return plist_new_bool(j.get<bool>() ? 1 : 0);
    case json::value_t::number_unsigned: return plist_new_uint(j.get<uint64_t>());
    case json::value_t::number_integer: {
      int64_t v = j.get<int64_t>();
      // libplist 2.2 stores integers as unsigned; negative values keep their bits.
      return plist_new_uint(static_cast<uint64_t>(v));
    }
    case json::value_t::number_float: return plist_new_real(j.get<double>());
    case json::value_t::string: return plist_new_string(j.get<std::string>().c_str());
    case json::value_t::array: {
      plist_t a = plist_new_array();
      for (const auto& e : j) plist_array_append_item(a, json_to_plist(e));
      return a;
    }
    case json::value_t::object: {
      plist_t d = plist_new_dict();
      for (const auto& [k, v] : j.items()) plist_dict_set_item(d, k.c_str(), json_to_plist(v));
      return d;
    }
    default: return plist_new_string("");
  }
}

bool parse_bool(const std::string& v, bool& out) {
  if (v == "1" || v == "true" || v == "yes" || v == "on") return out = true, true;
  if (v == "0" || v == "false" || v == "no" || v == "off" || v.empty()) return out = false, true;
  return false;
}

}  // namespace

Device::Device(std::string image, uint32_t mux_id) : image_(std::move(image)), mux_id_(mux_id) {
  while (image_.size() > 1 && image_.back() == '/') image_.pop_back();
  media_ = image_ + "/media";
  struct stat st {};
  if (::stat(media_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    throw std::runtime_error("image " + image_ + " has no media/ directory");

  values_.reset(plist_new_dict());
  faults_ = std::make_shared<Faults>();

  std::ifstream in(image_ + "/device.json");
  if (in) {
    json desc;
    try {
      desc = json::parse(in);
    } catch (const std::exception& e) {
      throw std::runtime_error(image_ + "/device.json: " + e.what());
    }
    if (!desc.is_object()) throw std::runtime_error(image_ + "/device.json: not an object");
    for (const char* key :
         {"UniqueDeviceID", "DeviceName", "ProductType", "ProductVersion", "SerialNumber"}) {
      auto it = desc.find(key);
      if (it != desc.end() && it->is_string())
        plist_dict_set_item(values_.get(), key, plist_new_string(it->get<std::string>().c_str()));
    }
    if (auto it = desc.find("UniqueDeviceID"); it != desc.end() && it->is_string())
      udid_ = it->get<std::string>();
    auto num = [&](const char* key, uint64_t& out, bool& has) {
      auto it = desc.find(key);
      if (it != desc.end() && it->is_number()) {
        out = it->get<uint64_t>();
        has = true;
      }
    };
    num("FSTotalBytes", fs_total_, has_fs_total_);
    num("FSFreeBytes", fs_free_, has_fs_free_);
    num("FSBlockSize", fs_block_, has_fs_block_);
    if (auto it = desc.find("Model"); it != desc.end() && it->is_string())
      model_ = it->get<std::string>();
    if (auto it = desc.find("USBProductID"); it != desc.end() && it->is_number_unsigned())
      product_id_ = it->get<uint32_t>();
    if (has_fs_total_ || has_fs_free_) {
      plist_t du = plist_new_dict();
      if (has_fs_total_) {
        plist_dict_set_item(du, "TotalDiskCapacity", plist_new_uint(fs_total_));
        plist_dict_set_item(du, "TotalDataCapacity", plist_new_uint(fs_total_));
      }
      if (has_fs_free_) {
        plist_dict_set_item(du, "TotalDataAvailable", plist_new_uint(fs_free_));
        plist_dict_set_item(du, "AmountDataAvailable", plist_new_uint(fs_free_));
      }
      domains_["com.apple.disk_usage"].reset(du);
    }
    // Further lockdown values: an object member whose name contains a dot is
    // a whole domain ("com.apple.foo": {...}); anything else is a key of the
    // default domain.
    if (auto it = desc.find("lockdown"); it != desc.end()) {
      if (!it->is_object()) throw std::runtime_error(image_ + "/device.json: lockdown is not an object");
      for (const auto& [k, v] : it->items()) {
        if (v.is_object() && k.find('.') != std::string::npos) {
          auto& dom = domains_[k];
          if (!dom) dom.reset(plist_new_dict());
          for (const auto& [dk, dv] : v.items())
            plist_dict_set_item(dom.get(), dk.c_str(), json_to_plist(dv));
        } else {
          plist_dict_set_item(values_.get(), k.c_str(), json_to_plist(v));
        }
      }
    }
  }
  if (udid_.empty()) udid_ = hex_id(image_, 40);
  load_apps();
  if (!plist_dict_get_item(values_.get(), "UniqueDeviceID"))
    plist_dict_set_item(values_.get(), "UniqueDeviceID", plist_new_string(udid_.c_str()));
  host_id_ = hex_id("host:" + udid_, 32);
  for (int pos : {8, 13, 18, 23}) host_id_.insert(static_cast<size_t>(pos), 1, '-');
  for (auto& c : host_id_) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

  identity_ = make_identity();
  fill_common_values();
  const std::string& pub = identity_->device_public_key;
  plist_dict_set_item(values_.get(), "DevicePublicKey",
                      plist_new_data(pub.data(), static_cast<uint64_t>(pub.size())));
  if (!plist_dict_get_item(values_.get(), "WiFiAddress"))
    plist_dict_set_item(values_.get(), "WiFiAddress", plist_new_string(identity_->wifi_mac.c_str()));
}

// The apps of IMAGE/apps.json: an array of attribute dictionaries as
// installation_proxy answers them. The image builder writes it with each
// app's container in IMAGE/apps/ID and its icon in IMAGE/icons/ID.png.
void Device::load_apps() {
  std::ifstream in(image_ + "/apps.json");
  if (!in) return;
  json list;
  try {
    list = json::parse(in);
  } catch (const std::exception& e) {
    throw std::runtime_error(image_ + "/apps.json: " + e.what());
  }
  if (!list.is_array()) throw std::runtime_error(image_ + "/apps.json: not an array");
  for (const auto& entry : list) {
    if (!entry.is_object() || !entry.contains("CFBundleIdentifier") || !entry["CFBundleIdentifier"].is_string())
      throw std::runtime_error(image_ + "/apps.json: an app without CFBundleIdentifier");
    App app;
    app.id = entry["CFBundleIdentifier"].get<std::string>();
    app.attributes.reset(json_to_plist(entry));
    app.file_sharing = entry.value("UIFileSharingEnabled", false);
    if (auto it = entry.find("Entitlements"); it != entry.end() && it->is_object())
      app.developer = it->value("get-task-allow", false);
    app.container = image_ + "/apps/" + app.id;
    app.icon = image_ + "/icons/" + app.id + ".png";
    apps_.push_back(std::move(app));
  }
}

// The keys every phone answers in its default domain, so that ideviceinfo
// and idevicedate see a whole device. A value the description gives wins.
// Name, serial number, type and version stay the description's own: tests
// describe devices that lack them to see how callers cope.
void Device::fill_common_values() {
  plist_t v = values_.get();
  auto str = [&](const char* key) {
    char* s = nullptr;
    if (plist_t n = plist_dict_get_item(v, key); n && plist_get_node_type(n) == PLIST_STRING)
      plist_get_string_val(n, &s);
    std::string out = s ? s : "";
    std::free(s);
    return out;
  };
  auto fill = [&](const char* key, plist_t value) {
    if (plist_dict_get_item(v, key)) plist_free(value);
    else plist_dict_set_item(v, key, value);
  };
  std::string type = str("ProductType");
  if (type.empty()) type = "iPhone12,1";
  std::string cls = type.rfind("iPod", 0) == 0 ? "iPod" : type.rfind("iPad", 0) == 0 ? "iPad" : "iPhone";
  std::string version = str("ProductVersion");
  if (version.empty()) version = "15.7";
  int major = std::atoi(version.c_str()), minor = 0;
  if (auto dot = version.find('.'); dot != std::string::npos) minor = std::atoi(version.c_str() + dot + 1);
  char build[32];
  std::snprintf(build, sizeof build, "%d%c%d", major + 4, 'A' + std::min(minor, 25), 100 + minor);
  std::string hex = hex_id("chip:" + udid_, 16);
  std::string bt = identity_->wifi_mac;
  bt.back() = bt.back() == 'f' ? '0' : static_cast<char>(bt.back() == '9' ? 'a' : bt.back() + 1);

  fill("ActivationState", plist_new_string("Activated"));
  fill("BluetoothAddress", plist_new_string(bt.c_str()));
  fill("BuildVersion", plist_new_string(build));
  fill("CPUArchitecture", plist_new_string(major >= 11 ? "arm64" : "armv7"));
  fill("DeviceClass", plist_new_string(cls.c_str()));
  fill("DeviceColor", plist_new_string("1"));
  fill("HardwareModel", plist_new_string(cls == "iPod" ? "N78AP" : cls == "iPad" ? "J71AP" : "N104AP"));
  fill("HardwarePlatform", plist_new_string(major >= 11 ? "t8030" : "s5l8942x"));
  fill("ProductName", plist_new_string("iPhone OS"));
  fill("ProtocolVersion", plist_new_string("2"));
  fill("TimeZone", plist_new_string("UTC"));
  fill("TimeZoneOffsetFromUTC", plist_new_real(0.0));
  fill("Uses24HourClock", plist_new_bool(1));
  fill("UniqueChipID", plist_new_uint(std::strtoull(hex.c_str(), nullptr, 16) >> 12));
}

std::string Device::set_option(const std::string& key, const std::string& value, bool running) {
  std::lock_guard lk(mu_);
  if (key == "udid") {
    if (running) return "udid cannot change while the device is attached";
    if (value.empty()) return "udid must not be empty";
    udid_ = value;
    plist_dict_set_item(values_.get(), "UniqueDeviceID", plist_new_string(value.c_str()));
    host_id_ = hex_id("host:" + udid_, 32);
    for (int pos : {8, 13, 18, 23}) host_id_.insert(static_cast<size_t>(pos), 1, '-');
    for (auto& c : host_id_) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return {};
  }
  if (key == "version") {
    plist_dict_set_item(values_.get(), "ProductVersion", plist_new_string(value.c_str()));
    return {};
  }
  if (key == "name") {
    plist_dict_set_item(values_.get(), "DeviceName", plist_new_string(value.c_str()));
    return {};
  }
  if (key == "paired") {
    bool b = false;
    if (!parse_bool(value, b)) return key + " takes 0 or 1";
    // Both sides at once: paired=1 is a fresh pairing with the default
    // record, paired=0 a phone and a host that have never met.
    host_has_record_ = b;
    saved_record_.reset();
    trusts_default_ = b;
    trusted_.clear();
    fault_gen_.fetch_add(1, std::memory_order_acq_rel);
    return {};
  }
  auto f = std::make_shared<Faults>(*faults_);
  uint64_t n = 0;
  static const std::map<std::string, bool Faults::*> switches = {
      {"refuse_handshake", &Faults::refuse_handshake}, {"refuse_afc", &Faults::refuse_afc},
      {"ssl", &Faults::ssl}, {"ssl_fail", &Faults::ssl_fail}, {"locked", &Faults::locked},
      {"stale_pairing", &Faults::stale_pairing}, {"syncing", &Faults::syncing},
      {"sorted_listing", &Faults::sorted_listing}};
  if (auto sw = switches.find(key); sw != switches.end()) {
    bool b = false;
    if (!parse_bool(value, b)) return key + " takes 0 or 1";
    (*f).*(sw->second) = b;
    if (key == "stale_pairing") repaired_.clear();
  } else if (key == "pair_answer") {
    if (value != "pending" && value != "denied" && value != "passcode" && value != "accept")
      return "pair_answer takes pending, denied, passcode or accept";
    f->pair_answer = value;
  } else if (key == "afc_error") {
    if (value.empty()) {
      f->afc_errors.clear();
    } else {
      auto colon = value.find(':');
      if (colon == std::string::npos || !parse_u64(value.substr(0, colon), n) ||
          colon + 1 == value.size())
        return "afc_error takes CODE:GLOB";
      f->afc_errors.emplace_back(n, value.substr(colon + 1));
    }
  } else if (key == "drop_after_requests" || key == "drop_after_bytes" || key == "latency_us" ||
             key == "max_files" || key == "handshake_delay_us" || key == "stall_after_requests" ||
             key == "browse_page") {
    if (!parse_u64(value, n)) return key + " takes a number";
    if (key == "browse_page" && n == 0) return "browse_page takes a number above 0";
    if (key == "drop_after_requests") f->drop_after_requests = n;
    else if (key == "drop_after_bytes") f->drop_after_bytes = n;
    else if (key == "latency_us") f->latency_us = n;
    else if (key == "handshake_delay_us") f->handshake_delay_us = n;
    else if (key == "stall_after_requests") f->stall_after_requests = n;
    else if (key == "browse_page") f->browse_page = n;
    else f->max_files = n;
  } else {
    return "unknown option " + key;
  }
  faults_ = std::move(f);
  fault_gen_.fetch_add(1, std::memory_order_acq_rel);
  return {};
}

void Device::clear_faults() {
  std::lock_guard lk(mu_);
  auto f = std::make_shared<Faults>();
  f->max_files = faults_->max_files;  // a slot limit is a property, not a fault
  f->browse_page = faults_->browse_page;  // so is the page size
  faults_ = std::move(f);
  fault_gen_.fetch_add(1, std::memory_order_acq_rel);
}

std::shared_ptr<const Faults> Device::faults() const {
  std::lock_guard lk(mu_);
  return faults_;
}

Plist Device::get_value(const std::string& domain, const std::string& key) const {
  std::lock_guard lk(mu_);
  plist_t dict = nullptr;
  if (domain.empty()) {
    dict = values_.get();
  } else {
    auto it = domains_.find(domain);
    if (it == domains_.end()) return nullptr;
    dict = it->second.get();
  }
  // Values a phone computes when asked: its clock, and whether it has a
  // passcode (which every locked state implies).
  auto live = [&](const std::string& k) -> plist_t {
    if (!domain.empty()) return nullptr;
    if (k == "TimeIntervalSince1970") {
      auto now = std::chrono::system_clock::now().time_since_epoch();
      return plist_new_real(std::chrono::duration<double>(now).count());
    }
    if (k == "PasswordProtected")
      return plist_new_bool(faults_->locked || faults_->pair_answer == "passcode");
    return nullptr;
  };
  if (key.empty()) {
    Plist all(plist_copy(dict));
    for (const char* k : {"TimeIntervalSince1970", "PasswordProtected"})
      if (domain.empty() && !plist_dict_get_item(all.get(), k)) plist_dict_set_item(all.get(), k, live(k));
    return all;
  }
  plist_t v = plist_dict_get_item(dict, key.c_str());
  if (v) return Plist(plist_copy(v));
  return Plist(live(key));
}

void Device::set_value(const std::string& domain, const std::string& key, plist_t value) {
  std::lock_guard lk(mu_);
  plist_t dict = values_.get();
  if (!domain.empty()) {
    auto& d = domains_[domain];
    if (!d) d.reset(plist_new_dict());
    dict = d.get();
  }
  plist_dict_set_item(dict, key.c_str(), plist_copy(value));
}

std::string Device::model() const {
  std::lock_guard lk(mu_);
  return model_.empty() ? "iPod5,1" : model_;
}

void Device::fs_info(uint64_t& total, uint64_t& free_bytes, uint64_t& block) const {
  {
    std::lock_guard lk(mu_);
    total = fs_total_;
    free_bytes = fs_free_;
    block = fs_block_;
    if (has_fs_total_ && has_fs_free_) return;
  }
  // Without a described size the device reports the host file system that
  // holds the image, so df on a mount shows something sensible.
  struct statvfs sv {};
  if (::statvfs(media_.c_str(), &sv) == 0) {
    std::lock_guard lk(mu_);
    if (!has_fs_total_) total = static_cast<uint64_t>(sv.f_blocks) * sv.f_frsize;
    if (!has_fs_free_) free_bytes = static_cast<uint64_t>(sv.f_bavail) * sv.f_frsize;
  }
}

Plist Device::pair_record(const std::string& buid) const {
  std::lock_guard lk(mu_);
  if (!host_has_record_) return nullptr;
  if (saved_record_) return Plist(plist_copy(saved_record_.get()));
  // The record usbmuxd keeps for a paired phone, every key a real one has.
  const Identity& id = *identity_;
  plist_t r = plist_new_dict();
  auto data = [&](const char* key, const std::string& v) {
    plist_dict_set_item(r, key, plist_new_data(v.data(), static_cast<uint64_t>(v.size())));
  };
  data("DeviceCertificate", id.device_cert);
  data("EscrowBag", id.escrow_bag);
  data("HostCertificate", id.host_cert);
  plist_dict_set_item(r, "HostID", plist_new_string(host_id_.c_str()));
  data("HostPrivateKey", id.host_key);
  data("RootCertificate", id.root_cert);
  data("RootPrivateKey", id.root_key);
  plist_dict_set_item(r, "SystemBUID", plist_new_string(buid.c_str()));
  plist_dict_set_item(r, "WiFiMACAddress", plist_new_string(id.wifi_mac.c_str()));
  return Plist(r);
}

void Device::save_pair_record(plist_t record) {
  std::lock_guard lk(mu_);
  saved_record_.reset(plist_copy(record));
  host_has_record_ = true;
}

void Device::delete_pair_record() {
  std::lock_guard lk(mu_);
  saved_record_.reset();
  host_has_record_ = false;
}

bool Device::trusts(const std::string& host_id) const {
  std::lock_guard lk(mu_);
  if (host_id.empty()) return false;
  return (trusts_default_ && host_id == host_id_) || trusted_.count(host_id) > 0;
}

void Device::trust(const std::string& host_id) {
  std::lock_guard lk(mu_);
  trusted_.insert(host_id);
  repaired_.insert(host_id);
}

bool Device::repaired(const std::string& host_id) const {
  std::lock_guard lk(mu_);
  return repaired_.count(host_id) > 0;
}

void Device::distrust(const std::string& host_id) {
  std::lock_guard lk(mu_);
  if (host_id == host_id_) trusts_default_ = false;
  trusted_.erase(host_id);
}

uint16_t Device::open_service_port(const std::string& service) {
  std::lock_guard lk(mu_);
  uint16_t p = next_port_;
  next_port_ = next_port_ >= 65000 ? 49152 : static_cast<uint16_t>(next_port_ + 1);
  pending_ports_[p] = service;
  return p;
}

std::string Device::take_service_port(uint16_t port) {
  std::lock_guard lk(mu_);
  auto it = pending_ports_.find(port);
  if (it == pending_ports_.end()) return {};
  std::string service = std::move(it->second);
  pending_ports_.erase(it);
  return service;
}

const App* Device::find_app(const std::string& id) const {
  for (const App& app : apps_)
    if (app.id == id) return &app;
  return nullptr;
}

void Device::log(Op op, std::string_view path) {
  std::lock_guard lk(log_mu_);
  log_.push_back({op, std::string(path)});
}

std::vector<LogEntry> Device::take_log() const {
  std::lock_guard lk(log_mu_);
  return log_;
}

void Device::reset_stats() {
  for (auto& r : requests_) r.store(0);
  tls_sessions.store(0);
  std::lock_guard lk(log_mu_);
  log_.clear();
}

}  // namespace devsim
