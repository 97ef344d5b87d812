#include "tests/support/TestCA.h"

#include <cctype>
#include <fstream>
#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace qntest {

namespace {

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* p) const {
    Free(p);
  }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;

constexpr long kDay = 24 * 3600;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test CA: ") + what);
}

std::string textOf(BIO* bio) {
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(bio, &bytes);
  return {bytes, static_cast<size_t>(size)};
}

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  check(extension != nullptr, "extension");
  X509_add_ext(cert, extension, -1);
  X509_EXTENSION_free(extension);
}

CertPtr makeCertificate(EVP_PKEY* key, const std::string& name, long serial, long fromDays,
                        long toDays) {
  CertPtr cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), fromDays * kDay);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), toDays * kDay);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  X509_set_pubkey(cert.get(), key);
  return cert;
}

// Two authorities of one name are one to a verifier that looks an issuer up.
std::string randomName() {
  unsigned char bytes[8];
  check(RAND_bytes(bytes, sizeof bytes) == 1, "random");
  std::string name;
  for (const unsigned char byte : bytes)
    name += std::to_string(byte);
  return name;
}

std::string subjectAltNames(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    const bool address = std::isdigit(static_cast<unsigned char>(name.front())) != 0;
    text += (text.empty() ? "" : ",") + std::string(address ? "IP:" : "DNS:") + name;
  }
  return text;
}

}  // namespace

struct TestCA::Impl {
  KeyPtr key{EVP_EC_gen("P-256")};
  CertPtr cert;
  mutable long serial = 1;
};

TestCA::TestCA() : impl_(std::make_unique<Impl>()) {
  check(impl_->key != nullptr, "key");
  impl_->cert = makeCertificate(impl_->key.get(), "Test authority " + randomName(), 1, -2, 30);
  X509* cert = impl_->cert.get();
  X509_set_issuer_name(cert, X509_get_subject_name(cert));
  addExtension(cert, cert, NID_basic_constraints, "critical,CA:TRUE");
  addExtension(cert, cert, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(cert, cert, NID_subject_key_identifier, "hash");
  check(X509_sign(cert, impl_->key.get(), EVP_sha256()) != 0, "sign");
}

TestCA::~TestCA() = default;

std::string TestCA::pem() const {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509(bio.get(), impl_->cert.get()) != 0, "write");
  return textOf(bio.get());
}

void TestCA::writeTo(const std::string& path) const {
  std::ofstream(path, std::ios::binary) << pem();
}

TestCA::Certificate TestCA::issue(const std::vector<std::string>& names, bool expired) const {
  const KeyPtr key(EVP_EC_gen("P-256"));
  const CertPtr cert =
      makeCertificate(key.get(), names.front(), ++impl_->serial, -2, expired ? -1 : 20);
  X509_set_issuer_name(cert.get(), X509_get_subject_name(impl_->cert.get()));
  addExtension(cert.get(), impl_->cert.get(), NID_subject_alt_name, subjectAltNames(names));
  check(X509_sign(cert.get(), impl_->key.get(), EVP_sha256()) != 0, "sign");
  const BioPtr certBio(BIO_new(BIO_s_mem()));
  const BioPtr keyBio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509(certBio.get(), cert.get()) != 0, "write");
  check(
      PEM_write_bio_PrivateKey(keyBio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 0,
      "write key");
  return {textOf(certBio.get()), textOf(keyBio.get())};
}

}  // namespace qntest
