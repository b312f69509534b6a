// Sending one mail to one recipient through one server, by libcurl: what is asked of the connection, and what
// the server's answers mean.
#pragma once

#include "linux/mail_settings.h"
#include "webapi/message.h"

#include <curl/curl.h>
#include <sys/socket.h>

#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace tavr::webapi
{

enum class Delivery {
    Sent,
    Refused, // this recipient or this message, for good
    Later,   // whatever another try may overcome, such as a server that is away or a wrong password
};

struct MailOutcome {
    Delivery delivery = Delivery::Later;
    int reply = 0;    // the server's last reply code; 0: it is not its reply that decided
    std::string text; // for people: one line of printable ASCII. What the server said, or what went wrong
};

// Once a process, before anything else of libcurl: what libcurl frees (passwords and codes among it) is
// overwritten. Also makes writing to a connection that is gone an error instead of a signal. False: libcurl
// does not start.
bool StartMailTransfers();

// Mails to one server, one after the other, over a connection that stays open as long as the server takes
// them. For one thread at a time.
class MailSender
{
public:
    // Takes what it needs of the server. Throws std::invalid_argument where it is none, std::bad_alloc.
    explicit MailSender(const MailServer& server);
    ~MailSender(); // says goodbye, and does not wait for a reply
    MailSender(const MailSender&) = delete;
    MailSender& operator=(const MailSender&) = delete;

    // Makes the mail the next one to be sent; nothing is kept of another one before it. Throws
    // std::invalid_argument for a mail that has a problem (MailProblem), std::bad_alloc.
    void Load(const Mail& mail);

    // One try with the loaded mail, ten seconds at most. What it was is forgotten.
    MailOutcome Send();

private:
    // How far the dialogue has come, by the command that was sent last.
    enum class Stage { Login, Sender, Recipient, Message };

    struct Cleanup {
        void operator()(CURL* easy) const noexcept { curl_easy_cleanup(easy); }
        void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
        void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
    };

    void SetServer(const MailServer& server);
    void SetUpload();
    template<class Value>
    void Set(CURLoption option, Value value);
    void OnCommand(std::string_view text);
    void OnReply(std::string_view line);
    [[nodiscard]] bool IsSent() const; // the server has taken the mail
    [[nodiscard]] MailOutcome OutcomeOf(CURLcode result) const;
    void Forget();
    void StopListening();

    static curl_socket_t OpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static int CloseSocket(void* self, curl_socket_t socket);
    static size_t ReadMessage(char* buffer, size_t size, size_t count, void* self);
    static int Listen(CURL* easy, curl_infotype type, char* data, size_t size, void* self);

    std::string from_;
    bool privateAddresses_ = false;
    std::set<curl_socket_t> sockets_; // libcurl's

    // Of the mail at hand.
    std::string message_;
    size_t read_ = 0;             // of the message
    bool refusedAddress_ = false; // one that was not public
    Stage stage_ = Stage::Login;
    bool left_ = false;      // QUIT was sent
    int reply_ = 0;          // to that command; 0: none yet
    bool replyEnded_ = true; // its last line has come
    std::string replyText_;
    char error_[CURL_ERROR_SIZE] = {};

    std::unique_ptr<CURLU, Cleanup> url_;
    std::unique_ptr<curl_slist, Cleanup> recipients_;
    std::unique_ptr<CURL, Cleanup> easy_; // let go of first: it uses all of the above
};

// Sends and waits for it, about ten seconds at most.
MailOutcome SendMail(const MailServer& server, const Mail& mail);

// Whether an address is one of the Internet at large: not loopback, private, of one link, a group, or an IPv6
// form of an IPv4 address that is.
bool IsPublicAddress(const sockaddr& address);

} // namespace tavr::webapi
