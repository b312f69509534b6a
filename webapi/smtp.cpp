#include "webapi/smtp.h"

#include <malloc.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace tavr::webapi
{

namespace
{

constexpr long kConnectMilliseconds = 5'000;
constexpr long kWholeMilliseconds = 10'000;
constexpr long kBuffer = 16'384;
constexpr size_t kLongestText = 200; // of an outcome

// --- Memory that was used for passwords and mails ---

void WipeAndFree(void* memory)
{
    if (memory != nullptr) {
        explicit_bzero(memory, malloc_usable_size(memory));
        std::free(memory);
    }
}

void* Reallocate(void* memory, size_t size)
{
    void* larger = std::malloc(size);
    if (larger != nullptr && memory != nullptr) {
        std::memcpy(larger, memory, std::min(size, malloc_usable_size(memory)));
        WipeAndFree(memory);
    }
    return larger;
}

// --- Addresses ---

struct Network {
    uint32_t address;
    int bits;
};

// Not of the Internet at large (the registries of RFC 6890, as they stand).
constexpr Network kSpecial[] = {
    {0x00000000, 8},  // this network
    {0x0a000000, 8},  // private
    {0x64400000, 10}, // shared by providers
    {0x7f000000, 8},  // loopback
    {0xa9fe0000, 16}, // link-local
    {0xac100000, 12}, // private
    {0xc0000000, 24}, // protocol assignments
    {0xc0000200, 24}, // documentation
    {0xc0586300, 24}, // relays to IPv6
    {0xc0a80000, 16}, // private
    {0xc6120000, 15}, // benchmarks
    {0xc6336400, 24}, // documentation
    {0xcb007100, 24}, // documentation
    {0xe0000000, 3},  // groups, reserved, broadcast
};

bool IsPublic(uint32_t address)
{
    return std::none_of(std::begin(kSpecial), std::end(kSpecial), [&](const Network& network) {
        return address >> (32 - network.bits) == network.address >> (32 - network.bits);
    });
}

uint32_t Word(const in6_addr& address, int index)
{
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) {
        word = word << 8 | address.s6_addr[4 * index + i];
    }
    return word;
}

bool IsPublic(const in6_addr& address)
{
    const uint32_t first = Word(address, 0);
    const bool noMiddle = Word(address, 1) == 0 && Word(address, 2) == 0;
    if (first == 0 && Word(address, 1) == 0 && Word(address, 2) == 0xffff) { // mapped
        return IsPublic(Word(address, 3));
    }
    if (first == 0x0064ff9b && noMiddle) { // translated on the way
        return IsPublic(Word(address, 3));
    }
    return first >> 29 == 1          // 2000::/3, the Internet
           && first != 0x20010000    // Teredo
           && first != 0x20010db8    // documentation
           && first >> 16 != 0x2002; // 6to4
}

// --- Texts ---

// One line that can be shown anywhere.
std::string Clean(std::string_view text)
{
    std::string clean;
    for (const char c : text.substr(0, kLongestText)) {
        const bool shown = c > ' ' && c <= '~';
        if (shown || !(clean.empty() || clean.ends_with(' '))) {
            clean += shown ? c : ' ';
        }
    }
    while (clean.ends_with(' ')) {
        clean.pop_back();
    }
    return clean;
}

// 0 when the line does not begin with a reply code.
int ReplyCode(std::string_view line)
{
    const auto digit = [&](size_t i) { return i < line.size() && line[i] >= '0' && line[i] <= '9'; };
    return digit(0) && digit(1) && digit(2) ? 100 * (line[0] - '0') + 10 * (line[1] - '0') + line[2] - '0'
                                            : 0;
}

// Replies about the login: the server has not looked at the mail.
bool IsAboutLogin(int reply)
{
    return reply == 530 || reply == 534 || reply == 535 || reply == 538;
}

} // namespace

bool StartMailTransfers()
{
    std::signal(SIGPIPE, SIG_IGN);
    return curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, WipeAndFree, Reallocate, strdup,
                                std::calloc) == CURLE_OK;
}

MailSender::MailSender(const MailServer& server)
    : from_(server.from),
      privateAddresses_(server.privateAddresses),
      url_(curl_url()),
      easy_(curl_easy_init())
{
    if (!url_ || !easy_) {
        throw std::bad_alloc();
    }
    SetServer(server);
    SetUpload();
}

MailSender::~MailSender()
{
    StopListening();
    easy_.reset(); // it reads the message until then
    Forget();
}

void MailSender::Load(const Mail& mail)
{
    Forget();
    if (const char* problem = MailProblem(from_, mail)) {
        throw std::invalid_argument(std::string("a mail cannot be sent: ") + problem);
    }
    message_ = BuildMessage(from_, mail);
    recipients_.reset(curl_slist_append(nullptr, mail.to.c_str()));
    if (!recipients_) {
        throw std::bad_alloc();
    }
    Set(CURLOPT_MAIL_RCPT, recipients_.get());
    Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(message_.size()));
    Set(CURLOPT_FORBID_REUSE, 1L); // see OnReply
}

MailOutcome MailSender::Send()
{
    MailOutcome outcome = OutcomeOf(curl_easy_perform(easy_.get()));
    Forget();
    return outcome;
}

void MailSender::Forget()
{
    explicit_bzero(message_.data(), message_.size());
    message_.clear();
    read_ = 0;
    refusedAddress_ = false;
    stage_ = Stage::Login;
    left_ = false;
    reply_ = 0;
    replyEnded_ = true;
    replyText_.clear();
    error_[0] = 0;
}

template<class Value>
void MailSender::Set(CURLoption option, Value value)
{
    if (curl_easy_setopt(easy_.get(), option, value) != CURLE_OK) {
        throw std::bad_alloc(); // what all of these options can fail for
    }
}

void MailSender::SetServer(const MailServer& server)
{
    const bool sixth = server.host.find(':') != std::string::npos;
    const std::string host = sixth ? '[' + server.host + ']' : server.host;
    const std::string port = std::to_string(server.port);
    const std::string greeting = '/' + OwnHostName(); // what EHLO says
    CURLU* url = url_.get();
    if (!IsHostName(server.host) ||
        curl_url_set(url, CURLUPART_SCHEME, server.security == MailSecurity::Tls ? "smtps" : "smtp", 0) !=
            CURLUE_OK ||
        curl_url_set(url, CURLUPART_HOST, host.c_str(), 0) != CURLUE_OK ||
        curl_url_set(url, CURLUPART_PORT, port.c_str(), 0) != CURLUE_OK ||
        curl_url_set(url, CURLUPART_PATH, greeting.c_str(), 0) != CURLUE_OK) {
        throw std::invalid_argument("this is no mail server");
    }
    Set(CURLOPT_CURLU, url);
    Set(CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    Set(CURLOPT_USE_SSL,
        static_cast<long>(server.security == MailSecurity::None ? CURLUSESSL_NONE : CURLUSESSL_ALL));
    Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    Set(CURLOPT_SSL_VERIFYPEER, 1L);
    Set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (!server.caFile.empty()) {
        Set(CURLOPT_CAINFO, server.caFile.c_str()); // besides the system's
    }
    if (!server.user.empty()) {
        Set(CURLOPT_USERNAME, server.user.c_str());
        Set(CURLOPT_PASSWORD, server.password.c_str());
        Set(CURLOPT_LOGIN_OPTIONS, "AUTH=PLAIN;AUTH=LOGIN"); // no others: some ask further servers
    }
    Set(CURLOPT_PROXY, ""); // none, whatever the environment says
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_QUICK_EXIT, 1L); // a name server that is slow is not waited for
    Set(CURLOPT_CONNECTTIMEOUT_MS, kConnectMilliseconds);
    Set(CURLOPT_TIMEOUT_MS, kWholeMilliseconds);
    Set(CURLOPT_OPENSOCKETFUNCTION, OpenSocket);
    Set(CURLOPT_OPENSOCKETDATA, this);
    Set(CURLOPT_CLOSESOCKETFUNCTION, CloseSocket);
    Set(CURLOPT_CLOSESOCKETDATA, this);
    Set(CURLOPT_MAIL_FROM, from_.c_str());
}

void MailSender::SetUpload()
{
    Set(CURLOPT_UPLOAD, 1L);
    Set(CURLOPT_UPLOAD_BUFFERSIZE, kBuffer); // each mail has its own, and it is overwritten
    Set(CURLOPT_BUFFERSIZE, kBuffer);
    Set(CURLOPT_READFUNCTION, ReadMessage);
    Set(CURLOPT_READDATA, this);
    Set(CURLOPT_ERRORBUFFER, error_);
    Set(CURLOPT_DEBUGFUNCTION, Listen);
    Set(CURLOPT_DEBUGDATA, this);
    Set(CURLOPT_VERBOSE, 1L); // to the debug function; nothing is printed
}

// The address that is about to be connected to: a name looked up before could have been another one's.
curl_socket_t MailSender::OpenSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address)
{
    auto* sender = static_cast<MailSender*>(self);
    if (!sender->privateAddresses_ && !IsPublicAddress(address->addr)) {
        sender->refusedAddress_ = true;
        return CURL_SOCKET_BAD;
    }
    const curl_socket_t made = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (made != CURL_SOCKET_BAD) {
        sender->sockets_.insert(made);
    }
    return made;
}

int MailSender::CloseSocket(void* self, curl_socket_t socket)
{
    static_cast<MailSender*>(self)->sockets_.erase(socket);
    return close(socket);
}

// libcurl would wait for the reply to a goodbye, without any limit of time.
void MailSender::StopListening()
{
    for (const curl_socket_t socket : sockets_) {
        shutdown(socket, SHUT_RD);
    }
}

size_t MailSender::ReadMessage(char* buffer, size_t size, size_t count, void* self)
{
    auto* sender = static_cast<MailSender*>(self);
    const size_t taken = std::min(size * count, sender->message_.size() - sender->read_);
    std::copy_n(sender->message_.data() + sender->read_, taken, buffer);
    sender->read_ += taken;
    return taken;
}

int MailSender::Listen(CURL* /*easy*/, curl_infotype type, char* data, size_t size, void* self)
{
    auto* sender = static_cast<MailSender*>(self);
    if (type == CURLINFO_HEADER_OUT) {
        sender->OnCommand({data, size});
    } else if (type == CURLINFO_HEADER_IN) {
        sender->OnReply({data, size});
    }
    return 0;
}

// Commands of the login hold the password; nothing is kept of any command.
void MailSender::OnCommand(std::string_view text)
{
    if (text == "QUIT\r\n") {
        left_ = true;
        StopListening();
        return;
    }
    left_ = false; // it was an older connection's goodbye
    if (text.starts_with("MAIL ")) {
        stage_ = Stage::Sender;
    } else if (text.starts_with("RCPT ")) {
        stage_ = Stage::Recipient;
    } else if (text == "DATA\r\n") {
        stage_ = Stage::Message;
    }
    reply_ = 0;
}

void MailSender::OnReply(std::string_view line)
{
    if (left_) {
        return;
    }
    if (replyEnded_) {
        replyText_.clear();
    }
    reply_ = ReplyCode(line);
    replyEnded_ = line.size() < 4 || line[3] != '-';
    if (replyText_.size() < kLongestText && line.size() > 4) {
        replyText_.append(line.substr(4, kLongestText)).append(" ");
    }
    // Only now: libcurl would use a connection again on which a late reply to this mail is still to come, and
    // take that for the reply to the next one.
    if (IsSent()) {
        Set(CURLOPT_FORBID_REUSE, 0L);
    }
}

bool MailSender::IsSent() const
{
    return stage_ == Stage::Message && reply_ / 100 == 2 && replyEnded_;
}

// The server's own answer to the message counts, whatever happened to the connection afterwards.
MailOutcome MailSender::OutcomeOf(CURLcode result) const
{
    if (IsSent()) {
        return {Delivery::Sent, reply_, Clean(replyText_)};
    }
    if (reply_ >= 400) {
        const bool refused = reply_ >= 500 && stage_ >= Stage::Recipient && !IsAboutLogin(reply_);
        return {refused ? Delivery::Refused : Delivery::Later, reply_, Clean(replyText_)};
    }
    if (refusedAddress_ && result == CURLE_COULDNT_CONNECT) {
        return {Delivery::Later, 0,
                "the server stands on a private address, which the setting mail_private_servers may allow"};
    }
    const bool explained = error_[0] != 0;
    return {Delivery::Later, 0, Clean(explained ? error_ : curl_easy_strerror(result))};
}

MailOutcome SendMail(const MailServer& server, const Mail& mail)
{
    MailSender sender(server);
    sender.Load(mail);
    return sender.Send();
}

bool IsPublicAddress(const sockaddr& address)
{
    switch (address.sa_family) {
    case AF_INET: {
        sockaddr_in fourth{};
        std::memcpy(&fourth, &address, sizeof fourth);
        return IsPublic(ntohl(fourth.sin_addr.s_addr));
    }
    case AF_INET6: {
        sockaddr_in6 sixth{};
        std::memcpy(&sixth, &address, sizeof sixth);
        return IsPublic(sixth.sin6_addr);
    }
    default:
        return false;
    }
}

} // namespace tavr::webapi
