// The simulator process: a usbmux socket that any libimobiledevice client
// can use, and a control socket (JSON lines) for test fixtures.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device.h"
#include "util.h"

namespace devsim {

class Server {
 public:
  explicit Server(std::string socket_path);
  ~Server();  // stops every connection, joins every thread, removes the sockets
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // "IMAGE[,key=value...]": loads the image and attaches the device.
  // Returns an empty string on success, else the reason.
  std::string attach(const std::string& image, const std::vector<std::string>& options);
  std::string detach(const std::string& udid);

  // Binds the usbmux socket and "<path>.ctl".
  std::string listen();
  // Serves until stop_fd becomes readable (a signalfd in practice).
  void run(int stop_fd);

  const std::string& buid() const { return buid_; }

 private:
  struct Listener {
    int fd;
    std::mutex write_mu;
  };
  struct Conn {
    int fd;
    std::shared_ptr<Device> dev;
  };
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  // Keeps a connection visible to shutdown, detach and the stats settle for
  // exactly as long as its thread owns the descriptor.
  class ConnReg {
   public:
    ConnReg(Server& s, int fd);
    ~ConnReg();
    ConnReg(const ConnReg&) = delete;
    ConnReg& operator=(const ConnReg&) = delete;
    void bind(std::shared_ptr<Device> dev);

   private:
    Server& s_;
    uint64_t id_;
  };

  void spawn(Fd fd, bool control);
  void reap(bool all);
  void serve_control(int fd);
  std::string control_request(const std::string& line);
  std::shared_ptr<Device> find_udid(const std::string& udid);
  std::shared_ptr<Device> find_id(uint32_t id);
  void settle(const std::shared_ptr<Device>& dev);

  // The usbmux protocol (usbmux.cpp); a Connect hands the socket on to
  // lockdown or the file conduit.
  void serve_usbmux(int fd);
  void broadcast(plist_t msg);
  plist_t attached_message(const Device& d);
  plist_t detached_message(const Device& d);

  std::string path_, ctl_path_, buid_;
  Fd mux_fd_, ctl_fd_;
  ino_t mux_ino_ = 0, ctl_ino_ = 0;  // so we only ever remove our own socket files
  std::atomic<bool> stopping_{false};

  std::mutex dev_mu_;  // devices_, listeners_, next_id_
  std::vector<std::shared_ptr<Device>> devices_;
  std::map<uint64_t, std::shared_ptr<Listener>> listeners_;
  uint32_t next_id_ = 1;

  std::mutex conn_mu_;
  std::map<uint64_t, Conn> conns_;
  uint64_t next_conn_ = 1;

  std::list<Worker> workers_;  // touched only by the thread that runs run()
};

}  // namespace devsim
