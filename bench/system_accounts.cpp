// With accounts="system" and 10,000 people in /etc/passwd: what do looking one up and signing in cost beside
// what cannot be avoided: a look at the four files and one at an index while nothing has changed, all of the
// files read once they have, and PAM in a process of its own for a password?
#include "bench/measure.h"
#include "bench/service.h"
#include "linux/accounts.h"
#include "linux/database.h"
#include "linux/pam.h"
#include "linux/request.h"

#include <crypt.h>
#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <shadow.h>
#include <sqlite3.h>

#include <array>
#include <cstring>
#include <memory>

namespace
{

constexpr int kPeople = 10'000;
constexpr char kName[] = "user05000";
constexpr char kPassword[] = "a password";
constexpr const char* kFiles[] = {tavr::kPasswdFile, tavr::kGroupFile, tavr::kShadowFile,
                                  tavr::kLoginDefsFile};

void WritePeople()
{
    const std::string hash = crypt(kPassword, "$y$j9T$abcdefghijklmnop"); // at the cost of chpasswd's
    std::ofstream passwd(tavr::kPasswdFile, std::ios::app);
    std::ofstream shadow(tavr::kShadowFile, std::ios::app);
    std::ofstream group(tavr::kGroupFile, std::ios::app);
    for (int i = 0; i < kPeople; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "user%05d", i);
        const std::string number = std::to_string(10'000 + i);
        passwd << name << ":x:" << number << ':' << number << ":Person number " << i << ",,,:/home/" << name
               << ":/bin/bash\n";
        shadow << name << ':' << hash << ":19000:0:99999:7:::\n";
        group << name << ":x:" << number << ":\n";
    }
    bench::Demand(passwd.flush() && shadow.flush() && group.flush(), "the system's files");
}

void LookAtFiles()
{
    for (const char* path : kFiles) {
        struct stat entry {
        };
        bench::Demand(stat(path, &entry) == 0, path);
    }
}

// --- Nothing has changed ---

struct Close {
    void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
};

void LookUp()
{
    sqlite3* db = nullptr;
    bench::Demand(sqlite3_open_v2(tavr::kSystemAccountsDatabase, &db, SQLITE_OPEN_READWRITE, nullptr) ==
                      SQLITE_OK,
                  "the store");
    const std::unique_ptr<sqlite3, Close> owner(db);
    sqlite3_stmt* find = nullptr;
    bench::Demand(sqlite3_prepare_v2(db, "SELECT uid, description, mail FROM account WHERE name = ?", -1,
                                     &find, nullptr) == SQLITE_OK,
                  "the statement");
    const bench::Figures figures = bench::InTurn(
        20'001,
        [&] {
            LookAtFiles();
            sqlite3_bind_text(find, 1, kName, -1, SQLITE_STATIC);
            bench::Demand(sqlite3_step(find) == SQLITE_ROW, "the row");
            sqlite3_reset(find);
        },
        [] {
            tavr::StartRequest();
            bench::Demand(tavr::FindAccount(kName).has_value(), "the account");
        });
    sqlite3_finalize(find);
    bench::Row("an account, nothing changed", figures, 0);
}

// --- Somebody has changed a file ---

// As `usermod` leaves one.
void Touch(const char* path)
{
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    bench::Demand(chmod(path, 0640) == 0 && chmod(path, 0644) == 0, path);
}

template<class Entry>
int Count(const char* path, int (*read)(FILE*, Entry*, char*, size_t, Entry**))
{
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "r"), std::fclose);
    bench::Demand(file != nullptr, path);
    std::array<char, 8192> room{};
    Entry entry{};
    Entry* found = nullptr;
    int count = 0;
    while (read(file.get(), &entry, room.data(), room.size(), &found) == 0 && found != nullptr) {
        ++count;
    }
    return count;
}

void ReadAnew()
{
    bench::Row("an account, /etc/passwd changed",
               bench::InTurn(
                   31,
                   [] {
                       Touch(tavr::kPasswdFile);
                       const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
                       bench::Demand(Count(tavr::kPasswdFile, fgetpwent_r) > kPeople &&
                                         Count(tavr::kGroupFile, fgetgrent_r) > kPeople &&
                                         Count(tavr::kShadowFile, fgetspent_r) > kPeople,
                                     "the system's files");
                   },
                   [] {
                       Touch(tavr::kPasswdFile);
                       tavr::StartRequest();
                       bench::Demand(tavr::FindAccount(kName).has_value(), "the account");
                   }),
               0);
}

// --- Passwords ---

int Answer(int count, const pam_message** /*messages*/, pam_response** responses, void* /*data*/)
{
    *responses = static_cast<pam_response*>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
    (*responses)->resp = strdup(kPassword);
    return PAM_SUCCESS;
}

bool AskPam()
{
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    const pam_conv way{Answer, nullptr};
    pam_handle_t* pam = nullptr;
    return pam_start(tavr::kPamService, kName, &way, &pam) == PAM_SUCCESS &&
           pam_authenticate(pam, PAM_SILENT) == PAM_SUCCESS &&
           pam_acct_mgmt(pam, PAM_SILENT) == PAM_SUCCESS && pam_end(pam, PAM_SUCCESS) == PAM_SUCCESS;
}

void Password()
{
    bench::Row("a right password",
               bench::InTurn(
                   31, [] { bench::InChild("PAM", AskPam); },
                   [] {
                       tavr::StartRequest();
                       bench::Demand(tavr::CheckPassword(kName, kPassword).has_value(), "the password");
                   }),
               0);
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::MakeSettings();
    std::ofstream(tavr::kSettingsFile) << "accounts=\"system\"\n";
    WritePeople();
    bench::BecomeWorker();
    const auto first = [] {
        tavr::StartRequest();
        bench::Demand(tavr::FindAccount(kName).has_value(), "the account");
    };
    std::printf("10,000 accounts seen for the first time: %.0f ms\n", bench::Microseconds(first) / 1000);
    sleep(2); // files of the last second are read at every request
    bench::Head();
    LookUp();
    ReadAnew();
    Password();
    return 0;
}
