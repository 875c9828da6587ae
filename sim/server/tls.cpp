#include "tls.h"

#include <openssl/bio.h>
#include <openssl/encoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace devsim {

namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct EncoderFree {
  void operator()(OSSL_ENCODER_CTX* c) const { OSSL_ENCODER_CTX_free(c); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Cert = std::unique_ptr<X509, X509Free>;

std::string ssl_reason(const char* what) {
  unsigned long e = ERR_get_error();
  char buf[256] = "";
  if (e) ERR_error_string_n(e, buf, sizeof buf);
  ERR_clear_error();
  return std::string(what) + (e ? std::string(": ") + buf : "");
}

[[noreturn]] void fail(const char* what) { throw std::runtime_error(ssl_reason(what)); }

struct Keys {
  Pkey root, host, device;
};

// 1024-bit RSA: a 2048-bit key costs about 0.4 s of CPU here, and the test
// suite starts hundreds of simulators. libimobiledevice runs TLS at security
// level 0 and reads any RSA size, so nothing it does depends on the length.
constexpr unsigned kKeyBits = 1024;

const Keys& keys() {
  static Keys k;
  static std::once_flag once;
  std::call_once(once, [] {
    for (Pkey* p : {&k.root, &k.host, &k.device}) {
      p->reset(EVP_RSA_gen(kKeyBits));
      if (!*p) fail("RSA key generation");
    }
  });
  return k;
}

std::string cert_pem(X509* x) {
  std::unique_ptr<BIO, BioFree> b(BIO_new(BIO_s_mem()));
  if (!b || PEM_write_bio_X509(b.get(), x) != 1) fail("PEM encoding");
  char* data = nullptr;
  long n = BIO_get_mem_data(b.get(), &data);
  return std::string(data, static_cast<size_t>(n));
}

std::string private_pem(EVP_PKEY* k) {
  std::unique_ptr<BIO, BioFree> b(BIO_new(BIO_s_mem()));
  if (!b || PEM_write_bio_PrivateKey(b.get(), k, nullptr, nullptr, 0, nullptr, nullptr) != 1)
    fail("PEM encoding of a key");
  char* data = nullptr;
  long n = BIO_get_mem_data(b.get(), &data);
  return std::string(data, static_cast<size_t>(n));
}

// libimobiledevice reads DevicePublicKey with PEM_read_bio_RSAPublicKey,
// which wants PKCS#1, not the SubjectPublicKeyInfo most tools write.
std::string rsa_public_pem(EVP_PKEY* k) {
  std::unique_ptr<OSSL_ENCODER_CTX, EncoderFree> enc(OSSL_ENCODER_CTX_new_for_pkey(
      k, OSSL_KEYMGMT_SELECT_PUBLIC_KEY, "PEM", "type-specific", nullptr));
  unsigned char* data = nullptr;
  size_t len = 0;
  if (!enc || OSSL_ENCODER_to_data(enc.get(), &data, &len) != 1) fail("PEM encoding of a public key");
  std::string s(reinterpret_cast<char*>(data), len);
  OPENSSL_free(data);
  return s;
}

void add_ext(X509* x, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, x, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (!ext || X509_add_ext(x, ext, -1) != 1) fail("certificate extension");
  X509_EXTENSION_free(ext);
}

// Shaped like the certificates libimobiledevice writes when it pairs: no
// subject names, ten years, a CA root and two leaves signed by it.
Cert make_cert(EVP_PKEY* subject_key, EVP_PKEY* signer, X509* issuer, long serial, bool ca) {
  Cert x(X509_new());
  if (!x) fail("X509_new");
  X509_set_version(x.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), 60L * 60 * 24 * 365 * 10);
  X509_set_pubkey(x.get(), subject_key);
  X509* iss = issuer ? issuer : x.get();
  add_ext(x.get(), iss, NID_basic_constraints, ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
  if (!ca) {
    add_ext(x.get(), iss, NID_subject_key_identifier, "hash");
    add_ext(x.get(), iss, NID_key_usage, "critical,digitalSignature,keyEncipherment");
  }
  if (X509_sign(x.get(), signer, EVP_sha256()) == 0) fail("certificate signing");
  return x;
}

std::string random_bytes(size_t n) {
  std::string s(n, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(s.data()), static_cast<int>(n)) != 1)
    fail("RAND_bytes");
  return s;
}

}  // namespace

std::shared_ptr<const Identity> make_identity() {
  const Keys& k = keys();
  auto id = std::make_shared<Identity>();
  static std::atomic<long> serial{1};
  Cert root = make_cert(k.root.get(), k.root.get(), nullptr, 0, true);
  Cert host = make_cert(k.host.get(), k.root.get(), root.get(), serial++, false);
  Cert device = make_cert(k.device.get(), k.root.get(), root.get(), serial++, false);
  id->root_cert = cert_pem(root.get());
  id->host_cert = cert_pem(host.get());
  id->device_cert = cert_pem(device.get());
  id->root_key = private_pem(k.root.get());
  id->host_key = private_pem(k.host.get());
  id->device_public_key = rsa_public_pem(k.device.get());
  id->escrow_bag = random_bytes(40);
  std::string mac = random_bytes(6);
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", (mac[0] & 0xfe) | 0x02,
                mac[1] & 0xff, mac[2] & 0xff, mac[3] & 0xff, mac[4] & 0xff, mac[5] & 0xff);
  id->wifi_mac = buf;

  std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_server_method()));
  if (!ctx) fail("SSL_CTX_new");
  // libimobiledevice 1.3 caps devices below version 10 at TLS 1.0 and signs
  // its own certificates with SHA-1; a phone accepts both, so must we.
  SSL_CTX_set_security_level(ctx.get(), 0);
  SSL_CTX_set_min_proto_version(ctx.get(), TLS1_VERSION);
  if (SSL_CTX_use_certificate(ctx.get(), device.get()) != 1 ||
      SSL_CTX_use_PrivateKey(ctx.get(), k.device.get()) != 1)
    fail("device certificate");
  id->server_ctx = std::move(ctx);
  return id;
}

std::unique_ptr<TlsStream> TlsStream::accept(SSL_CTX* ctx, int fd, std::string& err) {
  SSL* s = SSL_new(ctx);
  if (!s) {
    err = ssl_reason("SSL_new");
    return nullptr;
  }
  std::unique_ptr<TlsStream> t(new TlsStream(s));
  SSL_set_fd(s, fd);
  int r = SSL_accept(s);
  if (r != 1) {
    err = ssl_reason("TLS handshake");
    return nullptr;
  }
  return t;
}

bool TlsStream::read_full(void* buf, size_t n) {
  auto* p = static_cast<char*>(buf);
  while (n > 0) {
    size_t got = 0;
    if (SSL_read_ex(ssl_.get(), p, n, &got) != 1) {
      ERR_clear_error();
      return false;
    }
    p += got;
    n -= got;
  }
  return true;
}

bool TlsStream::write_full(const void* buf, size_t n) {
  size_t done = 0;
  if (n == 0) return true;
  if (SSL_write_ex(ssl_.get(), buf, n, &done) != 1 || done != n) {
    ERR_clear_error();
    return false;
  }
  return true;
}

}  // namespace devsim
