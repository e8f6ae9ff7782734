// A throw-away certificate authority for HTTPS tests, made in memory with OpenSSL when the test
// runs: its certificate (PEM) goes to the CA bundle path under the scratch root, and the server
// identities it issues go to a loopback TLS server.
#ifndef QRB_TESTING_TLS_H
#define QRB_TESTING_TLS_H

#include "qrb_scoped.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

namespace qrbtest {

using ScopedX509 = QRBScoped<X509, X509_free>;
using ScopedPkey = QRBScoped<EVP_PKEY, EVP_PKEY_free>;

// A server certificate and its private key.
struct TestServerIdentity {
    ScopedX509 cert;
    ScopedPkey key;
};

class TestCertificateAuthority {
public:
    // Throws std::runtime_error when OpenSSL cannot make the key or certificate.
    explicit TestCertificateAuthority(const std::string& commonName = "qrb test CA");

    std::string CertificatePem() const;
    // A server identity signed by this authority; subjectAltNames in OpenSSL's form, e.g.
    // "IP:127.0.0.1,DNS:localhost". An expired one ran out yesterday.
    TestServerIdentity Issue(const std::string& subjectAltNames, bool expired = false) const;

private:
    ScopedX509 m_Cert;
    ScopedPkey m_Key;
};

}  // namespace qrbtest

#endif
