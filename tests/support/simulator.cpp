// Runs tarn-devsim as a child process and talks to its control socket.
#include "simulator.h"

#include "child_process.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>

namespace tarn::testing {

namespace {

using json = nlohmann::json;
constexpr auto kReadyTimeout = std::chrono::seconds(15);
constexpr int kControlTimeoutSeconds = 15;

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error("Simulator: " + what);
}

}  // namespace

struct Simulator::Impl {
  std::string dir, socket, ctl_path;
  std::unique_ptr<ChildProcess> child;  // its stdout stays open, so it never sees EPIPE
  int ctl_fd = -1;
  std::mutex ctl_mu;
  std::optional<ScopedEnv> env;

  ~Impl() { stop(); }
  json call(json req);
  void stop();
};

json Simulator::Impl::call(json req) {
  std::lock_guard lk(ctl_mu);
  if (ctl_fd < 0) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, ctl_path.c_str(), sizeof addr.sun_path - 1);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      if (fd >= 0) ::close(fd);
      fail("cannot reach the control socket " + ctl_path + ": " + std::strerror(errno));
    }
    timeval tv{kControlTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    ctl_fd = fd;
  }
  std::string line = req.dump() + "\n";
  if (::send(ctl_fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
    fail("control request failed: " + std::string(std::strerror(errno)));
  std::string reply;
  char c;
  while (true) {
    ssize_t n = ::recv(ctl_fd, &c, 1, 0);
    if (n <= 0) fail("no answer from the simulator to " + req.dump());
    if (c == '\n') break;
    reply += c;
  }
  json rep = json::parse(reply);
  if (!rep.value("ok", false)) fail(req.value("cmd", "?") + ": " + rep.value("error", reply));
  return rep;
}

void Simulator::Impl::stop() {
  if (ctl_fd >= 0) ::close(ctl_fd);
  ctl_fd = -1;
  if (child) {
    child->Signal(SIGTERM);
    const int code = child->Wait(std::chrono::seconds(10)).code;
    child.reset();
    // A clean stop exits 0; anything else (a sanitizer report, a crash, a
    // hang on shutdown) is a simulator bug the test run must show.
    if (code == 128 + SIGKILL)
      ADD_FAILURE() << "tarn-devsim did not stop within 10 s of SIGTERM";
    else if (code != 0)
      ADD_FAILURE() << "tarn-devsim ended badly (exit " << code << "); see its stderr";
  }
  if (!dir.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    dir.clear();
  }
  env.reset();
}

// A failure on the way throws; impl_ then stops whatever was started.
Simulator::Simulator(const std::vector<SimDevice>& devices, bool set_env) : impl_(std::make_unique<Impl>()) {
  std::string binary = TARN_DEVSIM_PATH;
  if (binary.empty()) fail("tarn-devsim was not built (TARN_DEVSIM_PATH is empty)");
  // Socket paths must fit sockaddr_un, so the private directory lives in /tmp.
  char tmpl[] = "/tmp/tarn-devsim-XXXXXX";
  if (!::mkdtemp(tmpl)) fail(std::string("mkdtemp: ") + std::strerror(errno));
  impl_->dir = tmpl;
  impl_->socket = impl_->dir + "/usbmuxd.sock";
  impl_->ctl_path = impl_->socket + ".ctl";

  std::vector<std::string> args = {binary, "--socket", impl_->socket};
  for (const auto& d : devices) {
    std::string device_option = d.image;
    if (!d.udid.empty()) device_option += ",udid=" + d.udid;
    for (const auto& o : d.options) device_option += "," + o;
    args.push_back("--device");
    args.push_back(device_option);
  }
  impl_->child = std::make_unique<ChildProcess>(args, std::map<std::string, std::string>{}, false);

  // Wait for the ready line; the child's own message is on stderr if it quits.
  const auto deadline = std::chrono::steady_clock::now() + kReadyTimeout;
  std::string out;
  while ((out = impl_->child->Poll().out).find('\n') == std::string::npos) {
    std::string why;
    if (!impl_->child->Running()) {
      why = "tarn-devsim exited before it was ready (see its message above); args:";
      for (size_t i = 1; i < args.size(); ++i) why += " " + args[i];
    } else if (std::chrono::steady_clock::now() > deadline) {
      why = "tarn-devsim did not report ready within 15 s";
    }
    if (!why.empty()) fail(why);
    impl_->child->Poll(100);
  }
  if (out.rfind("tarn-devsim: ready on ", 0) != 0) fail("unexpected first line from tarn-devsim: " + out);
  if (set_env) impl_->env.emplace("USBMUXD_SOCKET_ADDRESS", env_value());
}

Simulator::~Simulator() = default;

const std::string& Simulator::socket_path() const { return impl_->socket; }
std::string Simulator::env_value() const { return "UNIX:" + impl_->socket; }

void Simulator::set_option(const std::string& udid, const std::string& key, const std::string& value) {
  impl_->call({{"cmd", "set_option"}, {"udid", udid}, {"key", key}, {"value", value}});
}

void Simulator::clear_faults(const std::string& udid) {
  impl_->call({{"cmd", "clear_faults"}, {"udid", udid}});
}

void Simulator::attach(const SimDevice& device) {
  impl_->call({{"cmd", "attach"}, {"image", device.image}, {"udid", device.udid}, {"options", device.options}});
}

void Simulator::detach(const std::string& udid) { impl_->call({{"cmd", "detach"}, {"udid", udid}}); }

// The simulator settles before answering: connections whose client has
// already closed the socket are torn down first (bounded by 2 s), so the
// counters include everything a test did before calling stats().
SimStats Simulator::stats(const std::string& udid) {
  json rep = impl_->call({{"cmd", "stats"}, {"udid", udid}});
  SimStats s;
  for (const auto& [op, n] : rep["requests"].items()) s.requests[op] = n.get<uint64_t>();
  s.connections_open = rep.value("connections_open", 0);
  s.files_open = rep.value("files_open", 0);
  s.locks_held = rep.value("locks_held", 0);
  s.tls_sessions = rep.value("tls_sessions", uint64_t{0});
  return s;
}

void Simulator::reset_stats(const std::string& udid) {
  impl_->call({{"cmd", "reset_stats"}, {"udid", udid}});
}

void Simulator::enable_log(const std::string& udid, bool on) {
  impl_->call({{"cmd", "enable_log"}, {"udid", udid}, {"on", on}});
}

std::vector<SimRequest> Simulator::request_log(const std::string& udid) {
  json rep = impl_->call({{"cmd", "log"}, {"udid", udid}});
  std::vector<SimRequest> out;
  for (const auto& e : rep["log"]) out.push_back({e.value("op", ""), e.value("path", "")});
  return out;
}

SimStats Simulator::idle_stats(const std::string& udid) {
  SimStats s;
  for (int i = 0; i < 100; ++i) {
    s = stats(udid);
    if (s.connections_open == 0 && s.files_open == 0 && s.locks_held == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return s;
}

ScopedEnv::ScopedEnv(std::string name, const std::string& value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) old_ = old;
  ::setenv(name_.c_str(), value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
  if (old_) ::setenv(name_.c_str(), old_->c_str(), 1);
  else ::unsetenv(name_.c_str());
}

// The directory stays empty: nothing listens at the socket path inside it.
NoUsbmux::NoUsbmux() : env_("USBMUXD_SOCKET_ADDRESS", "UNIX:" + dir_.path() + "/usbmuxd.sock") {}

}  // namespace tarn::testing
