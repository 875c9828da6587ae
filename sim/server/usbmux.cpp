// The usbmux socket protocol, the way libusbmuxd 2.0 speaks it: plist
// messages only, one connection per request or per device stream.
#include <arpa/inet.h>
#include <sys/uio.h>

#include <cstdlib>

#include "afc.h"
#include "apps.h"
#include "lockdown.h"
#include "server.h"

namespace devsim {

namespace {

constexpr uint16_t kLockdownPort = 62078;
constexpr uint32_t kPlistMessage = 8;
constexpr uint32_t kMaxMuxMessage = 1 << 20;
// usbmuxd result numbers as libusbmuxd knows them.
constexpr uint64_t kResultOk = 0, kResultBadCommand = 1, kResultBadDevice = 2,
                   kResultConnRefused = 3;

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

}  // namespace

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

plist_t Server::detached_message(const Device& d) {
  plist_t m = plist_new_dict();
  plist_dict_set_item(m, "MessageType", plist_new_string("Detached"));
  plist_dict_set_item(m, "DeviceID", plist_new_uint(d.mux_id()));
  return m;
}

// Caller holds dev_mu_.
void Server::broadcast(plist_t msg) {
  for (auto& [id, l] : listeners_) {
    std::lock_guard wl(l->write_mu);
    send_mux(l->fd, 0, msg);
  }
}

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
      // The client only listens from now on; hold the socket until it leaves.
      stall(fd);
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
      const std::string service = lockdown ? std::string() : dev->take_service_port(port);
      if (!lockdown && service.empty()) {
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
      else if (!serve_app_service(service, fd, *dev))
        serve_afc(fd, *dev, dev->media_root());
      return;
    } else {
      if (!send_result(fd, tag, kResultBadCommand)) return;
    }
  }
}

}  // namespace devsim
