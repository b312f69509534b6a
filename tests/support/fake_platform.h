// A platform that answers as the test says and writes down what the library asked of it. It also stands in
// for the parts of libc that a test cannot have for real: the system log, ids, the password database, memory
// that runs out, files that cannot be opened. It gets at those by the linker (--wrap), so link
// tavr_fake_platform.
//
// One at a time. At its end everything that was handed out must have come back, once.
#pragma once

#include "platform/cgi.h"
#include "platform/users.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct LogLine {
    int priority = 0;
    std::string file;
    int line = 0;
    std::string text; // what follows file and line
};

class FakePlatform
{
public:
    FakePlatform();
    ~FakePlatform();
    FakePlatform(const FakePlatform&) = delete;
    FakePlatform& operator=(const FakePlatform&) = delete;

    // --- the script ---

    // Makes the n-th of the calls named `call` (the first is 1, 0 is all) give `result`; a call that gives a
    // pointer gives null. The names are those of the functions; "fopen r" and "fopen w" are two.
    void Answer(const std::string& call, int result, int nth = 0) { script_[call][nth] = result; }
    void Fail(const std::string& call, int nth = 0) { Answer(call, -1, nth); }

    void Forget(const std::string& call)
    {
        script_.erase(call);
        count_.erase(call);
    }

    // Runs in the middle of the calls named `call`, before they answer. "NAME end" is where the lists have
    // called back with all their rows; what is answered there they give instead of the number of entries.
    void During(const std::string& call, std::function<void()> action) { during_[call] = std::move(action); }

    // --- what the system holds ---

    struct User {
        uint32_t uid = 1026;
        uint32_t gid = 100;
        int kind = 1;
        std::optional<std::string> description;
        std::optional<std::string> mail;
    };
    std::map<std::string, User> users;
    std::map<std::string, uint32_t> groups;

    std::map<std::string, std::string> canonicalNames; // others are as they were typed
    std::map<std::string, std::string> loginNames;
    std::string secretPath;                      // of every account
    std::string preferenceDir;                   // of every account
    std::map<std::string, std::string> files;    // files that stand somewhere else for the test, by path
    std::map<std::string, std::string> outputs;  // of programs, by path
    std::map<std::string, std::string> ciphered; // stored text -> plain text
    std::optional<std::string> hardwareId;
    bool safeMode = false;

    int loginStatus = 1;
    std::string sid;
    std::optional<std::string> token; // set: requests carry tokens

    struct Ldap {
        int split = 1;
        std::string bare;
        int matches = 1;
        std::string dn;
        int found = 1;
        std::optional<std::string> mail;
    } ldap;

    std::map<std::string, std::string> options;   // of TavrConf
    std::map<std::string, std::string> keyValues; // of KLIBCFileGetKeyValue
    std::vector<uint32_t> gidsOfUser;
    bool trustedDomains = false;
    std::vector<KLIBUserInfo> userList;
    std::vector<KLIBGroupInfo> groupList;
    std::vector<std::vector<std::pair<std::string, std::optional<std::string>>>> domainList;
    std::string mailSubject;
    std::optional<std::string> mailContent;
    std::string mailServer;
    std::deque<std::string> webApiAnswers;
    std::vector<std::map<std::string, std::string>> databaseRows;
    bool resultOfFailedQuery = false; // a query that fails hands a result out all the same

    struct ErrorRecord {
        int code = 0;
        std::string file = "fake.cpp";
        int line = 1;
    } error;

    // The process, as it believes to be.
    uint32_t euid = 64217;
    uint32_t egid = 64217;
    std::optional<uint32_t> rootUid = 0; // of the account "root"; empty: there is none
    uint32_t rootGid = 0;
    int errnoOfFailure = 1; // of id changes that fail
    long passwdBufferSize = 1024;

    // --- what was asked ---

    std::vector<std::string> calls; // Name(argument, "text", ...), in order; the log, the ids' reads left out
    std::vector<LogLine> log;
    std::vector<std::string> logAndCalls; // both, in order; a log line as "log: text"
    std::vector<TavrCgi*> contexts;       // of TavrCgiInit

    // The log as "priority file text", and with lines as "priority file:line text".
    [[nodiscard]] std::vector<std::string> LogTexts() const;
    [[nodiscard]] std::vector<std::string> LogLines() const;

    // The calls of one name.
    [[nodiscard]] std::vector<std::string> CallsOf(const std::string& name) const;

    // --- for the functions that stand in ---

    static FakePlatform* Current();
    void Record(const std::string& name, const std::string& arguments);
    std::optional<int> Scripted(const std::string& name); // counts the call
    [[nodiscard]] std::string PlaceOf(const std::string& path) const;
    void Opened(const void* thing, const std::string& kind);
    void Closed(const void* thing, const std::string& kind);
    void Logged(int priority, const std::string& line);

private:
    std::map<std::string, std::map<int, int>> script_;
    std::map<std::string, std::function<void()>> during_;
    std::map<std::string, int> count_;
    std::map<const void*, std::string> open_;
};
