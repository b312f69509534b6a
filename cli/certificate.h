// The web server's certificate and key: PEM files that the administrator names, or a self-signed pair.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavr::console
{

// What is wrong with a pair, and in which file.
class CertificateError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Holds a key; wiped at the end of the scope.
struct KeyText {
    KeyText() = default;
    ~KeyText();
    KeyText(const KeyText&) = delete;
    KeyText& operator=(const KeyText&) = delete;
    std::string pem;
};

struct CertificateFiles {
    std::string certificate; // and those of its issuers behind it
    std::string key;
    bool own = false; // the administrator's; else kSelfSignedFile, which holds both
};

struct Certificate {
    std::string subject;
    std::vector<std::string> names; // DNS names and addresses that it is good for
    std::string issuer;
    int64_t from = 0; // seconds since 1970
    int64_t until = 0;
    std::string pem; // the certificates alone, leaf first
};

// Which files the settings tls_certificate and tls_key name. Throws CertificateError where one is there
// without the other, or no whole path.
CertificateFiles NamedCertificate();

// Reads a pair whose key is that of the first certificate. The effective ids have to be root's. With `key`
// the key goes there. Throws CertificateError.
Certificate ReadCertificate(const CertificateFiles& files, KeyText* key = nullptr);

// Appends a new key (P-256) and a certificate for this name and the machine's own addresses, for ten years.
// Throws CertificateError.
void MakeSelfSigned(const std::string& hostName, KeyText& made);

} // namespace tavr::console
