// What the console's commands share: how they end, what they read and what they print.
#pragma once

#include "linux/accounts.h"

#include <json/json.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tavr::console
{

// Exit statuses; they stand in tavrctl(8).
enum class Exit {
    Done = 0,
    Failed = 1,
    Usage = 2,
    NotFound = 3,
    NotAllowed = 4,
    Exists = 5,
};

// Ends the command. `key` is for programs (with --json), the text for people; neither holds anything secret.
class Failure : public std::runtime_error
{
public:
    Failure(Exit exitStatus, const char* errorKey, const std::string& text)
        : std::runtime_error(text), status(exitStatus), key(errorKey)
    {
    }
    const Exit status;
    const char* const key;
};

// --- Printing ---

// Set once, before any command runs: whether answers are JSON.
void UseJson(bool json);
bool IsJson();

void Say(const std::string& line);  // for people; nothing with --json
void Answer(Json::Value answer);    // with --json; nothing without. Adds "success": true
std::string TimeText(int64_t time); // 2026-11-21T06:00:00Z
void EndWith(Exit status);          // exit status of a command that has told everything already
int Finish();                       // that, or 1 when standard output took not everything
int Finish(const Failure& failure); // tells it, on standard error or as JSON; gives the exit status

// An answer of many entries, printed as they come: {"NAME":[...],"success":true}.
class JsonList
{
public:
    explicit JsonList(const char* name);
    ~JsonList() = default;
    JsonList(const JsonList&) = delete;
    JsonList& operator=(const JsonList&) = delete;
    void Add(const Json::Value& entry);
    void End();

private:
    bool first_ = true;
};

// --- Reading ---

// Set once, before any command runs: whether questions count as answered with yes.
void AssumeYes(bool yes);

// Asks before what cannot be undone, if somebody sits at a terminal. Throws Failure unless the answer is yes.
void Confirm(const std::string& question);

// Standard input up to its end, less one line feed at the end; wiped at the end of the scope. A terminal does
// not show what is typed.
class Password
{
public:
    Password(); // throws Failure when it cannot be read or is none that can be set
    ~Password();
    Password(const Password&) = delete;
    Password& operator=(const Password&) = delete;
    [[nodiscard]] std::string_view Text() const { return {text_.data(), size_}; }

private:
    std::array<char, 1024> text_{};
    size_t size_ = 0;
};

// --- The service ---

// Has tavr-webapid do something: a call of the web API (doc/webapi.md), version 1, with the arguments in
// `params`. Gives its whole answer; throws Failure when there is none.
Json::Value AskService(const char* api, const char* method, Json::Value params,
                       const std::string& runner = "");

// Ends the command with what a refusal says about a mail that could not be sent.
[[noreturn]] void FailUnsent(const Json::Value& refusal);

// --- Names ---

// Ends a command that would change who there is, when that is the system's to say.
void RequireEmbeddedAccounts();

std::string LocalName(const std::string& typed);   // canonical; throws Failure
Account ExistingAccount(const std::string& typed); // local
Account KnownAccount(const std::string& typed);    // or of a directory, once it has been seen here
Group ExistingGroup(const std::string& typed);

} // namespace tavr::console
