#include "web/server.h"

#include "web/databases.h"
#include "web/route.h"

#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/notices.h"
#include "linux/request.h"

#include <fastcgi.h>
#include <fcgiapp.h>
#include <json/writer.h>
#include <malloc.h>
#include <poll.h>
#include <sodium.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstring>
#include <memory>
#include <sstream>

namespace tavr::web
{

namespace
{

constexpr int64_t kClearingSeconds = 5 * 60;

volatile sig_atomic_t stopping = 0;

struct Ids {
    uid_t uid[3];
    gid_t gid[3];
    bool operator==(const Ids&) const = default;
};

Ids ReadIds()
{
    Ids ids{};
    getresuid(&ids.uid[0], &ids.uid[1], &ids.uid[2]);
    getresgid(&ids.gid[0], &ids.gid[1], &ids.gid[2]);
    return ids;
}

// --- Reading a request
// ---------------------------------------------------------------------------------------

std::string Parameter(const FCGX_Request& fcgi, const char* name)
{
    const char* value = FCGX_GetParam(name, fcgi.envp);
    return value == nullptr ? std::string() : std::string(value);
}

std::optional<size_t> Number(const std::string& text)
{
    size_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

HttpRequest ReadRequest(const FCGX_Request& fcgi)
{
    HttpRequest request;
    request.method = Parameter(fcgi, "REQUEST_METHOD");
    request.path = Parameter(fcgi, "REQUEST_URI");
    if (fcgi.role ==
        FCGI_AUTHORIZER) { // a web server asks before it serves something else: whose session is it?
        request.method = "GET";
        request.path = "/api/session";
    }
    if (const size_t mark = request.path.find('?'); mark != std::string::npos) {
        request.query = request.path.substr(mark + 1);
        request.path.resize(mark);
    }
    request.contentType = Parameter(fcgi, "CONTENT_TYPE");
    request.cookies = Parameter(fcgi, "HTTP_COOKIE");
    request.token = Parameter(fcgi, "HTTP_X_TAVR_TOKEN");
    request.fetchSite = Parameter(fcgi, "HTTP_SEC_FETCH_SITE");
    request.origin = Parameter(fcgi, "HTTP_ORIGIN");
    request.host = Parameter(fcgi, "HTTP_HOST");
    request.clientAddress = Parameter(fcgi, "REMOTE_ADDR");
    request.bodySize = fcgi.role == FCGI_AUTHORIZER ? 0 : Number(Parameter(fcgi, "CONTENT_LENGTH"));
    request.secure = Parameter(fcgi, "HTTPS") == "on";
    return request;
}

// Takes what the stream holds now, at most `most` bytes, and leaves no copy in it. Empty at the end.
std::string TakePart(FCGX_Stream& in, size_t most)
{
    if (in.rdNext == in.stop) {
        const int next = FCGX_GetChar(&in); // fills the buffer
        if (next < 0) {
            return {};
        }
        FCGX_UnGetChar(next, &in);
    }
    const size_t size = std::min(static_cast<size_t>(in.stop - in.rdNext), most);
    std::string part(reinterpret_cast<const char*>(in.rdNext), size);
    sodium_memzero(in.rdNext, size);
    in.rdNext += size;
    return part;
}

// The body, or what came of it. One that is too large for any route is read all the same, and dropped: a web
// server that cannot get rid of it does not look at the answer.
std::string ReadBody(FCGX_Stream& in, const HttpRequest& request)
{
    const size_t size = request.bodySize.value_or(0);
    std::string body;
    body.reserve(std::min(size, kLargestBody)); // never moved, so that no copy is left behind
    for (size_t left = size; left > 0;) {
        std::string part = TakePart(in, left);
        if (part.empty()) {
            break;
        }
        left -= part.size();
        if (body.size() + part.size() <= kLargestBody) {
            body += part;
        }
        sodium_memzero(part.data(), part.size());
    }
    return body;
}

// --- Writing the answer
// --------------------------------------------------------------------------------------

constexpr char kFixedHeaders[] = "Content-Type: application/json\r\n"
                                 "Cache-Control: no-store\r\n"
                                 "X-Content-Type-Options: nosniff\r\n"
                                 "Referrer-Policy: no-referrer\r\n"
                                 "X-Frame-Options: DENY\r\n"
                                 "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'\r\n";

// Writer and stream are kept: making them costs more than using them. The text is moved out of the stream, so
// that it holds nothing afterwards.
std::string ToText(const Json::Value& body)
{
    static const std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder settings;
        settings["indentation"] = "";
        settings["emitUTF8"] = true;
        return std::unique_ptr<Json::StreamWriter>(settings.newStreamWriter());
    }();
    static std::ostringstream stream;
    writer->write(body, &stream);
    stream << '\n';
    return std::move(stream).str();
}

void WriteAnswer(FCGX_Stream& out, const Answer& answer)
{
    std::string text = ToText(answer.body);
    std::string head = "Status: " + std::to_string(answer.status) + "\r\n" + kFixedHeaders;
    for (const auto& [name, value] : answer.headers) {
        head += std::string(name) + ": " + value + "\r\n";
    }
    head += "Content-Length: " + std::to_string(text.size()) + "\r\n\r\n";
    FCGX_PutStr(head.data(), static_cast<int>(head.size()), &out);
    FCGX_PutStr(text.data(), static_cast<int>(text.size()), &out);
    sodium_memzero(head.data(), head.size());
    sodium_memzero(text.data(), text.size());
}

// --- One request
// ---------------------------------------------------------------------------------------------

Answer AnswerTo(const HttpRequest& http, const std::string& body)
{
    StartRequest();
    Request& request = CurrentRequest();
    request.sidCookie = ReadCookie(http, "sid");
    request.pendingCookie = ReadCookie(http, "pending");
    request.clientAddress = http.clientAddress;
    request.secure = http.secure;
    return Serve(http, body);
}

// Exceptions end here: an entry point, and the next request has nothing to do with this one.
Answer AnswerSafely(const HttpRequest& http, const std::string& body)
{
    try {
        return AnswerTo(http, body);
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "%s %s: %s", http.method.c_str(), http.path.c_str(), error.what());
    } catch (...) {
        syslog(LOG_ERR, "%s %s: unknown exception", http.method.c_str(), http.path.c_str());
    }
    return Refusal(500, "internal");
}

void ServeOne(FCGX_Request& fcgi, const Ids& ids)
{
    HttpRequest http = ReadRequest(fcgi);
    std::string body = ReadBody(*fcgi.in, http);
    Answer answer = AnswerSafely(http, body);
    if (!(ReadIds() == ids)) {
        syslog(LOG_AUTH | LOG_CRIT, "%s %s left other ids behind; this worker ends", http.method.c_str(),
               http.path.c_str());
        Audit(AuditEvent::PrivilegeFailed, std::string_view(), "ids");
        _exit(70);
    }
    WriteAnswer(*fcgi.out, answer);
    Wipe(answer.body);
    sodium_memzero(body.data(), body.size());
    sodium_memzero(http.cookies.data(), http.cookies.size());
    sodium_memzero(http.token.data(), http.token.size());
}

// --- The loop
// ------------------------------------------------------------------------------------------------

sigset_t MaskWithoutTerm()
{
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    sigdelset(&mask, SIGTERM);
    return mask;
}

// While connections wait already, ppoll() lets no signal in.
bool IsAskedToEnd()
{
    sigset_t pending;
    return stopping != 0 || (sigpending(&pending) == 0 && sigismember(&pending, SIGTERM) == 1);
}

bool SomebodyWaits(int listener)
{
    pollfd waiting{listener, POLLIN, 0};
    return poll(&waiting, 1, 0) > 0;
}

// Once, at the first moment in which nobody waits. A worker without its databases serves all the same: each
// request that needs them tries again, and says what is wrong.
void OpenWhenIdle(int listener)
{
    static bool tried = false;
    if (tried || SomebodyWaits(listener)) {
        return;
    }
    tried = true;
    try {
        OpenDatabases();
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "at the worker's start: %s", error.what());
    }
}

// Waits for a connection with SIGTERM let in. A changed id clears the parent-death signal, so it is set anew
// each time; a parent that died before that is noticed by its number.
bool WaitForConnection(int listener, pid_t parent)
{
    OpenWhenIdle(listener);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        return false;
    }
    static const sigset_t mask = MaskWithoutTerm();
    pollfd waiting{listener, POLLIN, 0};
    const timespec longest{kClearingSeconds, 0};
    ppoll(&waiting, 1, &longest, &mask);
    return !IsAskedToEnd();
}

// Secrets that waited too long for their confirmation and old rows of the audit go, whoever comes or not.
void ClearNowAndThen()
{
    static int64_t last = BootSeconds();
    if (BootSeconds() - last < kClearingSeconds) {
        return;
    }
    last = BootSeconds();
    try {
        StartRequest();
        OpenDatabases(); // of the system's accounts too: who is gone is seen gone, though nobody comes
        ClearWaiting(Clear::TooOld);
        ClearAudit();
        QueueNotices();
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "cannot clear old state: %s", error.what());
    }
}

// What malloc has of the system. What a large answer took is mostly given back by itself; what is not, as
// small pieces in between are still in use, would stay for the life of the worker.
bool HoldsMoreThan(size_t bytes)
{
    const struct mallinfo2 memory = mallinfo2();
    const size_t held = memory.arena + memory.hblkhd;
    if (held > bytes) {
        syslog(LOG_NOTICE, "a worker holds %zu KiB after a request, and is replaced", held / 1024);
    }
    return held > bytes;
}

} // namespace

int ServeRequests(const Serving& serving)
{
    struct sigaction onTerm = {};
    onTerm.sa_handler = [](int) { stopping = 1; };
    sigaction(SIGTERM, &onTerm, nullptr);

    const pid_t parent = getppid();
    const Ids ids = ReadIds();
    StartRequest();

    FCGX_Init();
    FCGX_Request fcgi;
    FCGX_InitRequest(&fcgi, serving.listener, FCGI_FAIL_ACCEPT_ON_INTR);
    while (WaitForConnection(serving.listener, parent)) {
        const int accepted = FCGX_Accept_r(&fcgi);
        if (accepted == 0) {
            ServeOne(fcgi, ids);
            FCGX_Finish_r(&fcgi); // the answer is out: nobody waits for what follows
            QueueNotices();
            StartRequest(); // nothing of this one stays until the next one comes
            if (HoldsMoreThan(serving.mostMemory)) {
                break;
            }
        } else if (accepted != -EAGAIN) { // EAGAIN: nobody came, or another worker was faster
            syslog(LOG_ERR, "cannot accept a connection: %s", std::strerror(-accepted));
            poll(nullptr, 0, 100);
        }
        ClearNowAndThen();
    }
    FCGX_Free(&fcgi, 1);
    return 0;
}

} // namespace tavr::web
