// Accepting connections on the usbmux and control sockets, one thread
// each, the devices that come and go, and the control channel tests drive.
#include "server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace devsim {

namespace {

using json = nlohmann::json;

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

ino_t inode_of(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Another instance may have taken the path over since; its socket stays.
void unlink_if_ours(const std::string& path, ino_t ino) {
  if (ino && inode_of(path) == ino) ::unlink(path.c_str());
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
    Plist msg(detached_message(*dev));
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
