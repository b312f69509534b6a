// The certificate of the packaged web server. What it serves stands apart in kRunDir, readable for it alone:
// the files that are named may be root's, and a pair that does not fit never replaces one that does.
#include "cli/certificate.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "linux/clock.h"
#include "linux/ids.h"
#include "linux/new_file.h"
#include "linux/paths.h"
#include "linux/settings.h"

#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <memory>
#include <system_error>

namespace tavr::console
{

namespace
{

constexpr int64_t kDay = 86400;
constexpr int64_t kRenewDays = 30; // before its end a self-signed one is made anew

// A self-signed certificate must not make browsers insist on a good one.
constexpr char kOwnLines[] =
    "setenv.add-response-header = (\"Strict-Transport-Security\" => \"max-age=31536000\")\n";

[[noreturn]] void Fail(const std::string& text)
{
    throw Failure(Exit::Failed, "certificate", text);
}

void RequireRaised(const EffectiveIds& ids)
{
    if (!ids.Changed()) {
        throw Failure(Exit::NotAllowed, "not_root", "must be run by root");
    }
}

void Put(const std::string& path, mode_t mode, gid_t group, std::string_view text)
{
    const size_t slash = path.rfind('/');
    const Descriptor folder = OpenDirectoryNoLinks(path.substr(0, slash));
    NewFile file(folder, path.substr(slash + 1), mode, group);
    if (!folder || !file.Write(text) || !file.PutInPlace(AtPlace::Replace)) {
        Fail(path + " cannot be written: " + std::generic_category().message(errno));
    }
}

struct FreeAddresses {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};

// The machine's full name where it knows one, in letters that a certificate's name may have.
std::string HostName()
{
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') {
        return "localhost";
    }
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    const bool known = getaddrinfo(name.data(), nullptr, &hints, &found) == 0;
    const std::unique_ptr<addrinfo, FreeAddresses> list(known ? found : nullptr);
    const std::string host = list && list->ai_canonname != nullptr ? list->ai_canonname : name.data();
    const bool fits = host.size() <= 64 && std::all_of(host.begin(), host.end(), [](unsigned char c) {
                          return std::isalnum(c) != 0 || c == '-' || c == '.';
                      });
    return fits ? host : "localhost";
}

// The self-signed pair, made where there is none that lasts a while.
void RenewSelfSigned(const CertificateFiles& files)
{
    try {
        if (ReadCertificate(files).until - WallSeconds() > kRenewDays * kDay) {
            return;
        }
    } catch (const CertificateError&) {
        // none, or one that cannot be used: a new one takes its place
    }
    KeyText made;
    MakeSelfSigned(HostName(), made);
    Put(kSelfSignedFile, 0400, 0, made.pem);
    Say("made a self-signed certificate for " + HostName());
}

gid_t WebServerGroup()
{
    const group* found = getgrnam(kWebServerUser);
    if (found == nullptr) {
        Fail(std::string("this system has no group ") + kWebServerUser + "; the package tavr-otp makes it");
    }
    return found->gr_gid;
}

Json::Value ToJson(const CertificateFiles& files, const Certificate& certificate)
{
    Json::Value entry;
    entry["own"] = files.own;
    entry["certificate"] = files.certificate;
    entry["key"] = files.key;
    entry["subject"] = certificate.subject;
    entry["issuer"] = certificate.issuer;
    entry["names"] = Json::Value(Json::arrayValue);
    for (const std::string& name : certificate.names) {
        entry["names"].append(name);
    }
    entry["from"] = Json::Int64{certificate.from};
    entry["until"] = Json::Int64{certificate.until};
    return entry;
}

void Show(const CertificateFiles& files, const Certificate& certificate)
{
    std::string names;
    for (const std::string& name : certificate.names) {
        names += (names.empty() ? "" : ",") + name;
    }
    Say(std::string(files.own ? "own" : "self-signed") + '\t' + files.certificate + '\t' +
        (names.empty() ? "-" : names) + '\t' + TimeText(certificate.until));
    Json::Value answer;
    answer["certificate"] = ToJson(files, certificate);
    Answer(std::move(answer));
}

void Store(const std::string& certificate, const std::string& key)
{
    const SettingValue values[] = {{"tls_certificate", certificate}, {"tls_key", key}};
    if (!WriteSettings(values)) {
        throw Failure(Exit::Failed, "settings", "the settings could not be written");
    }
}

} // namespace

void UseCertificate(const std::string& certificate, const std::string& key)
{
    const CertificateFiles files{certificate, key, true};
    if (!IsSettingValue(certificate) || !IsSettingValue(key) || !certificate.starts_with('/') ||
        !key.starts_with('/')) {
        throw Failure(Exit::Usage, "usage", "CERTIFICATE and KEY are whole paths without quotes");
    }
    try {
        const EffectiveIds root = EffectiveIds::Root();
        RequireRaised(root);
        const Certificate read = ReadCertificate(files);
        if (read.until <= WallSeconds()) {
            Fail("the certificate in " + certificate + " has expired, " + TimeText(read.until));
        }
        Store(certificate, key);
        Show(files, read);
    } catch (const CertificateError& error) {
        Fail(error.what());
    }
}

void UseSelfSignedCertificate()
{
    Store("", "");
    Say("the web server will use a self-signed certificate");
    Answer(Json::Value(Json::objectValue));
}

void ShowCertificate()
{
    try {
        const CertificateFiles files = NamedCertificate();
        const EffectiveIds root = EffectiveIds::Root();
        RequireRaised(root);
        Show(files, ReadCertificate(files));
    } catch (const CertificateError& error) {
        Fail(error.what());
    }
}

void InstallCertificate()
{
    try {
        const CertificateFiles files = NamedCertificate();
        const EffectiveIds root = EffectiveIds::Root();
        RequireRaised(root);
        const gid_t webServer = WebServerGroup();
        if (!files.own) {
            RenewSelfSigned(files);
        }
        KeyText served;
        const Certificate certificate = ReadCertificate(files, &served);
        served.pem += certificate.pem;
        if (mkdir(kRunDir, 0755) == 0 && chmod(kRunDir, 0755) != 0) {
            Fail(std::string(kRunDir) + " cannot be made");
        }
        Put(kServedConfiguration, 0644, 0, files.own ? kOwnLines : "");
        Put(kServedCertificate, 0440, webServer, served.pem);
        Show(files, certificate);
    } catch (const CertificateError& error) {
        Fail(error.what());
    }
}

} // namespace tavr::console
