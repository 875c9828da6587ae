#include "lockdown.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "tls.h"
#include "util.h"

namespace devsim {

namespace {

constexpr uint32_t kMaxLockdownMessage = 4 << 20;

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

}  // namespace

void serve_lockdown(int fd, Device& dev) {
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
    // A reset phone refuses the records it knew, not one paired anew since.
    const std::string record_host = dict_string(pair_record, "HostID").value_or(dict_string(req.get(), "HostID").value_or(""));
    bool refused = faults->refuse_handshake || (faults->stale_pairing && !dev.repaired(record_host));

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
      if (!faults->ssl) sleep_us(faults->handshake_delay_us);
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
        // A phone takes its time over the handshake. libimobiledevice 1.3
        // polls a non-blocking socket and sleeps 100 ms whenever the answer
        // is not there yet, so any delay here costs the client that much.
        sleep_us(faults->handshake_delay_us);
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
      } else if (service != "com.apple.afc" && service != "com.apple.mobile.installation_proxy" &&
                 service != "com.apple.mobile.house_arrest" && service != "com.apple.springboardservices") {
        fail("InvalidService");
      } else if (faults->refuse_afc && service == "com.apple.afc") {
        fail("ServiceProhibited");
      } else {
        plist_dict_set_item(r, "Port", plist_new_uint(dev.open_service_port(service)));
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

}  // namespace devsim
