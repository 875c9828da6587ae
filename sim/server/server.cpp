#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "afc.h"
#include "tls.h"

namespace devsim {

namespace {

using json = nlohmann::json;

constexpr uint16_t kLockdownPort = 62078;
constexpr uint32_t kPlistMessage = 8;
constexpr uint32_t kMaxMuxMessage = 1 << 20;
constexpr uint32_t kMaxLockdownMessage = 4 << 20;
// usbmuxd result numbers as libusbmuxd knows them.
constexpr uint64_t kResultOk = 0, kResultBadCommand = 1, kResultBadDevice = 2,
                   kResultConnRefused = 3;

Fd listen_unix(const std::string& path, std::string& err) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) {
    err = "socket path too long: " + path;
    return {};
  }
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) {
    err = std::string("socket: ") + std::strerror(errno);
    return {};
  }
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  ::unlink(path.c_str());  // a stale socket from a killed run
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd.get(), 128) != 0) {
    err = "cannot listen on " + path + ": " + std::strerror(errno);
    return {};
  }
  return fd;
}

bool send_mux(int fd, uint32_t tag, plist_t msg) {
  std::string xml = plist_xml(msg);
  uint32_t hdr[4] = {htole32(static_cast<uint32_t>(16 + xml.size())), htole32(1),
                     htole32(kPlistMessage), htole32(tag)};
  iovec iov[2] = {{hdr, 16}, {xml.data(), xml.size()}};
  return writev_full(fd, iov, 2);
}

bool send_result(int fd, uint32_t tag, uint64_t number) {
  Plist m(plist_new_dict());
  plist_dict_set_item(m.get(), "MessageType", plist_new_string("Result"));
  plist_dict_set_item(m.get(), "Number", plist_new_uint(number));
  return send_mux(fd, tag, m.get());
}

// A lockdown connection: plain, or TLS between StartSession and StopSession.
class LockdownChannel {
 public:
  explicit LockdownChannel(int fd) : fd_(fd) {}
  void encrypt(std::unique_ptr<TlsStream> t) { tls_ = std::move(t); }
  // libimobiledevice drops TLS after StopSession without a close_notify,
  // so neither do we: the next byte on the socket is plain again.
  void decrypt() { tls_.reset(); }

  bool read_full(void* buf, size_t n) {
    return tls_ ? tls_->read_full(buf, n) : devsim::read_full(fd_, buf, n);
  }
  bool send(plist_t msg) {
    std::string xml = plist_xml(msg);
    uint32_t len = htonl(static_cast<uint32_t>(xml.size()));
    if (tls_) {
      xml.insert(0, reinterpret_cast<const char*>(&len), 4);
      return tls_->write_full(xml.data(), xml.size());
    }
    iovec iov[2] = {{&len, 4}, {xml.data(), xml.size()}};
    return writev_full(fd_, iov, 2);
  }

 private:
  int fd_;
  std::unique_ptr<TlsStream> tls_;
};

std::string random_uuid() {
  unsigned char b[16];
  Fd r(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
  if (!r.valid() || ::read(r.get(), b, sizeof b) != static_cast<ssize_t>(sizeof b))
    for (size_t i = 0; i < sizeof b; ++i) b[i] = static_cast<unsigned char>(i * 37 + ::getpid());
  char s[37];
  std::snprintf(s, sizeof s, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
                b[13], b[14], b[15]);
  return s;
}

ino_t inode_of(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Another instance may have taken the path over since; its socket stays.
void unlink_if_ours(const std::string& path, ino_t ino) {
  if (ino && inode_of(path) == ino) ::unlink(path.c_str());
}

void sleep_us(uint64_t us) {
  if (us) std::this_thread::sleep_for(std::chrono::microseconds(us));
}

}  // namespace

// ---------------------------------------------------------------------------

Server::ConnReg::ConnReg(Server& s, int fd) : s_(s) {
  std::lock_guard lk(s_.conn_mu_);
  id_ = s_.next_conn_++;
  s_.conns_[id_] = Conn{fd, nullptr};
  // A connection that arrives while stopping must not be missed by the
  // shutdown sweep, which has already run.
  if (s_.stopping_.load()) ::shutdown(fd, SHUT_RDWR);
}

Server::ConnReg::~ConnReg() {
  std::lock_guard lk(s_.conn_mu_);
  s_.conns_.erase(id_);
}

void Server::ConnReg::bind(std::shared_ptr<Device> dev) {
  std::lock_guard lk(s_.conn_mu_);
  s_.conns_[id_].dev = std::move(dev);
}

Server::Server(std::string socket_path)
    : path_(std::move(socket_path)), ctl_path_(path_ + ".ctl"), buid_(random_uuid()) {}

Server::~Server() {
  stopping_.store(true);
  {
    std::lock_guard lk(conn_mu_);
    for (auto& [id, c] : conns_) ::shutdown(c.fd, SHUT_RDWR);
  }
  reap(true);
  unlink_if_ours(path_, mux_ino_);
  unlink_if_ours(ctl_path_, ctl_ino_);
}

std::string Server::listen() {
  std::string err;
  mux_fd_ = listen_unix(path_, err);
  if (!mux_fd_.valid()) return err;
  mux_ino_ = inode_of(path_);
  ctl_fd_ = listen_unix(ctl_path_, err);
  if (!ctl_fd_.valid()) return err;
  ctl_ino_ = inode_of(ctl_path_);
  return {};
}

void Server::spawn(Fd fd, bool control) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::thread t([this, fd = std::move(fd), control, done]() mutable {
    {
      ConnReg reg(*this, fd.get());
      if (control)
        serve_control(fd.get());
      else
        serve_usbmux(fd.get());
    }
    fd.reset();
    done->store(true);
  });
  workers_.push_back(Worker{std::move(t), done});
}

void Server::reap(bool all) {
  for (auto it = workers_.begin(); it != workers_.end();) {
    if (all || it->done->load()) {
      it->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
}

void Server::run(int stop_fd) {
  pollfd pfd[3] = {{mux_fd_.get(), POLLIN, 0}, {ctl_fd_.get(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
  while (true) {
    int n = ::poll(pfd, 3, 200);
    if (n < 0 && errno != EINTR) break;
    if (pfd[2].revents) break;
    for (int i = 0; i < 2; ++i) {
      if (!(pfd[i].revents & POLLIN)) continue;
      Fd c(::accept4(pfd[i].fd, nullptr, nullptr, SOCK_CLOEXEC));
      if (!c.valid()) continue;
      // Room for a whole 64 KiB answer plus header in one send.
      int sz = 1 << 20;
      ::setsockopt(c.get(), SOL_SOCKET, SO_SNDBUF, &sz, sizeof sz);
      spawn(std::move(c), i == 1);
    }
    reap(false);
  }
}

// ---------------------------------------------------------------------------
// Devices

std::string Server::attach(const std::string& image, const std::vector<std::string>& options) {
  std::shared_ptr<Device> dev;
  uint32_t id;
  {
    std::lock_guard lk(dev_mu_);
    id = next_id_++;
  }
  try {
    dev = std::make_shared<Device>(image, id);
  } catch (const std::exception& e) {
    return e.what();
  }
  for (const auto& o : options) {
    if (o.empty()) continue;
    auto eq = o.find('=');
    std::string key = o.substr(0, eq), value = eq == std::string::npos ? "1" : o.substr(eq + 1);
    if (auto err = dev->set_option(key, value, false); !err.empty()) return err;
  }
  std::lock_guard lk(dev_mu_);
  for (const auto& d : devices_)
    if (d->udid() == dev->udid()) return "a device with udid " + dev->udid() + " is already attached";
  devices_.push_back(dev);
  Plist msg(attached_message(*dev));
  broadcast(msg.get());
  return {};
}

std::string Server::detach(const std::string& udid) {
  std::shared_ptr<Device> dev;
  {
    std::lock_guard lk(dev_mu_);
    for (auto it = devices_.begin(); it != devices_.end(); ++it) {
      if ((*it)->udid() == udid) {
        dev = *it;
        devices_.erase(it);
        break;
      }
    }
    if (!dev) return "no device " + udid;
    Plist msg(plist_new_dict());
    plist_dict_set_item(msg.get(), "MessageType", plist_new_string("Detached"));
    plist_dict_set_item(msg.get(), "DeviceID", plist_new_uint(dev->mux_id()));
    broadcast(msg.get());
  }
  // Unplugging ends every connection to the device.
  std::lock_guard lk(conn_mu_);
  for (auto& [id, c] : conns_)
    if (c.dev == dev) ::shutdown(c.fd, SHUT_RDWR);
  return {};
}

std::shared_ptr<Device> Server::find_udid(const std::string& udid) {
  // libusbmuxd shows a 24-character identifier as "XXXXXXXX-XXXXXXXXXXXXXXXX"
  // and clients ask for it in that form.
  std::string plain = udid;
  if (plain.size() == 25 && plain[8] == '-') plain.erase(8, 1);
  std::lock_guard lk(dev_mu_);
  for (const auto& d : devices_)
    if (d->udid() == udid || d->udid() == plain) return d;
  return nullptr;
}

std::shared_ptr<Device> Server::find_id(uint32_t id) {
  std::lock_guard lk(dev_mu_);
  for (const auto& d : devices_)
    if (d->mux_id() == id) return d;
  return nullptr;
}

plist_t Server::attached_message(const Device& d) {
  plist_t props = plist_new_dict();
  plist_dict_set_item(props, "ConnectionSpeed", plist_new_uint(480000000));
  plist_dict_set_item(props, "ConnectionType", plist_new_string("USB"));
  plist_dict_set_item(props, "DeviceID", plist_new_uint(d.mux_id()));
  plist_dict_set_item(props, "LocationID", plist_new_uint(0x14100000u + d.mux_id()));
  plist_dict_set_item(props, "ProductID", plist_new_uint(d.product_id()));
  plist_dict_set_item(props, "SerialNumber", plist_new_string(d.udid().c_str()));
  plist_t m = plist_new_dict();
  plist_dict_set_item(m, "DeviceID", plist_new_uint(d.mux_id()));
  plist_dict_set_item(m, "MessageType", plist_new_string("Attached"));
  plist_dict_set_item(m, "Properties", props);
  return m;
}

// Caller holds dev_mu_.
void Server::broadcast(plist_t msg) {
  for (auto& [id, l] : listeners_) {
    std::lock_guard wl(l->write_mu);
    send_mux(l->fd, 0, msg);
  }
}

// ---------------------------------------------------------------------------
// usbmux

void Server::serve_usbmux(int fd) {
  std::vector<char> buf;
  while (true) {
    uint32_t hdr[4];
    if (!read_full(fd, hdr, sizeof hdr)) return;
    uint32_t len = le32toh(hdr[0]), type = le32toh(hdr[2]), tag = le32toh(hdr[3]);
    if (len < 16 || len - 16 > kMaxMuxMessage) return;
    buf.resize(len - 16);
    if (!buf.empty() && !read_full(fd, buf.data(), buf.size())) return;
    if (type != kPlistMessage) {
      // Only the plist protocol is spoken; libusbmuxd 2.0 uses nothing else.
      if (!send_result(fd, tag, kResultBadCommand)) return;
      continue;
    }
    Plist msg = plist_parse(buf.data(), buf.size());
    std::string mt = dict_string(msg.get(), "MessageType").value_or("");

    if (mt == "ListDevices") {
      Plist reply(plist_new_dict());
      plist_t list = plist_new_array();
      {
        std::lock_guard lk(dev_mu_);
        for (const auto& d : devices_) plist_array_append_item(list, attached_message(*d));
      }
      plist_dict_set_item(reply.get(), "DeviceList", list);
      if (!send_mux(fd, tag, reply.get())) return;
    } else if (mt == "Listen") {
      auto l = std::make_shared<Listener>();
      l->fd = fd;
      uint64_t lid;
      {
        // Registering and sending the current devices under one lock keeps
        // attach/detach events from slipping between the two.
        std::lock_guard lk(dev_mu_);
        lid = reinterpret_cast<uintptr_t>(l.get());
        listeners_[lid] = l;
        std::lock_guard wl(l->write_mu);
        send_result(fd, tag, kResultOk);
        for (const auto& d : devices_) {
          Plist m(attached_message(*d));
          send_mux(fd, 0, m.get());
        }
      }
      // The client only listens from now on; wait for it to leave.
      char sink[256];
      while (::recv(fd, sink, sizeof sink, 0) > 0) {
      }
      std::lock_guard lk(dev_mu_);
      listeners_.erase(lid);
      return;
    } else if (mt == "ReadBUID") {
      Plist reply(plist_new_dict());
      plist_dict_set_item(reply.get(), "BUID", plist_new_string(buid_.c_str()));
      if (!send_mux(fd, tag, reply.get())) return;
    } else if (mt == "ReadPairRecord") {
      auto dev = find_udid(dict_string(msg.get(), "PairRecordID").value_or(""));
      Plist rec = dev ? dev->pair_record(buid_) : nullptr;
      if (!rec) {
        // usbmuxd answers a missing record with an error result, which
        // libimobiledevice takes for "not paired".
        if (!send_result(fd, tag, kResultBadDevice)) return;
        continue;
      }
      std::string xml = plist_xml(rec.get());
      Plist reply(plist_new_dict());
      plist_dict_set_item(reply.get(), "PairRecordData",
                          plist_new_data(xml.data(), static_cast<uint64_t>(xml.size())));
      if (!send_mux(fd, tag, reply.get())) return;
    } else if (mt == "SavePairRecord" || mt == "DeletePairRecord") {
      auto dev = find_udid(dict_string(msg.get(), "PairRecordID").value_or(""));
      Plist rec;
      if (dev && mt == "SavePairRecord") {
        char* data = nullptr;
        uint64_t size = 0;
        plist_t node = plist_dict_get_item(msg.get(), "PairRecordData");
        if (node && plist_get_node_type(node) == PLIST_DATA) plist_get_data_val(node, &data, &size);
        if (data) rec = plist_parse(data, size);
        std::free(data);
      }
      bool ok = dev && (mt == "DeletePairRecord" || (rec && plist_get_node_type(rec.get()) == PLIST_DICT));
      if (ok && rec) dev->save_pair_record(rec.get());
      else if (ok) dev->delete_pair_record();
      if (!send_result(fd, tag, ok ? kResultOk : kResultBadDevice)) return;
    } else if (mt == "Connect") {
      auto dev = find_id(static_cast<uint32_t>(dict_uint(msg.get(), "DeviceID").value_or(0)));
      auto port = ntohs(static_cast<uint16_t>(dict_uint(msg.get(), "PortNumber").value_or(0)));
      if (!dev) {
        if (!send_result(fd, tag, kResultBadDevice)) return;
        continue;
      }
      bool lockdown = port == kLockdownPort;
      if (!lockdown && !dev->take_service_port(port)) {
        if (!send_result(fd, tag, kResultConnRefused)) return;
        continue;
      }
      {
        std::lock_guard lk(conn_mu_);
        for (auto& [id, c] : conns_)
          if (c.fd == fd) c.dev = dev;
      }
      struct Count {
        Device& d;
        explicit Count(Device& dd) : d(dd) { d.connections_open.fetch_add(1); }
        ~Count() { d.connections_open.fetch_sub(1); }
        Count(const Count&) = delete;
        Count& operator=(const Count&) = delete;
      } count(*dev);
      if (!send_result(fd, tag, kResultOk)) return;
      // From here the socket carries the device port's byte stream.
      if (lockdown)
        serve_lockdown(fd, *dev);
      else
        serve_afc(fd, *dev);
      return;
    } else {
      if (!send_result(fd, tag, kResultBadCommand)) return;
    }
  }
}

// ---------------------------------------------------------------------------
// lockdown

void Server::serve_lockdown(int fd, Device& dev) {
  LockdownChannel ch(fd);
  bool session = false;
  std::vector<char> buf;
  auto faults = dev.faults();
  uint64_t gen = dev.fault_generation(), requests = 0;
  while (true) {
    uint32_t be_len;
    if (!ch.read_full(&be_len, 4)) return;
    uint32_t len = ntohl(be_len);
    if (len == 0 || len > kMaxLockdownMessage) return;
    buf.resize(len);
    if (!ch.read_full(buf.data(), len)) return;
    if (uint64_t g = dev.fault_generation(); g != gen) {
      faults = dev.faults();
      gen = g;
      requests = 0;
    }
    if (faults->stall_after_requests && ++requests > faults->stall_after_requests) return stall(fd);
    Plist req = plist_parse(buf.data(), len);
    sleep_us(faults->latency_us);
    std::string request = dict_string(req.get(), "Request").value_or("");
    Plist reply(plist_new_dict());
    plist_t r = reply.get();
    plist_dict_set_item(r, "Request", plist_new_string(request.c_str()));
    auto fail = [&](const char* error) { plist_dict_set_item(r, "Error", plist_new_string(error)); };
    plist_t pair_record = plist_dict_get_item(req.get(), "PairRecord");
    bool refused = faults->refuse_handshake || faults->stale_pairing;

    if (request == "QueryType") {
      plist_dict_set_item(r, "Type", plist_new_string("com.apple.mobile.lockdown"));
    } else if (request == "GetValue") {
      std::string domain = dict_string(req.get(), "Domain").value_or("");
      std::string key = dict_string(req.get(), "Key").value_or("");
      if (!domain.empty()) plist_dict_set_item(r, "Domain", plist_new_string(domain.c_str()));
      if (!key.empty()) plist_dict_set_item(r, "Key", plist_new_string(key.c_str()));
      Plist v = dev.get_value(domain, key);
      if (v)
        plist_dict_set_item(r, "Value", v.release());
      else
        fail("MissingValue");
    } else if (request == "SetValue") {
      std::string domain = dict_string(req.get(), "Domain").value_or("");
      std::string key = dict_string(req.get(), "Key").value_or("");
      plist_t v = plist_dict_get_item(req.get(), "Value");
      if (!session) fail("SessionInactive");
      else if (key.empty() || !v) fail("MissingKey");
      else dev.set_value(domain, key, v);
    } else if (request == "ValidatePair") {
      std::string host = dict_string(pair_record, "HostID").value_or("");
      if (faults->locked) fail("PasswordProtected");
      else if (refused || !dev.trusts(host)) fail("InvalidHostID");
    } else if (request == "StartSession") {
      std::string host = dict_string(req.get(), "HostID").value_or("");
      sleep_us(faults->handshake_delay_us);
      if (session) {
        fail("SessionActive");
      } else if (faults->locked) {
        fail("PasswordProtected");
      } else if (refused || !dev.trusts(host)) {
        fail("InvalidHostID");
      } else {
        session = true;
        plist_dict_set_item(r, "SessionID", plist_new_string(random_uuid().c_str()));
        plist_dict_set_item(r, "EnableSessionSSL", plist_new_bool(faults->ssl ? 1 : 0));
        if (!ch.send(r)) return;
        if (!faults->ssl) continue;
        if (faults->ssl_fail) {
          // Take the ClientHello and refuse it the way a phone that rejects
          // the host's certificate does: a fatal handshake_failure alert.
          char hello[4096];
          (void)::recv(fd, hello, sizeof hello, 0);
          static const unsigned char alert[] = {0x15, 0x03, 0x01, 0x00, 0x02, 0x02, 0x28};
          write_full(fd, alert, sizeof alert);
          return;
        }
        std::string err;
        auto tls = TlsStream::accept(dev.identity().server_ctx.get(), fd, err);
        if (!tls) return;  // the client sees its own handshake error
        dev.tls_sessions.fetch_add(1);
        ch.encrypt(std::move(tls));
        continue;
      }
    } else if (request == "Pair") {
      std::string host = dict_string(pair_record, "HostID").value_or("");
      const std::string& answer = faults->pair_answer;
      if (faults->locked || answer == "passcode") {
        fail("PasswordProtected");
      } else if (answer == "denied") {
        fail("UserDeniedPairing");
      } else if (answer != "accept") {
        fail("PairingDialogResponsePending");
      } else if (host.empty()) {
        fail("InvalidPairRecord");
      } else {
        dev.trust(host);
        const std::string& bag = dev.identity().escrow_bag;
        plist_dict_set_item(r, "EscrowBag", plist_new_data(bag.data(), static_cast<uint64_t>(bag.size())));
      }
    } else if (request == "Unpair") {
      std::string host = dict_string(pair_record, "HostID").value_or("");
      if (!dev.trusts(host)) fail("InvalidHostID");
      else dev.distrust(host);
    } else if (request == "StopSession") {
      if (!session) fail("NoRunningSession");
      if (!ch.send(r)) return;
      session = false;
      ch.decrypt();
      continue;
    } else if (request == "StartService") {
      std::string service = dict_string(req.get(), "Service").value_or("");
      plist_dict_set_item(r, "Service", plist_new_string(service.c_str()));
      if (!session) {
        fail("NoRunningSession");
      } else if (faults->locked) {
        fail("PasswordProtected");
      } else if (service != "com.apple.afc") {
        fail("InvalidService");
      } else if (faults->refuse_afc) {
        fail("ServiceProhibited");
      } else {
        plist_dict_set_item(r, "Port", plist_new_uint(dev.open_service_port()));
        plist_dict_set_item(r, "EnableServiceSSL", plist_new_bool(0));
      }
    } else if (request == "Goodbye") {
      plist_dict_set_item(r, "Result", plist_new_string("Success"));
      ch.send(r);
      return;
    } else {
      fail("InvalidRequest");
    }
    if (!ch.send(r)) return;
  }
}

// ---------------------------------------------------------------------------
// control channel

void Server::settle(const std::shared_ptr<Device>& dev) {
  // A client that closed its socket has done so before asking for numbers;
  // wait until every such connection of this device has been torn down so
  // the counters include it. Live connections with nothing pending are not
  // waited for.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < deadline) {
    bool pending = false;
    {
      std::lock_guard lk(conn_mu_);
      for (auto& [id, c] : conns_) {
        if (c.dev != dev) continue;
        pollfd p{c.fd, POLLRDHUP, 0};
        if (::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP))) {
          pending = true;
          break;
        }
      }
    }
    if (!pending) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string Server::control_request(const std::string& line) {
  json req, rep = {{"ok", true}};
  try {
    req = json::parse(line);
  } catch (const std::exception& e) {
    return json{{"ok", false}, {"error", std::string("bad json: ") + e.what()}}.dump();
  }
  auto fail = [](const std::string& e) { return json{{"ok", false}, {"error", e}}.dump(); };
  std::string cmd = req.value("cmd", "");
  std::string udid = req.value("udid", "");

  if (cmd == "attach") {
    std::vector<std::string> opts = req.value("options", std::vector<std::string>{});
    if (!udid.empty()) opts.push_back("udid=" + udid);
    if (auto e = attach(req.value("image", ""), opts); !e.empty()) return fail(e);
    return rep.dump();
  }
  if (cmd == "detach") {
    if (auto e = detach(udid); !e.empty()) return fail(e);
    return rep.dump();
  }
  if (cmd == "list") {
    json list = json::array();
    std::lock_guard lk(dev_mu_);
    for (const auto& d : devices_)
      list.push_back({{"udid", d->udid()}, {"image", d->image()}, {"id", d->mux_id()}});
    rep["devices"] = list;
    return rep.dump();
  }
  auto dev = find_udid(udid);
  if (!dev) return fail("no device " + udid);
  if (cmd == "set_option") {
    if (auto e = dev->set_option(req.value("key", ""), req.value("value", ""), true); !e.empty())
      return fail(e);
  } else if (cmd == "clear_faults") {
    dev->clear_faults();
  } else if (cmd == "stats") {
    settle(dev);
    json reqs = json::object();
    for (int i = 0; i < static_cast<int>(Op::Count); ++i)
      reqs[op_name(static_cast<Op>(i))] = dev->requests(static_cast<Op>(i));
    rep["requests"] = reqs;
    rep["connections_open"] = dev->connections_open.load();
    rep["files_open"] = dev->files_open.load();
    rep["locks_held"] = dev->locks_held.load();
    rep["tls_sessions"] = dev->tls_sessions.load();
  } else if (cmd == "reset_stats") {
    dev->reset_stats();
  } else if (cmd == "enable_log") {
    dev->set_logging(req.value("on", true));
  } else if (cmd == "log") {
    settle(dev);
    json log = json::array();
    for (const auto& e : dev->take_log()) log.push_back({{"op", op_name(e.op)}, {"path", e.path}});
    rep["log"] = log;
  } else {
    return fail("unknown command " + cmd);
  }
  return rep.dump();
}

void Server::serve_control(int fd) {
  std::string pending;
  char buf[4096];
  while (true) {
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    pending.append(buf, static_cast<size_t>(n));
    size_t nl;
    while ((nl = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, nl);
      pending.erase(0, nl + 1);
      std::string reply = control_request(line) + "\n";
      if (!write_full(fd, reply.data(), reply.size())) return;
    }
  }
}

}  // namespace devsim
