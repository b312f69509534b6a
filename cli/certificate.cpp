#include "cli/certificate.h"

#include "linux/descriptor.h"
#include "linux/paths.h"
#include "linux/settings.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <sodium.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <system_error>

namespace tavr::console
{

namespace
{

constexpr size_t kLargestFile = 1 << 20;
constexpr size_t kLongestChain = 10;
constexpr long kDay = 86400;

template<auto Release>
struct Free {
    template<class T>
    void operator()(T* owned) const noexcept
    {
        Release(owned);
    }
};
using Bio = std::unique_ptr<BIO, Free<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Free<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Free<X509_EXTENSION_free>>;
using Names = std::unique_ptr<GENERAL_NAMES, Free<GENERAL_NAMES_free>>;

void ReadFile(const std::string& path, KeyText& text)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        throw CertificateError(path + ": " + std::generic_category().message(errno));
    }
    struct stat entry {
    };
    text.pem.reserve(kLargestFile); // never moved, so that no copy is left behind
    if (fstat(file.Get(), &entry) != 0 || !S_ISREG(entry.st_mode) || !ReadAll(file, kLargestFile, text.pem)) {
        throw CertificateError(path + " cannot be read as a file of at most 1 MiB");
    }
}

Bio Reading(const std::string& text)
{
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

Bio Writing()
{
    Bio bio(BIO_new(BIO_s_secmem()));
    if (!bio) {
        throw CertificateError("no memory");
    }
    return bio;
}

void Append(const Bio& bio, std::string& text)
{
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &bytes);
    text.append(bytes, static_cast<size_t>(size));
}

std::vector<X509Ptr> ReadChain(const std::string& path)
{
    KeyText text;
    ReadFile(path, text);
    const Bio bio = Reading(text.pem);
    std::vector<X509Ptr> chain;
    while (X509* one = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        chain.emplace_back(one);
        if (chain.size() > kLongestChain) {
            throw CertificateError(path + " holds more than " + std::to_string(kLongestChain) +
                                   " certificates");
        }
    }
    const bool whole = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE; // the end of the file
    ERR_clear_error();
    if (chain.empty() || !whole) {
        throw CertificateError(path + (chain.empty() ? " holds no certificate in PEM form"
                                                     : " holds a certificate that cannot be read"));
    }
    return chain;
}

Key ReadKey(const std::string& path)
{
    KeyText text;
    ReadFile(path, text);
    const Bio bio = Reading(text.pem);
    bool asked = false;
    const auto noPassphrase = [](char*, int, int, void* told) {
        *static_cast<bool*>(told) = true;
        return -1;
    };
    Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassphrase, &asked));
    ERR_clear_error();
    if (!key) {
        throw CertificateError(path + (asked ? " needs a passphrase, which a service cannot type"
                                             : " holds no private key in PEM form"));
    }
    return key;
}

int64_t SecondsOf(const ASN1_TIME* time)
{
    tm parts{};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

std::string NameText(const X509_NAME* name)
{
    const Bio bio = Writing();
    X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253);
    std::string text;
    Append(bio, text);
    return text;
}

std::string AddressText(const ASN1_OCTET_STRING* address)
{
    char text[INET6_ADDRSTRLEN] = {};
    const int family = ASN1_STRING_length(address) == 4 ? AF_INET : AF_INET6;
    const bool whole = family == AF_INET || ASN1_STRING_length(address) == 16;
    return whole && inet_ntop(family, ASN1_STRING_get0_data(address), text, sizeof text) != nullptr ? text
                                                                                                    : "";
}

// Of the DNS names only what is printable: they go to a terminal.
std::vector<std::string> NamesOf(const X509* certificate)
{
    std::vector<std::string> texts;
    const Names names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_IPADD) {
            texts.push_back(AddressText(name->d.iPAddress));
        } else if (name->type == GEN_DNS) {
            std::string text;
            for (int at = 0; at < ASN1_STRING_length(name->d.dNSName); ++at) {
                const unsigned char c = ASN1_STRING_get0_data(name->d.dNSName)[at];
                text += c > ' ' && c < 0x7f ? static_cast<char>(c) : '?';
            }
            texts.push_back(text);
        }
    }
    return texts;
}

void AddExtension(X509* certificate, int kind, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
        throw CertificateError("cannot make a certificate for " + value);
    }
}

bool SetSerial(X509* certificate)
{
    unsigned char bytes[8];
    uint64_t number = 0;
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        return false;
    }
    for (const unsigned char byte : bytes) {
        number = number << 8 | byte;
    }
    return ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number >> 1) == 1;
}

} // namespace

KeyText::~KeyText()
{
    sodium_memzero(pem.data(), pem.size());
}

CertificateFiles NamedCertificate()
{
    CertificateFiles files{Setting("tls_certificate", ""), Setting("tls_key", ""), true};
    if (files.certificate.empty() && files.key.empty()) {
        return {kSelfSignedFile, kSelfSignedFile, false};
    }
    if (!files.certificate.starts_with('/') || !files.key.starts_with('/')) {
        throw CertificateError(
            "the settings tls_certificate and tls_key have to name a file each, by its whole path");
    }
    return files;
}

Certificate ReadCertificate(const CertificateFiles& files, KeyText* key)
{
    const std::vector<X509Ptr> chain = ReadChain(files.certificate);
    const Key read = ReadKey(files.key);
    X509* leaf = chain.front().get();
    if (X509_check_private_key(leaf, read.get()) != 1) {
        ERR_clear_error();
        throw CertificateError("the key in " + files.key + " is not that of the first certificate in " +
                               files.certificate);
    }
    Certificate certificate{NameText(X509_get_subject_name(leaf)), NamesOf(leaf),
                            NameText(X509_get_issuer_name(leaf)),  SecondsOf(X509_get0_notBefore(leaf)),
                            SecondsOf(X509_get0_notAfter(leaf)),   {}};
    const Bio bio = Writing();
    for (const X509Ptr& one : chain) {
        PEM_write_bio_X509(bio.get(), one.get());
    }
    Append(bio, certificate.pem);
    if (key != nullptr) {
        const Bio secret = Writing();
        PEM_write_bio_PrivateKey(secret.get(), read.get(), nullptr, nullptr, 0, nullptr, nullptr);
        Append(secret, key->pem);
    }
    return certificate;
}

void MakeSelfSigned(const std::string& hostName, KeyText& made)
{
    const Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const X509Ptr certificate(X509_new());
    const auto* name = reinterpret_cast<const unsigned char*>(hostName.c_str());
    X509_NAME* subject = certificate ? X509_get_subject_name(certificate.get()) : nullptr;
    if (!key || !certificate || X509_set_version(certificate.get(), X509_VERSION_3) != 1 ||
        !SetSerial(certificate.get()) ||
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3650 * kDay) == nullptr ||
        X509_set_pubkey(certificate.get(), key.get()) != 1 ||
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, name, -1, -1, 0) != 1 ||
        X509_set_issuer_name(certificate.get(), subject) != 1) {
        throw CertificateError("cannot make a certificate");
    }
    AddExtension(certificate.get(), NID_subject_alt_name,
                 "DNS:" + hostName + ",DNS:localhost,IP:127.0.0.1,IP:::1");
    AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(certificate.get(), NID_key_usage, "critical,digitalSignature");
    AddExtension(certificate.get(), NID_ext_key_usage, "serverAuth");
    if (X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0) {
        throw CertificateError("cannot sign a certificate");
    }
    const Bio bio = Writing();
    PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    PEM_write_bio_X509(bio.get(), certificate.get());
    Append(bio, made.pem);
}

} // namespace tavr::console
