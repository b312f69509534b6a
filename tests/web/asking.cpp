#include "tests/web/asking.h"

#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/policy_file.h"
#include "linux/vault.h"
#include "otp/OTPEnforceHandler.h"
#include "tests/support/fresh_server.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <sstream>

namespace tavr::web
{

namespace
{

constexpr char kSampleKey[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr int64_t kStep = 30;

std::string CookiesOf(const Somebody& somebody)
{
    return (somebody.sid.empty() ? "" : "sid=" + somebody.sid + "; ") +
           (somebody.pending.empty() ? "" : "pending=" + somebody.pending);
}

} // namespace

Somebody AddSomebody(const std::string& name)
{
    Somebody somebody;
    somebody.account = test::MakeAccount(name);
    char setting[CRYPT_GENSALT_OUTPUT_SIZE] = {};
    crypt_data data{};
    crypt_gensalt_rn("$y$", 1, nullptr, 0, setting, sizeof setting);
    const std::string hash = crypt_rn(kRightPassword, setting, &data, sizeof data);
    AccountsDatabase()
        .Prepare("UPDATE account SET password = ?1 WHERE uid = ?2")
        .Bind(1, hash)
        .Bind(2, somebody.account.uid)
        .Run();
    return somebody;
}

Somebody AddEnrolled(const std::string& name)
{
    Somebody somebody = AddSomebody(name);
    somebody.key = Enrol(somebody.account);
    return somebody;
}

void Demand(const Account& account)
{
    StartRequest();
    Json::Value rows;
    rows[0]["id"] = std::to_string(account.uid);
    rows[0]["is_enforced"] = true;
    PolicyWriting policy;
    EXPECT_TRUE(policy.Usable() && OTPEnforceCustomSettingSet("local_user", rows) == 0 &&
                policy.Commit(nullptr));
}

void Keep(const Somebody& somebody, const std::string& path)
{
    test::WriteFile(path, somebody.key + '\n' + somebody.sid + '\n' + somebody.pending + '\n' +
                              somebody.token + '\n' + somebody.code + '\n');
}

Somebody Recall(const std::string& path)
{
    std::istringstream lines(test::ReadFile(path));
    Somebody somebody;
    for (std::string* const text :
         {&somebody.key, &somebody.sid, &somebody.pending, &somebody.token, &somebody.code}) {
        std::getline(lines, *text);
    }
    return somebody;
}

std::string Enrol(const Account& account, int64_t usedStep)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    const int64_t now = WallSeconds() / kStep;
    {
        Transaction transaction(SigninDatabase());
        for (const StoredSecret& stored : SecretsOf(account.uid)) {
            if (stored.reference == references.secret) {
                AcceptStep(transaction, stored, now + usedStep);
            }
        }
        transaction.Commit();
    }
    test::WriteFile(SecretPath(account.name), RenderSecretFile(references));
    EXPECT_EQ(Enrolment::Yes, Settle(account).enrolment);
    return SecretText(account.uid, references.secret);
}

std::string CodeNow(const Somebody& somebody)
{
    if (!somebody.code.empty()) {
        return somebody.code;
    }
    return somebody.key.empty() ? "123456" : test::CodeOf(somebody.key, WallSeconds() / kStep);
}

std::string Open(const Account& account, bool withCode)
{
    StartRequest();
    if (withCode) {
        CurrentRequest().codeOf = account.uid;
    } else {
        CurrentRequest().facts = Request::Facts{account.uid, false, false};
    }
    EXPECT_EQ(Grant::Opened, OpenSession(account));
    return CurrentRequest().newSid;
}

HttpRequest RequestOf(const char* method, const char* path, const Somebody& somebody)
{
    HttpRequest http;
    http.method = method;
    http.path = path;
    http.query = "type=local_user";
    http.contentType = "application/json";
    http.cookies = CookiesOf(somebody);
    http.token = somebody.token;
    http.host = "nas.example";
    http.clientAddress = "192.0.2.1";
    return http;
}

std::string FullBody(const Somebody& somebody)
{
    Json::Value body;
    body["user"] = somebody.account.name;
    body["password"] = kRightPassword;
    body["code"] = CodeNow(somebody);
    body["account_name"] = "a label";
    body["key"] = kSampleKey;
    body["mail"] = "somebody@home.example";
    body["option"] = "custom";
    body["type"] = "local_user";
    body["settings"] = Json::Value(Json::arrayValue);
    return body.toStyledString();
}

Answer Ask(HttpRequest http, const std::string& body)
{
    http.bodySize = body.size();
    StartRequest();
    CurrentRequest().sidCookie = ReadCookie(http, "sid");
    CurrentRequest().pendingCookie = ReadCookie(http, "pending");
    CurrentRequest().clientAddress = http.clientAddress;
    return Serve(http, body);
}

std::string Said(const Answer& answer)
{
    const std::string err = answer.body.isMember("err") ? " " + answer.body["err"].asString() : "";
    return std::to_string(answer.status) + err;
}

void TakeCookies(Somebody& somebody, const Answer& answer)
{
    for (const auto& [name, value] : answer.headers) {
        const bool isSid = value.starts_with("sid=");
        if (std::string_view(name) == "Set-Cookie" && (isSid || value.starts_with("pending="))) {
            const std::string identifier = value.substr(value.find('=') + 1, kIdentifierSize);
            (isSid ? somebody.sid : somebody.pending) = identifier.starts_with(';') ? "" : identifier;
        }
    }
    if (answer.body.isMember("TavrToken")) {
        somebody.token = answer.body["TavrToken"].asString();
    }
}

Answer SignInAs(Somebody& somebody)
{
    Answer answer = Ask(RequestOf("POST", "/api/signin", somebody), FullBody(somebody));
    TakeCookies(somebody, answer);
    return answer;
}

std::string HeaderOf(const Answer& answer, std::string_view name)
{
    const auto found = std::find_if(answer.headers.begin(), answer.headers.end(),
                                    [&](const auto& header) { return header.first == name; });
    return found == answer.headers.end() ? "" : found->second;
}

} // namespace tavr::web
