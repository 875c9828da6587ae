// A device's certificates and the server side of its encrypted lockdown
// session, built on OpenSSL.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string>

namespace devsim {

struct SslCtxFree {
  void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
struct SslFree {
  void operator()(SSL* s) const { SSL_free(s); }
};

// What a pair record and the device hold, in the PEM form pair records carry.
// The keys are made once per simulator run and shared by its devices (RSA
// key generation is the expensive part); every device signs certificates of
// its own with them.
struct Identity {
  std::string root_cert, root_key, host_cert, host_key, device_cert;
  std::string device_public_key;  // PKCS#1 "RSA PUBLIC KEY", as GetValue DevicePublicKey answers
  std::string escrow_bag, wifi_mac;
  std::unique_ptr<SSL_CTX, SslCtxFree> server_ctx;  // device certificate and key
};

// Throws std::runtime_error when OpenSSL fails.
std::shared_ptr<const Identity> make_identity();

// The device end of a TLS connection over an already connected socket.
class TlsStream {
 public:
  // Runs the handshake; null (and the reason in err) when it fails.
  static std::unique_ptr<TlsStream> accept(SSL_CTX* ctx, int fd, std::string& err);
  bool read_full(void* buf, size_t n);
  bool write_full(const void* buf, size_t n);

 private:
  explicit TlsStream(SSL* s) : ssl_(s) {}
  std::unique_ptr<SSL, SslFree> ssl_;
};

}  // namespace devsim
