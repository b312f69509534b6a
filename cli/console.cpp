#include "cli/console.h"

#include "linux/names.h"
#include "linux/paths.h"
#include "linux/system_accounts.h"
#include "platform/json.h"
#include "platform/webapi.h"

#include <sodium.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace tavr::console
{

namespace
{

bool jsonAnswers = false;
bool assumeYes = false;
Exit ended = Exit::Done;

void Print(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

// Standard input without echo, when it is a terminal.
class QuietInput
{
public:
    QuietInput()
    {
        quiet_ = isatty(STDIN_FILENO) != 0 && tcgetattr(STDIN_FILENO, &before_) == 0;
        if (quiet_) {
            termios changed = before_;
            changed.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &changed);
            std::fputs("Password, then Ctrl-D on a line of its own: ", stderr);
        }
    }
    ~QuietInput()
    {
        if (quiet_) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
            std::fputc('\n', stderr);
        }
    }
    QuietInput(const QuietInput&) = delete;
    QuietInput& operator=(const QuietInput&) = delete;

private:
    termios before_{};
    bool quiet_ = false;
};

} // namespace

// --- Printing ---

void UseJson(bool json)
{
    jsonAnswers = json;
}

bool IsJson()
{
    return jsonAnswers;
}

void Say(const std::string& line)
{
    if (!jsonAnswers) {
        Print(line + '\n');
    }
}

void Answer(Json::Value answer)
{
    if (jsonAnswers) {
        answer["success"] = true;
        Print(JsonToString(answer) + '\n');
    }
}

void EndWith(Exit status)
{
    ended = status;
}

int Finish()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fputs("tavrctl: cannot write to standard output\n", stderr);
        return static_cast<int>(Exit::Failed);
    }
    return static_cast<int>(ended);
}

int Finish(const Failure& failure)
{
    if (jsonAnswers) {
        Json::Value answer;
        answer["success"] = false;
        answer["err"] = failure.key;
        answer["message"] = failure.what();
        Print(JsonToString(answer) + '\n');
        Finish();
    } else {
        std::fprintf(stderr, "tavrctl: %s\n", failure.what());
    }
    return static_cast<int>(failure.status);
}

std::string TimeText(int64_t time)
{
    const auto seconds = static_cast<time_t>(time);
    tm parts{};
    char text[64] = {};
    if (gmtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return std::to_string(time);
    }
    return text;
}

JsonList::JsonList(const char* name)
{
    Print("{\"" + std::string(name) + "\":[");
}

void JsonList::Add(const Json::Value& entry)
{
    Print((first_ ? "\n" : ",\n") + JsonToString(entry));
    first_ = false;
}

void JsonList::End()
{
    Print("\n],\"success\":true}\n");
}

// --- Reading ---

void AssumeYes(bool yes)
{
    assumeYes = yes;
}

void Confirm(const std::string& question)
{
    if (assumeYes || isatty(STDIN_FILENO) == 0) {
        return;
    }
    std::fprintf(stderr, "%s [y/N] ", question.c_str());
    char answer[16] = {};
    if (std::fgets(answer, sizeof answer, stdin) == nullptr ||
        (std::string_view(answer) != "y\n" && std::string_view(answer) != "yes\n")) {
        throw Failure(Exit::Failed, "not_confirmed", "nothing was changed");
    }
}

Password::Password()
{
    const QuietInput quiet;
    ssize_t got = 0;
    do {
        got = read(STDIN_FILENO, text_.data() + size_, text_.size() - size_);
        size_ += got > 0 ? static_cast<size_t>(got) : 0;
    } while ((got > 0 && size_ < text_.size()) || (got < 0 && errno == EINTR));
    if (got < 0) {
        sodium_memzero(text_.data(), text_.size());
        throw Failure(Exit::Failed, "bad_password", "cannot read the password from standard input");
    }
    if (size_ > 0 && text_[size_ - 1] == '\n') {
        --size_;
    }
    if (const char* problem = PasswordProblem(Text())) {
        sodium_memzero(text_.data(), text_.size());
        throw Failure(Exit::Usage, "bad_password", std::string("the password is refused: ") + problem);
    }
}

Password::~Password()
{
    sodium_memzero(text_.data(), text_.size());
}

// --- The service ---

Json::Value AskService(const char* api, const char* method, Json::Value params, const std::string& runner)
{
    params["api"] = api;
    params["method"] = method;
    params["version"] = 1;
    Json::Value request;
    request["params"] = std::move(params);
    request["runner"]["username"] = runner;
    tavrdaemon::DomainSockConnection connection(kWebApiSocket);
    if (!connection.Connect()) {
        throw Failure(Exit::Failed, "no_service",
                      "tavr-webapid does not run: nobody listens on " + std::string(kWebApiSocket));
    }
    std::string text;
    Json::Value answer;
    if (!connection.Send(JsonToString(request)) || !connection.Recv(text) ||
        !Json::Reader().parse(text, answer) || !answer.isObject()) {
        throw Failure(Exit::Failed, "no_answer", "tavr-webapid gave no answer");
    }
    return answer;
}

void FailUnsent(const Json::Value& refusal)
{
    const Json::Value& error = refusal["error"];
    const std::string text = error["text"].asString();
    if (text.empty()) {
        throw Failure(Exit::Failed, "not_sent", "tavr-webapid refused: error " + error["code"].asString());
    }
    const std::string reply = error["reply"].asInt() == 0 ? "" : error["reply"].asString() + ' ';
    throw Failure(Exit::Failed, "not_sent", "the mail was not sent: " + reply + text);
}

// --- Names ---

void RequireEmbeddedAccounts()
{
    if (AreSystemAccounts()) {
        throw Failure(Exit::NotAllowed, "system_accounts",
                      "accounts come from the system here (accounts=\"system\" in " +
                          std::string(kSettingsFile) +
                          "): use useradd, usermod, passwd, userdel and their like");
    }
}

std::string LocalName(const std::string& typed)
{
    const auto name = CanonicalName(typed);
    if (!name) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account or a group");
    }
    if (LocalNameProblem(*name) != nullptr) {
        throw Failure(Exit::Usage, "bad_name",
                      *name + " is the name of a directory's account, not of a local one");
    }
    return *name;
}

Account ExistingAccount(const std::string& typed)
{
    const std::string name = LocalName(typed);
    auto account = FindAccount(name);
    if (!account) {
        throw Failure(Exit::NotFound, "no_such_user", "there is no user " + name);
    }
    return std::move(*account);
}

Account KnownAccount(const std::string& typed)
{
    const auto name = CanonicalName(typed);
    if (!name || !IsDirectoryName(*name)) {
        return ExistingAccount(typed);
    }
    auto account = FindAccount(*name);
    if (!account) {
        throw Failure(Exit::NotFound, "no_such_user", "no user " + *name + " has been seen here yet");
    }
    return std::move(*account);
}

Group ExistingGroup(const std::string& typed)
{
    const std::string name = LocalName(typed);
    auto group = FindGroup(name);
    if (!group) {
        throw Failure(Exit::NotFound, "no_such_group", "there is no group " + name);
    }
    return std::move(*group);
}

} // namespace tavr::console
