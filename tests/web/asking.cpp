#include "tests/web/asking.h"

#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/vault.h"
#include "tests/support/fresh_server.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavr::web
{

namespace
{

constexpr int64_t kStep = 30;

std::string CookiesOf(const Somebody& somebody)
{
    return (somebody.sid.empty() ? "" : "sid=" + somebody.sid + "; ") +
           (somebody.pending.empty() ? "" : "pending=" + somebody.pending);
}

} // namespace

std::string Enrol(const Account& account)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    const int64_t now = WallSeconds() / kStep;
    {
        Transaction transaction(SigninDatabase());
        EXPECT_TRUE(AcceptStep(transaction, SecretsOf(account.uid).front(), now - 2, now + 1));
        transaction.Commit();
    }
    test::WriteFile(SecretPath(account.name), RenderSecretFile(references));
    EXPECT_EQ(Enrolment::Yes, Settle(account).enrolment);
    return SecretText(account.uid, references.secret);
}

std::string CodeNow(const Somebody& somebody)
{
    return somebody.key.empty() ? "123456" : test::CodeOf(somebody.key, WallSeconds() / kStep);
}

HttpRequest RequestOf(const char* method, const char* path, const Somebody& somebody)
{
    HttpRequest http;
    http.method = method;
    http.path = path;
    http.contentType = "application/json";
    http.cookies = CookiesOf(somebody);
    http.token = somebody.token;
    http.host = "nas.example";
    http.clientAddress = "192.0.2.1";
    return http;
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

std::string HeaderOf(const Answer& answer, std::string_view name)
{
    const auto found = std::find_if(answer.headers.begin(), answer.headers.end(),
                                    [&](const auto& header) { return header.first == name; });
    return found == answer.headers.end() ? "" : found->second;
}

} // namespace tavr::web
