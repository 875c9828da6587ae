#include "apps.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "afc.h"

namespace devsim {

namespace {

constexpr uint32_t kMaxMessage = 1 << 20;

// A property-list service connection: each message is a 4-byte big-endian
// length and a plist (clients send XML or binary; we answer XML, which
// libimobiledevice reads either way). Faults apply per message as on the
// lockdown and file-conduit connections.
class PlistChannel {
 public:
  PlistChannel(int fd, Device& dev) : fd_(fd), dev_(dev), faults_(dev.faults()), gen_(dev.fault_generation()) {}

  // The next request, or null when the peer left or a fault ends the
  // connection (a drop closes it, a stall holds it unanswered).
  Plist receive() {
    if (uint64_t g = dev_.fault_generation(); g != gen_) {
      faults_ = dev_.faults();
      gen_ = g;
      requests_ = 0;
      bytes_ = 0;
    }
    uint32_t be_len = 0;
    if (!passes(4) || !read_full(fd_, &be_len, 4)) return nullptr;
    const uint32_t len = ntohl(be_len);
    if (len == 0 || len > kMaxMessage) return nullptr;
    std::vector<char> buf(len);
    if (!passes(len) || !read_full(fd_, buf.data(), len)) return nullptr;
    ++requests_;
    if (faults_->drop_after_requests && requests_ > faults_->drop_after_requests) return nullptr;
    if (faults_->stall_after_requests && requests_ > faults_->stall_after_requests) {
      stall(fd_);
      return nullptr;
    }
    sleep_us(faults_->latency_us);
    return plist_parse(buf.data(), len);
  }

  bool send(plist_t msg) {
    std::string xml = plist_xml(msg);
    const uint32_t len = htonl(static_cast<uint32_t>(xml.size()));
    xml.insert(0, reinterpret_cast<const char*>(&len), 4);
    if (!passes(xml.size())) {
      // The cable goes at exactly the limit, inside the answer.
      write_full(fd_, xml.data(), static_cast<size_t>(faults_->drop_after_bytes - bytes_));
      return false;
    }
    return write_full(fd_, xml.data(), xml.size());
  }

  const Faults& faults() const { return *faults_; }

 private:
  // Whether n more bytes stay within drop_after_bytes (both directions
  // count); the caller closes the connection when not.
  bool passes(size_t n) {
    if (faults_->drop_after_bytes && bytes_ + n > faults_->drop_after_bytes) return false;
    bytes_ += n;
    return true;
  }

  int fd_;
  Device& dev_;
  std::shared_ptr<const Faults> faults_;
  uint64_t gen_;
  uint64_t requests_ = 0;
  uint64_t bytes_ = 0;
};

Plist error_answer(const char* error) {
  Plist answer(plist_new_dict());
  plist_dict_set_item(answer.get(), "Error", plist_new_string(error));
  return answer;
}

// The attributes a Browse asked for (all of them when it named none).
plist_t chosen_attributes(const App& app, plist_t wanted) {
  if (wanted == nullptr || plist_get_node_type(wanted) != PLIST_ARRAY) return plist_copy(app.attributes.get());
  plist_t out = plist_new_dict();
  for (uint32_t i = 0; i < plist_array_get_size(wanted); ++i) {
    char* key = nullptr;
    plist_get_string_val(plist_array_get_item(wanted, i), &key);
    if (key != nullptr) {
      if (plist_t value = plist_dict_get_item(app.attributes.get(), key)) plist_dict_set_item(out, key, plist_copy(value));
      free(key);
    }
  }
  return out;
}

// Browse answers in pages, as a phone does: "BrowsingApplications" with a
// CurrentList of at most browse_page apps and the place of the page in the
// whole, then "Complete".
void serve_installation_proxy(int fd, Device& dev) {
  PlistChannel ch(fd, dev);
  while (Plist request = ch.receive()) {
    const std::string command = dict_string(request.get(), "Command").value_or("");
    if (command != "Browse") {
      if (!ch.send(error_answer("UnknownCommand").get())) return;
      continue;
    }
    plist_t options = plist_dict_get_item(request.get(), "ClientOptions");
    const std::string type = dict_string(options, "ApplicationType").value_or("Any");
    plist_t wanted = options ? plist_dict_get_item(options, "ReturnAttributes") : nullptr;
    std::vector<const App*> listed;
    for (const App& app : dev.apps()) {
      const std::string own = dict_string(app.attributes.get(), "ApplicationType").value_or("User");
      if (type == "Any" || type == own) listed.push_back(&app);
    }
    const uint64_t page = std::max<uint64_t>(1, ch.faults().browse_page);
    for (size_t at = 0; at < listed.size(); at += page) {
      const size_t amount = std::min<size_t>(page, listed.size() - at);
      Plist answer(plist_new_dict());
      plist_t list = plist_new_array();
      for (size_t i = at; i < at + amount; ++i) plist_array_append_item(list, chosen_attributes(*listed[i], wanted));
      plist_dict_set_item(answer.get(), "CurrentAmount", plist_new_uint(amount));
      plist_dict_set_item(answer.get(), "CurrentIndex", plist_new_uint(at));
      plist_dict_set_item(answer.get(), "CurrentList", list);
      plist_dict_set_item(answer.get(), "Status", plist_new_string("BrowsingApplications"));
      plist_dict_set_item(answer.get(), "Total", plist_new_uint(listed.size()));
      if (!ch.send(answer.get())) return;
    }
    Plist done(plist_new_dict());
    plist_dict_set_item(done.get(), "Status", plist_new_string("Complete"));
    if (!ch.send(done.get())) return;
  }
}

// VendDocuments and VendContainer as a phone since iOS 8.3 answers them:
// Documents only for an app that shares files, the container only for an
// app a developer installed; everything else, and an app that is not there,
// is "InstallationLookupFailed". After "Complete" the same connection is a
// file conduit rooted at the app's container.
void serve_house_arrest(int fd, Device& dev) {
  PlistChannel ch(fd, dev);
  while (Plist request = ch.receive()) {
    const std::string command = dict_string(request.get(), "Command").value_or("");
    const std::string id = dict_string(request.get(), "Identifier").value_or("");
    if (command != "VendDocuments" && command != "VendContainer") {
      if (!ch.send(error_answer("UnknownCommand").get())) return;
      continue;
    }
    const App* app = dev.find_app(id);
    const bool allowed = app != nullptr && (command == "VendDocuments" ? app->file_sharing : app->developer);
    if (!allowed) {
      if (!ch.send(error_answer("InstallationLookupFailed").get())) return;
      continue;
    }
    Plist complete(plist_new_dict());
    plist_dict_set_item(complete.get(), "Status", plist_new_string("Complete"));
    if (!ch.send(complete.get())) return;
    serve_afc(fd, dev, app->container);
    return;
  }
}

std::string read_file(const std::string& path) {
  Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string out;
  if (!file.valid()) return out;
  char buf[8192];
  for (ssize_t n; (n = ::read(file.get(), buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  return out;
}

// getIconPNGData: the app's PNG, or an answer without pngData for an app
// that is not there.
void serve_springboard(int fd, Device& dev) {
  PlistChannel ch(fd, dev);
  while (Plist request = ch.receive()) {
    const std::string command = dict_string(request.get(), "command").value_or("");
    Plist answer(plist_new_dict());
    if (command == "getIconPNGData") {
      const App* app = dev.find_app(dict_string(request.get(), "bundleId").value_or(""));
      const std::string png = app ? read_file(app->icon) : std::string();
      if (!png.empty()) plist_dict_set_item(answer.get(), "pngData", plist_new_data(png.data(), png.size()));
    }
    if (!ch.send(answer.get())) return;
  }
}

}  // namespace

bool serve_app_service(const std::string& service, int fd, Device& dev) {
  if (service == "com.apple.mobile.installation_proxy") serve_installation_proxy(fd, dev);
  else if (service == "com.apple.mobile.house_arrest") serve_house_arrest(fd, dev);
  else if (service == "com.apple.springboardservices") serve_springboard(fd, dev);
  else return false;
  return true;
}

}  // namespace devsim
