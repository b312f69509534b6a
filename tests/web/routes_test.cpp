// Every route for every caller, and every way in which a change must not be asked for. One row for each
// route: without it this file does not compile.
#include "web/route_table.h"

#include "linux/enrolment.h"
#include "linux/places.h"
#include "tests/support/fresh_server.h"
#include "tests/web/asking.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>

namespace tavr::web
{

namespace
{

// --- What is expected
// -------------------------------------------------------------------------------------------

enum State : size_t {
    Nobody,
    PasswordOnly,      // enrolled: half sign-in, the code is missing
    EnrolmentDemanded, // not enrolled: half sign-in
    SignedIn,          // not enrolled
    SignedInWithCode,
    BeforeEnrolment, // half sign-in for a demanded enrolment, and the account has been enrolled since
    Administrator,   // not enrolled
    AdministratorWithCode,
    Expired, // this and the following: signed in with a code, and a half sign-in beside it
    SignedOut,
    Removed,
    Disabled,
    kStates
};

constexpr const char* kStateNames[] = {
    "nobody",           "password only", "enrolment demanded",        "signed in", "signed in with a code",
    "before enrolment", "administrator", "administrator with a code", "expired",   "signed out",
    "removed",          "disabled"};
static_assert(std::size(kStateNames) == kStates);

constexpr const char* kOk = "200";
constexpr const char* kWho = "401 not_signed_in";
constexpr const char* kWrong = "401 bad_credentials";
constexpr const char* kNoCode = "401 otp_auth_failed"; // no code is right where nothing is enrolled
constexpr const char* kNoMail = "200 no_mail_address"; // the library's own answer
constexpr const char* kNoHalf = "403 no_pending_signin";
constexpr const char* kNoSetup = "409 no_setup";
constexpr const char* kNotAdm = "403 not_admin";
constexpr const char* kEnrol = "409 enrol_first";

struct Row {
    const char* method;
    const char* path;
    bool token;
    const char* expected[kStates]; // of a request that is right in every other way
};

// clang-format off
constexpr Row kRows[] = {
    //                                        nobody    pw only   demanded  signed in with code before    admin     adm code  expired   out       removed   disabled
    {"POST", "/api/signin",            false, {kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kWrong,   kWrong}},
    {"POST", "/api/signin/code",       true,  {kNoHalf,  kOk,      kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf}},
    {"POST", "/api/signin/emergency",  true,  {kNoHalf,  kNoMail,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf,  kNoHalf}},
    {"POST", "/api/signout",           true,  {kWho,     kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"GET",  "/api/session",           false, {kWho,     kWho,     kWho,     kOk,      kOk,      kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/otp/qr",            true,  {kWho,     kWho,     kOk,      kOk,      kOk,      kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/otp/renew",         true,  {kWho,     kWho,     kWho,     kNoCode,  kOk,      kWho,     kNoCode,  kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/otp/label",         true,  {kWho,     kWho,     kOk,      kOk,      kOk,      kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/otp/confirm",       true,  {kWho,     kWho,     kNoSetup, kNoSetup, kNoSetup, kWho,     kNoSetup, kNoSetup, kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/otp/mail",          true,  {kWho,     kWho,     kOk,      kOk,      kOk,      kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/otp/disable",       true,  {kWho,     kWho,     kWho,     kNoCode,  kOk,      kWho,     kNoCode,  kOk,      kWho,     kWho,     kWho,     kWho}},
    {"GET",  "/api/otp/status",        false, {kWho,     kWho,     kOk,      kOk,      kOk,      kOk,      kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"GET",  "/api/enforce/option",    false, {kWho,     kWho,     kWho,     kNotAdm,  kNotAdm,  kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/enforce/option",    true,  {kWho,     kWho,     kWho,     kNotAdm,  kNotAdm,  kWho,     kEnrol,   kOk,      kWho,     kWho,     kWho,     kWho}},
    {"GET",  "/api/enforce/list",      false, {kWho,     kWho,     kWho,     kNotAdm,  kNotAdm,  kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/enforce/set",       true,  {kWho,     kWho,     kWho,     kNotAdm,  kNotAdm,  kWho,     kEnrol,   kOk,      kWho,     kWho,     kWho,     kWho}},
    {"POST", "/api/admin/otp_reset",   true,  {kWho,     kWho,     kWho,     kNotAdm,  kNotAdm,  kWho,     kOk,      kOk,      kWho,     kWho,     kWho,     kWho}},
};
// clang-format on

constexpr bool HasItsRow(const Route& route)
{
    for (const Row& row : kRows) {
        if (std::string_view(row.method) == route.method && std::string_view(row.path) == route.path) {
            return true;
        }
    }
    return false;
}

constexpr bool EveryRouteHasItsRow()
{
    for (const Route& route : kRoutes) {
        if (!HasItsRow(route)) {
            return false;
        }
    }
    return std::size(kRoutes) == std::size(kRows);
}

constexpr bool EveryStateHasItsCell()
{
    for (const Row& row : kRows) {
        for (const char* const cell : row.expected) {
            if (cell == nullptr) {
                return false;
            }
        }
    }
    return true;
}

static_assert(EveryRouteHasItsRow(), "every route needs a row in kRows, and every row a route");
static_assert(EveryStateHasItsCell(), "every row needs a cell for each state");

// --- Somebody who asks
// -------------------------------------------------------------------------------------------

void OpenBoth(Somebody& somebody)
{
    somebody.key = Enrol(somebody.account);
    somebody.sid = Open(somebody.account, true);
    somebody.pending = OpenPending(somebody.account, SessionState::CodeRequired);
}

void Enter(Somebody& somebody, State state)
{
    const Account& account = somebody.account;
    switch (state) {
    case PasswordOnly:
        somebody.key = Enrol(account);
        somebody.pending = OpenPending(account, SessionState::CodeRequired);
        break;
    case EnrolmentDemanded:
        Demand(account);
        EXPECT_EQ("enrolment_required", SignInAs(somebody).body["state"]);
        EXPECT_TRUE(somebody.sid.empty());
        break;
    case SignedIn:
    case Administrator:
        somebody.sid = Open(account, false);
        break;
    case SignedInWithCode:
    case AdministratorWithCode:
        somebody.key = Enrol(account);
        somebody.sid = Open(account, true);
        break;
    case BeforeEnrolment:
        somebody.key = Enrol(account);
        somebody.pending = OpenPending(account, SessionState::EnrolmentRequired);
        break;
    case Expired:
        OpenBoth(somebody);
        test::AdvanceBootClock(60 * 60);
        break;
    case SignedOut:
        OpenBoth(somebody);
        EndSession(*FindSession(somebody.sid));
        EndSession(*FindSession(somebody.pending));
        break;
    case Removed:
        OpenBoth(somebody);
        EXPECT_TRUE(RemoveAccount(account.uid).removed);
        break;
    case Disabled:
        OpenBoth(somebody);
        EXPECT_TRUE(SetDisabled(account.uid, true));
        break;
    case Nobody:
    case kStates:
        break;
    }
}

Somebody SomebodyWhoIs(State state)
{
    static int number = 0;
    test::AdvanceBootClock(0);
    Somebody somebody;
    somebody.account = *AddAccount(
        {"u" + std::to_string(++number), "", "", state == Administrator || state == AdministratorWithCode},
        kRightPassword);
    EXPECT_TRUE(MakePreferenceDirectory(somebody.account));
    Enter(somebody, state);
    const std::string& identifier = somebody.sid.empty() ? somebody.pending : somebody.sid;
    somebody.token = identifier.empty() ? "" : TokenOf(identifier);
    return somebody;
}

class Routes : public test::FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        WriteSettings("otp_enforce_option=\"custom\"\n");
        ASSERT_TRUE(MakePlaces(2)); // as the parent of the workers does
    }
};

// --- Every route, every state
// -----------------------------------------------------------------------------------

TEST_F(Routes, ServeEveryStateAsTheTableSays)
{
    AsWorker([] {
        int cells = 0;
        for (const Row& row : kRows) {
            for (size_t state = 0; state < kStates; ++state, ++cells) {
                const Somebody somebody = SomebodyWhoIs(static_cast<State>(state));
                const Answer answer = Ask(RequestOf(row.method, row.path, somebody), FullBody(somebody));
                EXPECT_EQ(row.expected[state], Said(answer)) << row.path << ", " << kStateNames[state];
                EXPECT_EQ(Said(answer) == kOk, answer.body["success"].asBool())
                    << row.path << ", " << kStateNames[state];
            }
        }
        std::printf("%d cells\n", cells);
    });
}

TEST_F(Routes, RefuseWhoBringsNothingWhateverIsWrongWithTheDatabases)
{
    std::filesystem::create_directory("/var/lib/tavr/signin.db");
    AsWorker([] {
        const Somebody nobody;
        Somebody stranger;
        stranger.sid = std::string(kIdentifierSize, 'a');
        EXPECT_EQ(kWho, Said(Ask(RequestOf("GET", "/api/session", nobody), "")));
        EXPECT_EQ(kWho, Said(Ask(RequestOf("GET", "/api/enforce/option", nobody), "")));
        EXPECT_EQ("503 otp_unavailable", Said(Ask(RequestOf("GET", "/api/session", stranger), "")));
        EXPECT_EQ("503 otp_unavailable", Said(Ask(RequestOf("POST", "/api/signin", nobody),
                                                  R"({"user": "alice", "password": "x"})")));
    });
}

TEST_F(Routes, GiveAnEndedSessionNothingWhicheverCookieItComesIn)
{
    AsWorker([] {
        for (const Row& row : kRows) {
            for (const State state : {Expired, SignedOut, Removed, Disabled}) {
                Somebody somebody = SomebodyWhoIs(state);
                std::swap(somebody.sid, somebody.pending);
                somebody.token = TokenOf(somebody.sid);
                const Answer answer = Ask(RequestOf(row.method, row.path, somebody), FullBody(somebody));
                EXPECT_EQ(row.expected[state], Said(answer)) << row.path << ", " << kStateNames[state];
            }
        }
    });
}

TEST_F(Routes, FindNobodyByACookieThatComesTwiceOrIsTooLong)
{
    AsWorker([] {
        const Somebody planted = SomebodyWhoIs(SignedInWithCode);
        for (const Row& row : kRows) {
            for (const State state : {PasswordOnly, EnrolmentDemanded, SignedInWithCode}) {
                const Somebody somebody = SomebodyWhoIs(state);
                const std::string name = somebody.sid.empty() ? "pending" : "sid";
                const std::string own = name + '=' + somebody.sid + somebody.pending;
                for (const std::string& cookies : {own + "; " + own, own + "; " + name + '=' + planted.sid,
                                                   name + '=' + planted.sid + ";" + own,
                                                   own + "; " + name + "=", own + std::string(8192, 'a')}) {
                    HttpRequest http = RequestOf(row.method, row.path, somebody);
                    http.cookies = cookies;
                    EXPECT_EQ(row.expected[Nobody], Said(Ask(http, FullBody(somebody))))
                        << row.path << ' ' << cookies.substr(0, 200);
                }
            }
        }
    });
}

TEST_F(Routes, FindASessionBesideEightKibibytesOfOtherCookies)
{
    AsWorker([] {
        for (const Row& row : kRows) {
            const Somebody somebody = SomebodyWhoIs(SignedInWithCode);
            HttpRequest http = RequestOf(row.method, row.path, somebody);
            http.cookies =
                "a=" + std::string(8192, 'b') + "; " + http.cookies + "; c=" + std::string(8192, 'd');
            EXPECT_EQ(row.expected[SignedInWithCode], Said(Ask(http, FullBody(somebody)))) << row.path;
        }
    });
}

// --- Every change, every wrong way to ask for it
// ----------------------------------------------------------------

// Somebody whom the route serves.
Somebody SomebodyFor(const Row& row)
{
    const std::string_view expected = row.expected[SignedInWithCode];
    return SomebodyWhoIs(expected == kNoHalf   ? PasswordOnly
                         : expected == kNotAdm ? AdministratorWithCode
                                               : SignedInWithCode);
}

int64_t Sessions()
{
    Statement count = SigninDatabase().Prepare("SELECT count(*) FROM session");
    return count.Step() ? count.Int(0) : -1;
}

// For each route that changes something: `ask` gets a request that would be served, but for its body, which
// is no object. What gets past everything else is answered with 400; nothing may have changed.
void ForEachChange(const std::function<void(const Row&, const Somebody&, HttpRequest)>& ask)
{
    for (const Row& row : kRows) {
        if (std::string_view(row.method) == "GET") {
            continue;
        }
        const Somebody somebody = SomebodyFor(row);
        const int64_t sessions = Sessions();
        const HttpRequest http = RequestOf(row.method, row.path, somebody);
        EXPECT_EQ("400 bad_request", Said(Ask(http, "[]"))) << row.path;
        ask(row, somebody, http);
        EXPECT_EQ(sessions, Sessions()) << row.path;
        EXPECT_TRUE(FindSession(somebody.sid.empty() ? somebody.pending : somebody.sid)) << row.path;
        EXPECT_EQ(Enrolment::Yes, Settle(somebody.account).enrolment) << row.path;
    }
}

TEST_F(Routes, ChangeNothingWithoutTheSessionsOwnToken)
{
    AsWorker([] {
        ForEachChange([](const Row& row, const Somebody& somebody, HttpRequest http) {
            const Somebody other = SomebodyWhoIs(SignedInWithCode);
            const std::string own = somebody.token;
            const std::string expected = row.token ? "403 bad_token" : "400 bad_request";
            for (const std::string& token :
                 {std::string(), std::string("x"), other.token, own + "0", own.substr(1),
                  std::string(own.size(), '0'), somebody.sid + somebody.pending, std::string(8192, 'a'),
                  own + '\0'}) {
                http.token = token;
                EXPECT_EQ(expected, Said(Ask(http, "[]"))) << row.path << ' ' << token.substr(0, 80);
            }
            EndSession(*FindSession(other.sid));
        });
    });
}

TEST_F(Routes, ChangeNothingForAnotherSite)
{
    struct Sender {
        const char* fetchSite;
        const char* origin;
        bool allowed;
    };
    static constexpr Sender kSenders[] = {
        {"", "", true}, // programs mark nothing
        {"same-origin", "", true},
        {"none", "", true},
        {"same-origin", "https://nas.example", true},
        {"", "https://nas.example", true},
        {"", "http://nas.example", true},
        {"cross-site", "", false},
        {"same-site", "", false},
        {"cross-site", "https://nas.example", false},
        {"same-site", "https://nas.example", false},
        {"anything", "", false},
        {"Same-Origin", "", false},
        {"", "null", false},
        {"", "nas.example", false},
        {"", "https://nas.example.evil.example", false},
        {"", "https://evil.example", false},
        {"", "https://evilnas.example", false},
        {"", "https://nas.example:8443", false},
        {"", "https://nas.example@evil.example", false},
        {"", "https://nas.example/", false},
        {"", "ftp://nas.example", false},
    };
    AsWorker([] {
        ForEachChange([](const Row& row, const Somebody&, HttpRequest http) {
            for (const Sender& sender : kSenders) {
                http.fetchSite = sender.fetchSite;
                http.origin = sender.origin;
                EXPECT_EQ(sender.allowed ? "400 bad_request" : "403 bad_origin", Said(Ask(http, "[]")))
                    << row.path << " from " << sender.fetchSite << ' ' << sender.origin;
            }
            http.secure = true;
            http.fetchSite.clear();
            http.origin = "http://nas.example"; // not what was asked over TLS
            EXPECT_EQ("403 bad_origin", Said(Ask(http, "[]"))) << row.path;
        });
    });
}

TEST_F(Routes, ChangeNothingByWhatIsNoJson)
{
    AsWorker([] {
        ForEachChange([](const Row& row, const Somebody&, HttpRequest http) {
            for (const char* type :
                 {"", "text/plain", "application/x-www-form-urlencoded", "multipart/form-data", "text/json",
                  "application/jsonx", "application", "application/json/x", "text/plain; application/json",
                  "application/json, text/plain"}) {
                http.contentType = type;
                EXPECT_EQ("415 bad_content_type", Said(Ask(http, "[]"))) << row.path << ' ' << type;
            }
            for (const char* type : {"application/json; charset=utf-8", "APPLICATION/JSON"}) {
                http.contentType = type;
                EXPECT_EQ("400 bad_request", Said(Ask(http, "[]"))) << row.path << ' ' << type;
            }
        });
    });
}

TEST_F(Routes, ChangeNothingByABodyThatIsNoObjectOrTooLarge)
{
    AsWorker([] {
        ForEachChange([](const Row& row, const Somebody&, const HttpRequest& http) {
            for (const char* body : {"", "null", "1", "\"x\"", "{", "{}{}", "{\"a\":}", "\xff"}) {
                EXPECT_EQ("400 bad_request", Said(Ask(http, body))) << row.path << ' ' << body;
            }
            EXPECT_EQ("413 too_large", Said(Ask(http, std::string(64 * 1024 + 1, ' ')))) << row.path;
        });
    });
}

// "GET, POST": those of the rows with this path, in their order.
std::string MethodsOf(std::string_view path)
{
    std::string methods;
    for (const Row& row : kRows) {
        if (row.path == path) {
            methods += (methods.empty() ? "" : ", ") + std::string(row.method);
        }
    }
    return methods;
}

TEST_F(Routes, AnswerTheirOwnMethodAlone)
{
    AsWorker([] {
        for (const Row& row : kRows) {
            const Somebody somebody = SomebodyFor(row);
            const int64_t sessions = Sessions();
            const std::string own = MethodsOf(row.path);
            for (const char* method : {"GET", "POST", "PUT", "DELETE", "PATCH", "HEAD", "OPTIONS", "TRACE",
                                       "CONNECT", "post", "get", "POSTS", ""}) {
                if (*method != '\0' &&
                    (", " + own + ", ").find(std::string(", ") + method + ", ") != std::string::npos) {
                    continue;
                }
                HttpRequest http = RequestOf(row.method, row.path, somebody);
                http.method = method;
                const Answer answer = Ask(http, FullBody(somebody));
                EXPECT_EQ("405 method_not_allowed", Said(answer)) << method << ' ' << row.path;
                EXPECT_EQ(own, HeaderOf(answer, "Allow")) << method << ' ' << row.path;
            }
            EXPECT_EQ(sessions, Sessions()) << row.path;
        }
    });
}

} // namespace

} // namespace tavr::web
