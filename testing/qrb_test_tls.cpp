#include "qrb_test_tls.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <stdexcept>

namespace qrbtest {

namespace {

using ScopedBio = QRBScoped<BIO, BIO_free_all>;
using ScopedExtension = QRBScoped<X509_EXTENSION, X509_EXTENSION_free>;

void Check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

ScopedPkey MakeKey() {
    ScopedPkey key(EVP_EC_gen("P-256"));
    Check(key != nullptr, "EVP_EC_gen");
    return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    ScopedExtension ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    Check(ext != nullptr, "X509V3_EXT_conf_nid");
    Check(X509_add_ext(cert, ext.get(), -1) == 1, "X509_add_ext");
}

// A certificate for key, named commonName, without extensions or signature yet, valid from an
// hour ago for a day (or, expired, from two days ago until yesterday).
ScopedX509 MakeCertificate(EVP_PKEY* key, const std::string& commonName, bool expired = false) {
    static std::atomic<long> serial{1};
    ScopedX509 cert(X509_new());
    Check(cert != nullptr, "X509_new");
    Check(X509_set_version(cert.get(), 2) == 1, "X509_set_version");
    Check(ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++) == 1, "serial");
    Check(X509_gmtime_adj(X509_getm_notBefore(cert.get()), expired ? -2 * 86400 : -3600) != nullptr,
          "notBefore");
    Check(X509_gmtime_adj(X509_getm_notAfter(cert.get()), expired ? -86400 : 86400) != nullptr,
          "notAfter");
    Check(X509_set_pubkey(cert.get(), key) == 1, "X509_set_pubkey");
    X509_NAME* name = X509_get_subject_name(cert.get());
    Check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                                     -1, 0) == 1,
          "subject");
    return cert;
}

}  // namespace

TestCertificateAuthority::TestCertificateAuthority(const std::string& commonName)
    : m_Key(MakeKey()) {
    m_Cert = MakeCertificate(m_Key.get(), commonName);
    X509* cert = m_Cert.get();
    Check(X509_set_issuer_name(cert, X509_get_subject_name(cert)) == 1, "issuer");
    AddExtension(cert, cert, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(cert, cert, NID_key_usage, "critical,keyCertSign,cRLSign");
    AddExtension(cert, cert, NID_subject_key_identifier, "hash");
    Check(X509_sign(cert, m_Key.get(), EVP_sha256()) > 0, "X509_sign");
}

std::string TestCertificateAuthority::CertificatePem() const {
    ScopedBio bio(BIO_new(BIO_s_mem()));
    Check(bio != nullptr, "BIO_new");
    Check(PEM_write_bio_X509(bio.get(), m_Cert.get()) == 1, "PEM_write_bio_X509");
    BUF_MEM* mem = nullptr;
    BIO_get_mem_ptr(bio.get(), &mem);
    Check(mem != nullptr, "BIO_get_mem_ptr");
    return std::string(mem->data, mem->length);
}

TestServerIdentity TestCertificateAuthority::Issue(const std::string& subjectAltNames,
                                                  bool expired) const {
    TestServerIdentity identity;
    identity.key = MakeKey();
    identity.cert = MakeCertificate(identity.key.get(), "qrb test server", expired);
    X509* cert = identity.cert.get();
    Check(X509_set_issuer_name(cert, X509_get_subject_name(m_Cert.get())) == 1, "issuer");
    AddExtension(cert, m_Cert.get(), NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(cert, m_Cert.get(), NID_key_usage, "critical,digitalSignature,keyEncipherment");
    AddExtension(cert, m_Cert.get(), NID_ext_key_usage, "serverAuth");
    AddExtension(cert, m_Cert.get(), NID_subject_alt_name, subjectAltNames.c_str());
    AddExtension(cert, m_Cert.get(), NID_authority_key_identifier, "keyid:always");
    Check(X509_sign(cert, m_Key.get(), EVP_sha256()) > 0, "X509_sign");
    return identity;
}

}  // namespace qrbtest
