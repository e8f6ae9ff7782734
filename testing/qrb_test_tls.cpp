#include "qrb_test_tls.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <initializer_list>
#include <stdexcept>
#include <utility>

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

// A certificate for key, named commonName, valid from an hour ago for a day (expired: from two
// days ago until yesterday), with the extensions {nid, value}, signed by issuer (null: itself).
ScopedX509 MakeCertificate(EVP_PKEY* key, const std::string& commonName, bool expired, X509* issuer,
                           EVP_PKEY* issuerKey,
                           std::initializer_list<std::pair<int, std::string>> extensions) {
    static std::atomic<long> serial{1};
    ScopedX509 cert(X509_new());
    X509* c = cert.get();
    Check(c != nullptr && X509_set_version(c, 2) == 1 &&
              ASN1_INTEGER_set(X509_get_serialNumber(c), serial++) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(c), expired ? -2 * 86400 : -3600) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(c), expired ? -86400 : 86400) != nullptr &&
              X509_set_pubkey(c, key) == 1 &&
              X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                                         reinterpret_cast<const unsigned char*>(commonName.c_str()),
                                         -1, -1, 0) == 1 &&
              X509_set_issuer_name(c, X509_get_subject_name(issuer ? issuer : c)) == 1,
          "certificate");
    for (const auto& [nid, value] : extensions) {
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, issuer ? issuer : c, c, nullptr, nullptr, 0);
        ScopedExtension ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
        Check(ext != nullptr && X509_add_ext(c, ext.get(), -1) == 1, "extension");
    }
    Check(X509_sign(c, issuerKey ? issuerKey : key, EVP_sha256()) > 0, "X509_sign");
    return cert;
}

}  // namespace

TestCertificateAuthority::TestCertificateAuthority(const std::string& commonName)
    : m_Key(MakeKey()) {
    m_Cert = MakeCertificate(m_Key.get(), commonName, false, nullptr, nullptr,
                             {{NID_basic_constraints, "critical,CA:TRUE"},
                              {NID_key_usage, "critical,keyCertSign,cRLSign"},
                              {NID_subject_key_identifier, "hash"}});
}

std::string TestCertificateAuthority::CertificatePem() const {
    ScopedBio bio(BIO_new(BIO_s_mem()));
    BUF_MEM* mem = nullptr;
    Check(bio != nullptr && PEM_write_bio_X509(bio.get(), m_Cert.get()) == 1 &&
              BIO_get_mem_ptr(bio.get(), &mem) == 1 && mem != nullptr,
          "PEM_write_bio_X509");
    return std::string(mem->data, mem->length);
}

TestServerIdentity TestCertificateAuthority::Issue(const std::string& subjectAltNames,
                                                   bool expired) const {
    TestServerIdentity identity;
    identity.key = MakeKey();
    identity.cert =
        MakeCertificate(identity.key.get(), "qrb test server", expired, m_Cert.get(), m_Key.get(),
                        {{NID_basic_constraints, "critical,CA:FALSE"},
                         {NID_key_usage, "critical,digitalSignature,keyEncipherment"},
                         {NID_ext_key_usage, "serverAuth"},
                         {NID_subject_alt_name, subjectAltNames},
                         {NID_authority_key_identifier, "keyid:always"}});
    return identity;
}

}  // namespace qrbtest
