#include "linux/ldap.h"

#include "linux/descriptor.h"
#include "linux/ldap_library.h"
#include "linux/loaded_library.h"
#include "linux/mail_settings.h"
#include "linux/names.h"
#include "linux/settings.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace tavr
{

namespace
{

using std::chrono::milliseconds;

constexpr milliseconds kMessageTime{9'000};
constexpr milliseconds kConnectTime{5'000}; // for one server: connection, encryption, bind
constexpr ber_len_t kMostMessage = 1 << 20; // bytes of one message, which is one entry at most
constexpr int kMostReferences = 10'000;     // on a page
constexpr int64_t kMostEntries = 1'000'000;
constexpr size_t kMostValues = 1000;
constexpr size_t kMostValue = 4096;
constexpr char kSystemCertificates[] = "/etc/ssl/certs/ca-certificates.crt";

LdapFunctions LoadLdap()
{
    try {
        const LoadedLibrary library(TAVR_LDAP_LIBRARY);
        LdapFunctions functions;
#define TAVR_FIND(name) library.Find(functions.name, #name);
        TAVR_LDAP_FUNCTIONS(TAVR_FIND)
#undef TAVR_FIND
        return functions;
    } catch (const LibraryError& error) {
        throw LdapError(LdapStep::Load, error.what());
    }
}

// libldap writes to sockets without asking for no signal.
class NoPipeSignal
{
public:
    NoPipeSignal()
    {
        struct sigaction ignored {
        };
        ignored.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignored, &former_);
    }
    ~NoPipeSignal() { sigaction(SIGPIPE, &former_, nullptr); }
    NoPipeSignal(const NoPipeSignal&) = delete;
    NoPipeSignal& operator=(const NoPipeSignal&) = delete;

private:
    struct sigaction former_ {
    };
};

std::string ErrorText(int code, const char* detail)
{
    std::string text = Ldap().ldap_err2string(code);
    if (detail != nullptr && *detail != 0) {
        const std::string said(detail, std::min(std::char_traits<char>::length(detail), size_t{200}));
        text += " (" + (IsPlainText(said) ? said : "with a text that cannot be shown") + ')';
    }
    return text;
}

template<class Value>
void SetOption(ldap* connection, int option, const Value* value)
{
    const int code = Ldap().ldap_set_option(connection, option, value);
    if (code != LDAP_OPT_SUCCESS) {
        throw LdapError(LdapStep::Encrypt, "option " + std::to_string(option) +
                                               " is not taken: " + Ldap().ldap_err2string(code));
    }
}

} // namespace

const LdapFunctions& Ldap()
{
    static const LdapFunctions functions = LoadLdap(); // again at the next call, after an exception
    return functions;
}

namespace
{

// --- Settings ----------------------------------------------------------------------------------------------

[[noreturn]] void RefuseSetting(const std::string& key, const std::string& text)
{
    throw LdapError(LdapStep::Settings, "setting " + key + ' ' + text);
}

LdapServer ServerOf(std::string_view word, const std::string& key)
{
    const auto refuse = [&] { RefuseSetting(key, "is none of ldap://host[:port], ldaps://host[:port]"); };
    LdapServer server;
    server.uri = word;
    server.tls = word.starts_with("ldaps://");
    if (!server.tls && !word.starts_with("ldap://")) {
        refuse();
    }
    word.remove_prefix(word.find("//") + 2);
    if (word.ends_with('/')) {
        word.remove_suffix(1);
    }
    server.port = server.tls ? LDAPS_PORT : LDAP_PORT;
    const size_t bracket = word.starts_with('[') ? word.find(']') : 0;
    const size_t colon = bracket == std::string_view::npos ? bracket : word.find(':', bracket);
    if (colon != std::string_view::npos) {
        const std::string_view digits = word.substr(colon + 1);
        const auto [end, code] = std::from_chars(digits.begin(), digits.end(), server.port);
        if (code != std::errc() || end != digits.end() || server.port < 1 || server.port > 65535) {
            refuse();
        }
        word = word.substr(0, colon);
    }
    if (word.starts_with('[') && word.ends_with(']')) {
        word = word.substr(1, word.size() - 2);
    }
    server.host = word;
    if (!IsHostName(word)) {
        refuse();
    }
    return server;
}

std::vector<LdapServer> ServersOf(std::string_view text, const std::string& key)
{
    std::vector<LdapServer> servers;
    while (!text.empty()) {
        const size_t end = std::min(text.find(' '), text.size());
        if (end > 0) {
            servers.push_back(ServerOf(text.substr(0, end), key));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return servers;
}

std::string AttributeSetting(const char* key, const char* fallback)
{
    std::string name = Setting(key, fallback);
    const bool valid = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '.' || c == ';';
    });
    if (!valid) {
        RefuseSetting(key, "is no name of an attribute");
    }
    return name;
}

std::string FilterSetting(const char* key, const char* fallback)
{
    std::string filter = Setting(key, fallback);
    if (filter.size() < 3 || filter.front() != '(' || filter.back() != ')') {
        RefuseSetting(key, "is no filter in brackets");
    }
    return filter;
}

std::string RealmSetting()
{
    const auto name = CanonicalName("x@" + Setting("ldap_realm", ""));
    if (!name || name->size() < 3 || !name->starts_with("x@")) { // else it is one of the domains
        RefuseSetting("ldap_realm", "names no realm, the part of an account's name behind the @");
    }
    return name->substr(2);
}

bool StartTlsSetting(const std::string& key)
{
    const std::string text = Setting(key, "yes");
    if (text != "yes" && text != "no") {
        RefuseSetting(key, "is neither yes nor no");
    }
    return text == "yes";
}

} // namespace

bool ReadLdapServers(const std::string& prefix, LdapSettings& settings)
{
    settings.servers = ServersOf(Setting(prefix + "uri", ""), prefix + "uri");
    if (settings.servers.empty()) {
        return false;
    }
    settings.startTls = StartTlsSetting(prefix + "starttls");
    settings.caFile = Setting(prefix + "ca_file", kSystemCertificates);
    settings.bindName = Setting(prefix + "bind_dn", "");
    if (!settings.bindName.empty()) {
        settings.bindPassword = SecretSetting(prefix + "bind_password").value_or(KeptSecret());
        if (settings.bindPassword.text.empty()) {
            RefuseSetting(prefix + "bind_dn",
                          "is of no use without " + prefix + "bind_password in the secrets");
        }
    }
    return true;
}

std::optional<LdapSettings> ReadLdapSettings()
{
    LdapSettings settings;
    if (!ReadLdapServers("ldap_", settings)) {
        return std::nullopt;
    }
    settings.realm = RealmSetting();
    const std::string base = Setting("ldap_base", "");
    settings.userBase = Setting("ldap_user_base", base);
    settings.groupBase = Setting("ldap_group_base", base);
    if (settings.userBase.empty() || settings.groupBase.empty()) {
        RefuseSetting("ldap_base", "is missing");
    }
    settings.userFilter =
        FilterSetting("ldap_user_filter", "(|(objectClass=posixAccount)(objectClass=inetOrgPerson))");
    settings.groupFilter =
        FilterSetting("ldap_group_filter", "(|(objectClass=posixGroup)(objectClass=groupOfNames)"
                                           "(objectClass=groupOfUniqueNames))");
    settings.idAttribute = AttributeSetting("ldap_id", "entryUUID");
    settings.userName = AttributeSetting("ldap_user_name", "uid");
    settings.userDescription = AttributeSetting("ldap_user_description", "cn");
    settings.userMail = AttributeSetting("ldap_user_mail", "mail");
    settings.groupName = AttributeSetting("ldap_group_name", "cn");
    settings.groupDescription = AttributeSetting("ldap_group_description", "description");
    settings.groupMember = AttributeSetting("ldap_group_member", "member");
    return settings;
}

std::string FilterValue(std::string_view text)
{
    if (text.empty()) {
        return {};
    }
    berval plain{text.size(), const_cast<char*>(text.data())};
    berval escaped{0, nullptr};
    if (Ldap().ldap_bv2escaped_filter_value(&plain, &escaped) != 0) {
        throw std::bad_alloc();
    }
    std::string value(escaped.bv_val, escaped.bv_len);
    if (escaped.bv_val != plain.bv_val) {
        Ldap().ber_memfree(escaped.bv_val);
    }
    return value;
}

// --- Entries -----------------------------------------------------------------------------------------------

namespace
{

struct FreeLdapText {
    void operator()(char* text) const noexcept { Ldap().ldap_memfree(text); }
};
using LdapText = std::unique_ptr<char, FreeLdapText>;

struct FreeValues {
    void operator()(berval** values) const noexcept { Ldap().ldap_value_free_len(values); }
};

struct FreeReader {
    void operator()(BerElement* reader) const noexcept { Ldap().ber_free(reader, 0); }
};

struct FreeArray { // its values stand in the message
    void operator()(berval* values) const noexcept { Ldap().ber_memfree(values); }
};

std::string_view View(const berval& value)
{
    return {value.bv_val, value.bv_len};
}

bool IsAttribute(std::string_view name, const std::string& attribute)
{
    return name.size() == attribute.size() && strncasecmp(name.data(), attribute.data(), name.size()) == 0;
}

struct FreeControl {
    void operator()(LDAPControl* control) const noexcept { Ldap().ldap_control_free(control); }
};

struct FreeControls {
    void operator()(LDAPControl** controls) const noexcept { Ldap().ldap_controls_free(controls); }
};

} // namespace

std::string LdapEntry::Dn() const
{
    const LdapText dn(Ldap().ldap_get_dn(connection_, entry_));
    return dn ? dn.get() : "";
}

std::vector<std::string> LdapEntry::Values(const std::string& attribute) const
{
    const std::unique_ptr<berval*, FreeValues> found(
        Ldap().ldap_get_values_len(connection_, entry_, attribute.c_str()));
    std::vector<std::string> values;
    for (berval** value = found.get(); value != nullptr && *value != nullptr; ++value) {
        if (values.size() < kMostValues && (*value)->bv_len <= kMostValue) {
            values.emplace_back((*value)->bv_val, (*value)->bv_len);
        }
    }
    return values;
}

LdapEntry::Texts LdapEntry::OnlyValues(std::span<const std::string> attributes) const
{
    Texts texts;
    BerElement* reader = nullptr;
    berval name{0, nullptr};
    if (Ldap().ldap_get_dn_ber(connection_, entry_, &reader, &name) != LDAP_SUCCESS) {
        return texts;
    }
    const std::unique_ptr<BerElement, FreeReader> owner(reader);
    texts.dn = View(name);
    berval* values = nullptr;
    while (Ldap().ldap_get_attribute_ber(connection_, entry_, reader, &name, &values) == LDAP_SUCCESS &&
           name.bv_val != nullptr) {
        const std::unique_ptr<berval, FreeArray> array(values);
        const bool isOne = values != nullptr && values[0].bv_val != nullptr && values[1].bv_val == nullptr;
        for (size_t i = 0; i < attributes.size() && i < texts.values.size(); ++i) {
            if (isOne && values[0].bv_len <= kMostValue && IsAttribute(View(name), attributes[i])) {
                texts.values[i] = View(values[0]);
            }
        }
        values = nullptr;
    }
    return texts;
}

// --- Opening -----------------------------------------------------------------------------------------------

namespace
{

struct FreeAddresses {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};

int MillisecondsUntil(std::chrono::steady_clock::time_point end)
{
    const auto left = std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(0, left.count()));
}

// libldap's own connecting knows no end for all addresses of a name together.
Descriptor ConnectTo(const addrinfo& address, std::chrono::steady_clock::time_point end, int& problem)
{
    Descriptor socket(
        ::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
    if (!socket) {
        problem = errno;
        return {};
    }
    const int atOnce = 1; // a request of two packets would wait 40 ms for the first one's receipt
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
    if (connect(socket.Get(), address.ai_addr, address.ai_addrlen) == 0) {
        return socket;
    }
    problem = errno;
    if (problem != EINPROGRESS) {
        return {};
    }
    pollfd waiting{socket.Get(), POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&waiting, 1, MillisecondsUntil(end));
    } while (ready < 0 && errno == EINTR);
    socklen_t size = sizeof problem;
    problem = ETIMEDOUT;
    if (ready <= 0 || getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &problem, &size) != 0 || problem != 0) {
        return {};
    }
    return socket;
}

Descriptor ConnectTo(const LdapServer& server, std::chrono::steady_clock::time_point end)
{
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string port = std::to_string(server.port);
    const int code = getaddrinfo(server.host.c_str(), port.c_str(), &wanted, &found);
    if (code != 0) {
        throw LdapError(LdapStep::Connect, server.host + " is no known host: " + gai_strerror(code));
    }
    const std::unique_ptr<addrinfo, FreeAddresses> addresses(found);
    int problem = 0;
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        if (Descriptor socket = ConnectTo(*address, end, problem)) {
            return socket;
        }
    }
    throw LdapError(LdapStep::Connect,
                    "cannot connect to " + server.uri + ": " + std::generic_category().message(problem));
}

void StayNonBlocking(ldap* connection)
{
    int fd = -1;
    if (Ldap().ldap_get_option(connection, LDAP_OPT_DESC, &fd) == LDAP_OPT_SUCCESS && fd >= 0) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
}

timeval TimevalOf(int thousandths)
{
    return {thousandths / 1000, (thousandths % 1000) * 1000};
}

// libldap waits in a handshake without end, and without rest once the socket is one that does not wait. So a
// layer of our own stands under the encryption, and waits for the socket until the time that the connection
// says; without one it is not there.
using WaitUntil = std::optional<std::chrono::steady_clock::time_point>;

// False, with errno set, when the time is over.
bool AwaitSocket(const Sockbuf_IO_Desc* layer, short event)
{
    const auto& end = *static_cast<const WaitUntil*>(layer->sbiod_pvt);
    if (!end) {
        return true;
    }
    ber_socket_t fd = -1;
    Ldap().ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_GET_FD, &fd);
    pollfd waiting{fd, event, 0};
    int ready = 0;
    do {
        ready = poll(&waiting, 1, MillisecondsUntil(*end));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        errno = ETIMEDOUT;
    }
    return ready > 0;
}

// Not constant: libldap's type is not.
Sockbuf_IO patience = {
    [](Sockbuf_IO_Desc* layer, void* end) {
        layer->sbiod_pvt = end;
        return 0;
    },
    [](Sockbuf_IO_Desc* /*layer*/) { return 0; },
    [](Sockbuf_IO_Desc* layer, int option, void* argument) {
        return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
    },
    [](Sockbuf_IO_Desc* layer, void* bytes, ber_len_t size) {
        return AwaitSocket(layer, POLLIN) ? LBER_SBIOD_READ_NEXT(layer, bytes, size) : -1;
    },
    [](Sockbuf_IO_Desc* layer, void* bytes, ber_len_t size) {
        return AwaitSocket(layer, POLLOUT) ? LBER_SBIOD_WRITE_NEXT(layer, bytes, size) : -1;
    },
    [](Sockbuf_IO_Desc* /*layer*/) { return 0; },
};
constexpr int kUnderEncryption = (LBER_SBIOD_LEVEL_PROVIDER + LBER_SBIOD_LEVEL_TRANSPORT) / 2;

// Which server could be used the last time: one that hangs is not waited for at every request.
std::atomic<size_t> lastServer = 0;

} // namespace

void IgnoreLdapConfiguration()
{
    constexpr char kName[] = "LDAPNOINIT";
    if (getenv(kName) == nullptr) { // NOLINT(concurrency-mt-unsafe): nobody writes it once it is there
        setenv(kName, "1", 1);      // NOLINT(concurrency-mt-unsafe): before the first thread
    }
}

void LdapConnection::Unbind::operator()(ldap* connection) const noexcept
{
    const NoPipeSignal quiet;
    Ldap().ldap_unbind_ext(connection, nullptr, nullptr);
}

void LdapConnection::FreeMessage::operator()(ldapmsg* message) const noexcept
{
    Ldap().ldap_msgfree(message);
}

LdapConnection::LdapConnection(const LdapSettings& settings, milliseconds wholeTime)
    : settings_(settings), end_(Clock::now() + wholeTime), stepEnd_(end_)
{
    IgnoreLdapConfiguration();
    const NoPipeSignal quiet;
    std::optional<LdapError> first;
    const size_t last = lastServer;
    for (size_t i = 0; i < settings_.servers.size(); ++i) {
        const size_t at = (last + i) % settings_.servers.size();
        try {
            Open(settings_.servers[at]);
            lastServer = at;
            return;
        } catch (const LdapError& error) {
            ldap_.reset();
            if (settings_.servers.size() > 1) {
                syslog(LOG_WARNING, "%s: %s", settings_.servers[at].uri.c_str(), error.what());
            }
            if (!first) {
                first.emplace(error);
            }
        }
    }
    throw *first;
}

LdapConnection::~LdapConnection() = default;

void LdapConnection::Open(const LdapServer& server)
{
    server_ = &server;
    stepEnd_ = std::min(end_, Clock::now() + kConnectTime);
    Descriptor socket = ConnectTo(server, stepEnd_);
    ldap* made = nullptr;
    const int code = Ldap().ldap_init_fd(socket.Get(), LDAP_PROTO_TCP, server.uri.c_str(), &made);
    if (code != LDAP_SUCCESS) {
        throw LdapError(LdapStep::Connect, server.uri + ": " + ErrorText(code, nullptr));
    }
    static_cast<void>(socket.Release()); // libldap's from here on
    ldap_.reset(made);
    const int version = LDAP_VERSION3;
    SetOption(made, LDAP_OPT_PROTOCOL_VERSION, &version);
    SetOption(made, LDAP_OPT_REFERRALS, static_cast<const void*>(LDAP_OPT_OFF));
    const int never = LDAP_DEREF_NEVER;
    SetOption(made, LDAP_OPT_DEREF, &never);
    Sockbuf* buffer = nullptr;
    ber_len_t most = kMostMessage;
    if (Ldap().ldap_get_option(made, LDAP_OPT_SOCKBUF, &buffer) != LDAP_OPT_SUCCESS || buffer == nullptr ||
        Ldap().ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &most) < 0) {
        throw LdapError(LdapStep::Connect, "the size of messages cannot be bounded");
    }
    if (Ldap().ber_sockbuf_add_io(buffer, &patience, kUnderEncryption, &handshakeEnd_) != 0) {
        throw std::bad_alloc();
    }
    Encrypt();
    BindAsService();
    stepEnd_ = end_;
}

void LdapConnection::Encrypt()
{
    if (!server_->tls && !settings_.startTls) {
        return;
    }
    ldap* const connection = ldap_.get();
    const int demand = LDAP_OPT_X_TLS_HARD;
    const int oldest = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
    const int client = 0;
    SetOption(connection, LDAP_OPT_X_TLS_CACERTFILE, settings_.caFile.c_str());
    SetOption(connection, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    SetOption(connection, LDAP_OPT_X_TLS_PROTOCOL_MIN, &oldest);
    if (Ldap().ldap_set_option(connection, LDAP_OPT_X_TLS_NEWCTX, &client) !=
        LDAP_OPT_SUCCESS) { // last: takes the others
        throw LdapError(LdapStep::Encrypt, "the certificates in " + settings_.caFile + " cannot be used");
    }
    if (!server_->tls) {
        int id = 0;
        int code = Ldap().ldap_start_tls(connection, nullptr, nullptr, &id);
        if (code == LDAP_SUCCESS) {
            const Message answer = Next(id, LdapStep::Encrypt);
            Ldap().ldap_parse_result(connection, answer.get(), &code, nullptr, nullptr, nullptr, nullptr, 0);
        }
        if (code != LDAP_SUCCESS) {
            throw LdapError(LdapStep::Encrypt,
                            server_->uri + " does not encrypt (StartTLS): " + ErrorText(code, nullptr));
        }
    }
    handshakeEnd_ = stepEnd_;
    const int code = Ldap().ldap_install_tls(connection);
    handshakeEnd_.reset();
    if (code != LDAP_SUCCESS) {
        char* said = nullptr;
        Ldap().ldap_get_option(connection, LDAP_OPT_DIAGNOSTIC_MESSAGE, &said);
        const LdapText detail(said);
        throw LdapError(LdapStep::Encrypt,
                        "no encryption with " + server_->uri + ": " + ErrorText(code, said));
    }
    StayNonBlocking(connection); // libldap has made the socket a waiting one
}

// --- Asking ------------------------------------------------------------------------------------------------

// The next message of an operation; waits until the end of the step at most.
LdapConnection::Message LdapConnection::Next(int id, LdapStep step)
{
    // None, though there is always one more message.
    const int left = MillisecondsUntil(std::min(stepEnd_, Clock::now() + kMessageTime));
    timeval wait = TimevalOf(left);
    ldapmsg* message = nullptr;
    errno = 0;
    const int got = left > 0 ? Ldap().ldap_result(ldap_.get(), id, LDAP_MSG_ONE, &wait, &message) : 0;
    Message owner(message);
    if (got == 0) {
        throw LdapError(step, server_->uri + " did not answer in time");
    }
    if (got < 0) {
        if (errno == ERANGE) { // which liblber says and libldap passes off as a lost connection
            throw LdapError(step, server_->uri + " sends something longer than 1 MiB, more than is taken");
        }
        int code = LDAP_SERVER_DOWN;
        Ldap().ldap_get_option(ldap_.get(), LDAP_OPT_RESULT_CODE, &code);
        throw LdapError(step, server_->uri + ": " + ErrorText(code, nullptr));
    }
    return owner;
}

// Gives the server's result.
int LdapConnection::Bind(const std::string& dn, std::string_view password, std::string& said)
{
    isService_ = false;
    berval secret{password.size(), const_cast<char*>(password.data())};
    int id = 0;
    int code =
        Ldap().ldap_sasl_bind(ldap_.get(), dn.c_str(), LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, &id);
    if (code != LDAP_SUCCESS) {
        throw LdapError(LdapStep::Bind, server_->uri + ": " + ErrorText(code, nullptr));
    }
    const Message answer = Next(id, LdapStep::Bind);
    char* text = nullptr;
    const int parsed =
        Ldap().ldap_parse_result(ldap_.get(), answer.get(), &code, nullptr, &text, nullptr, nullptr, 0);
    const LdapText owner(text);
    if (parsed != LDAP_SUCCESS) {
        throw LdapError(LdapStep::Bind, server_->uri + ": " + ErrorText(parsed, nullptr));
    }
    said = ErrorText(code, text);
    return code;
}

void LdapConnection::BindAsService()
{
    std::string said;
    if (Bind(settings_.bindName, settings_.bindPassword.text, said) != LDAP_SUCCESS) {
        throw LdapError(LdapStep::Bind, server_->uri + " does not let " +
                                            (settings_.bindName.empty() ? "anybody" : settings_.bindName) +
                                            " in: " + said);
    }
    isService_ = true;
}

bool LdapConnection::IsPassword(const std::string& dn, std::string_view password)
{
    if (dn.empty() || password.empty()) {
        return false;
    }
    const NoPipeSignal quiet;
    std::string said;
    switch (Bind(dn, password, said)) {
    case LDAP_SUCCESS:
        return true;
    case LDAP_INVALID_CREDENTIALS:
        return false;
    case LDAP_CONSTRAINT_VIOLATION: // servers say these of accounts that are locked or have no password
    case LDAP_INAPPROPRIATE_AUTH:
    case LDAP_INSUFFICIENT_ACCESS:
    case LDAP_NO_SUCH_OBJECT:
    case LDAP_UNWILLING_TO_PERFORM:
        syslog(LOG_NOTICE, "%s does not let %s in: %s", server_->uri.c_str(), dn.c_str(), said.c_str());
        return false;
    default:
        throw LdapError(LdapStep::Bind, server_->uri + " cannot compare a password: " + said);
    }
}

namespace
{

bool IsPaged(const LdapSearch& search)
{
    return search.most == 0 && !search.baseOnly;
}

} // namespace

// Asks for a page, or for all that there is. Gives the operation's number.
int LdapConnection::AskPage(const LdapSearch& search, const std::string& cookie)
{
    ldap* const connection = ldap_.get();
    std::vector<std::string> names = search.attributes;
    std::vector<char*> attributes;
    attributes.reserve(names.size() + 1);
    for (std::string& name : names) {
        attributes.push_back(name.data());
    }
    attributes.push_back(nullptr);

    std::unique_ptr<LDAPControl, FreeControl> paging;
    if (IsPaged(search)) {
        berval former{cookie.size(), const_cast<char*>(cookie.data())};
        LDAPControl* control = nullptr;
        if (Ldap().ldap_create_page_control(connection, search.page, cookie.empty() ? nullptr : &former, 0,
                                            &control) != LDAP_SUCCESS) {
            throw std::bad_alloc();
        }
        paging.reset(control);
    }
    LDAPControl* controls[] = {paging.get(), nullptr};
    int id = 0;
    int code = Ldap().ldap_search_ext(
        connection, search.base.c_str(), search.baseOnly ? LDAP_SCOPE_BASE : LDAP_SCOPE_SUBTREE,
        search.filter.c_str(), attributes.data(), 0, controls, nullptr, nullptr, search.most, &id);
    if (code != LDAP_SUCCESS) {
        const LdapStep step = code == LDAP_FILTER_ERROR ? LdapStep::Settings : LdapStep::Search;
        throw LdapError(step, "search below " + search.base + ": " + ErrorText(code, nullptr));
    }
    return id;
}

// The entries of what was asked for. Gives the cookie of the next page; empty when there is none.
std::string LdapConnection::TakePage(int id, const LdapSearch& search, const EachEntry& each, int64_t& count)
{
    ldap* const connection = ldap_.get();
    int code = LDAP_SUCCESS;
    int64_t onPage = 0;
    int references = 0;
    for (;;) {
        const Message message = Next(id, LdapStep::Search);
        const int type = Ldap().ldap_msgtype(message.get());
        if (type == LDAP_RES_SEARCH_ENTRY) {
            ++count;
            if (search.most != 0 && count > search.most) {
                continue; // a server that does not keep to it
            }
            if (++onPage > search.page || count > kMostEntries) {
                Ldap().ldap_abandon_ext(connection, id, nullptr, nullptr);
                throw LdapError(LdapStep::Search,
                                server_->uri + " gives more entries than can be taken, or gives no pages");
            }
            each(LdapEntry(connection, message.get()));
        }
        if (type != LDAP_RES_SEARCH_RESULT) { // references to other servers, which are not followed
            if (type != LDAP_RES_SEARCH_ENTRY && ++references > kMostReferences) {
                throw LdapError(LdapStep::Search, server_->uri + " gives references without end");
            }
            continue;
        }
        char* text = nullptr;
        LDAPControl** answered = nullptr;
        const int parsed =
            Ldap().ldap_parse_result(connection, message.get(), &code, nullptr, &text, nullptr, &answered, 0);
        const LdapText said(text);
        const std::unique_ptr<LDAPControl*, FreeControls> owner(answered);
        const bool enough = search.most != 0 && code == LDAP_SIZELIMIT_EXCEEDED;
        const bool absent = search.baseOnly && code == LDAP_NO_SUCH_OBJECT;
        if (parsed != LDAP_SUCCESS || (code != LDAP_SUCCESS && !enough && !absent)) {
            throw LdapError(LdapStep::Search, "search below " + search.base + ": " +
                                                  ErrorText(parsed != LDAP_SUCCESS ? parsed : code, text));
        }
        LDAPControl* page = IsPaged(search) && answered != nullptr
                                ? Ldap().ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, answered, nullptr)
                                : nullptr;
        berval next{0, nullptr};
        ber_int_t estimate = 0;
        if (page == nullptr ||
            Ldap().ldap_parse_pageresponse_control(connection, page, &estimate, &next) != LDAP_SUCCESS) {
            return {};
        }
        std::string following(next.bv_val == nullptr ? "" : next.bv_val, next.bv_len);
        Ldap().ber_memfree(next.bv_val);
        return following;
    }
}

void LdapConnection::Search(const LdapSearch& search, const EachEntry& each,
                            const std::function<void()>& pageDone)
{
    const NoPipeSignal quiet;
    if (!isService_) {
        BindAsService();
    }
    int64_t count = 0;
    int id = AskPage(search, "");
    for (;;) {
        const std::string cookie = TakePage(id, search, each, count);
        if (!cookie.empty() && search.ahead) {
            id = AskPage(search, cookie);
        }
        if (pageDone) {
            pageDone();
        }
        if (cookie.empty()) {
            return;
        }
        if (!search.ahead) {
            id = AskPage(search, cookie);
        }
    }
}

} // namespace tavr
