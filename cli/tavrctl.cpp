// The console. Started by root it goes on as a worker does, with the service's real and effective ids and
// root as the saved one, so that databases and files belong to the service whatever a command does.
#include "cli/commands.h"
#include "cli/console.h"
#include "linux/audit.h"
#include "linux/database.h"
#include "linux/machine_key.h"
#include "linux/notices.h"
#include "linux/paths.h"
#include "linux/request.h"

#include <CLI/CLI.hpp>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

using tavr::console::Exit;
using tavr::console::Failure;

namespace
{

void TakeServiceIds()
{
    passwd entry{};
    passwd* service = nullptr;
    std::array<char, 4096> texts{};
    if (getpwnam_r(tavr::kServiceUser, &entry, texts.data(), texts.size(), &service) != 0 ||
        service == nullptr) {
        throw Failure(Exit::Failed, "no_service_user",
                      std::string("this system has no user ") + tavr::kServiceUser);
    }
    const uid_t uid = service->pw_uid;
    const gid_t gid = service->pw_gid;
    if (getuid() == uid && geteuid() == uid) {
        return;
    }
    if (geteuid() != 0) {
        tavr::Audit(tavr::AuditEvent::PrivilegeFailed, std::string_view(), "not-root");
        throw Failure(Exit::NotAllowed, "not_root",
                      std::string("must be run by root or by ") + tavr::kServiceUser);
    }
    // Groups while root, group before user.
    if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, 0) != 0 || setresuid(uid, uid, 0) != 0) {
        throw Failure(Exit::Failed, "ids", std::string("cannot take the ids of ") + tavr::kServiceUser);
    }
}

// Of commands that change what others may do, or tell what they did. The service's own user has no root
// behind its ids.
void RequireRoot()
{
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    if (getresuid(&real, &effective, &saved) != 0 || saved != 0) {
        tavr::Audit(tavr::AuditEvent::PrivilegeFailed, std::string_view(), "not-root");
        throw Failure(Exit::NotAllowed, "not_root", "must be run by root");
    }
}

// What one command line says, filled in by the parser. The command runs after the whole line was read.
struct Words {
    std::function<void()> command;
    std::string name;
    std::string second;
    std::string mail;
    std::string description;
    std::string handle;
    int minutes = 10;
    int64_t number = 0;
    tavr::console::ServerTexts server;
    tavr::console::NewMailAccountTexts mailAccount;
    tavr::console::AuditChoice audit;
    tavr::console::EnforceChoice picks;
    tavr::console::EnforceList listed;
    bool rootOnly = false;
    bool yes = false;
    bool isAdmin = false;
    bool passwordStdin = false;
};

CLI::Option* AddName(CLI::App* command, Words& words, const char* what = "name of the user")
{
    return command->add_option("NAME", words.name, what)->required();
}

void AddYes(CLI::App* command, Words& words)
{
    command->add_flag("--yes", words.yes, "do not ask");
}

void AddPassword(CLI::App* command, Words& words)
{
    command->add_flag("--password-stdin", words.passwordStdin, "read the password from standard input")
        ->required();
}

// An option that was not given leaves a text as it is; an empty one clears it.
void AddTexts(CLI::App* command, Words& words)
{
    command->add_option("--mail", words.mail, "recovery mail address")->type_name("ADDRESS")->expected(1);
    command->add_option("--desc", words.description, "description")->type_name("TEXT")->expected(1);
}

tavr::console::UserTexts TextsOf(const CLI::App* command, const Words& words)
{
    tavr::console::UserTexts texts;
    if (command->count("--mail") > 0) {
        texts.mail = words.mail;
    }
    if (command->count("--desc") > 0) {
        texts.description = words.description;
    }
    return texts;
}

void DefineUserCommands(CLI::App& program, Words& words)
{
    CLI::App* user = program.add_subcommand("user", "local users")->require_subcommand(1)->fallthrough();

    CLI::App* add = user->add_subcommand("add", "add a user")->fallthrough();
    AddName(add, words);
    AddTexts(add, words);
    AddPassword(add, words);
    add->add_flag("--admin", words.isAdmin, "make the user an administrator");
    add->callback([add, &words] {
        words.command = [add, &words] {
            tavr::console::AddUser(words.name, TextsOf(add, words), words.isAdmin);
        };
    });

    CLI::App* set = user->add_subcommand("set", "change a user's texts; an empty one clears")->fallthrough();
    AddName(set, words);
    AddTexts(set, words);
    set->callback([set, &words] {
        words.command = [set, &words] { tavr::console::SetUser(words.name, TextsOf(set, words)); };
    });

    CLI::App* passwd =
        user->add_subcommand("passwd", "change a user's password, end the sessions")->fallthrough();
    AddName(passwd, words);
    AddPassword(passwd, words);
    passwd->callback([&words] { words.command = [&words] { tavr::console::SetUserPassword(words.name); }; });

    user->add_subcommand("list", "list the users")->fallthrough()->callback([&words] {
        words.command = tavr::console::ListUsers;
    });

    CLI::App* remove =
        user->add_subcommand("remove", "remove a user and its preference directory")->fallthrough();
    AddName(remove, words);
    AddYes(remove, words);
    remove->callback([&words] { words.command = [&words] { tavr::console::RemoveUser(words.name); }; });

    CLI::App* disable =
        user->add_subcommand("disable", "let a user not sign in, end the sessions")->fallthrough();
    AddName(disable, words);
    disable->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::DisableUser(words.name); };
    });

    CLI::App* enable = user->add_subcommand("enable", "let a disabled user sign in again")->fallthrough();
    AddName(enable, words);
    enable->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::EnableUser(words.name); };
    });
}

void DefineGroupCommands(CLI::App& program, Words& words)
{
    CLI::App* group = program.add_subcommand("group", "local groups")->require_subcommand(1)->fallthrough();

    CLI::App* add = group->add_subcommand("add", "add a group")->fallthrough();
    AddName(add, words, "name of the group");
    add->add_option("--desc", words.description, "description")->type_name("TEXT")->expected(1);
    add->callback([&words] {
        words.command = [&words] { tavr::console::AddGroupCommand(words.name, words.description); };
    });

    CLI::App* remove = group->add_subcommand("remove", "remove a group")->fallthrough();
    AddName(remove, words, "name of the group");
    remove->callback(
        [&words] { words.command = [&words] { tavr::console::RemoveGroupCommand(words.name); }; });

    group->add_subcommand("list", "list the groups with their members")->fallthrough()->callback([&words] {
        words.command = tavr::console::ListGroups;
    });

    CLI::App* join = group->add_subcommand("join", "put a user into a group")->fallthrough();
    join->add_option("GROUP", words.second, "name of the group")->required();
    AddName(join, words);
    join->callback([&words] {
        words.command = [&words] { tavr::console::JoinGroupCommand(words.second, words.name); };
    });

    CLI::App* leave = group->add_subcommand("leave", "take a user out of a group")->fallthrough();
    leave->add_option("GROUP", words.second, "name of the group")->required();
    AddName(leave, words);
    leave->callback([&words] {
        words.command = [&words] { tavr::console::LeaveGroupCommand(words.second, words.name); };
    });
}

void DefineOtpCommands(CLI::App& program, Words& words)
{
    CLI::App* otp =
        program.add_subcommand("otp", "two-step sign-in of users")->require_subcommand(1)->fallthrough();
    CLI::App* status = otp->add_subcommand("status", "tell whether a user is enrolled")->fallthrough();
    AddName(status, words);
    status->callback([&words] { words.command = [&words] { tavr::console::ShowOtpStatus(words.name); }; });

    CLI::App* reset =
        otp->add_subcommand("reset", "remove a user's second step, end the sessions")->fallthrough();
    AddName(reset, words);
    AddYes(reset, words);
    reset->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::ResetOtp(words.name); };
    });

    CLI::App* open =
        otp->add_subcommand("open", "open a second step that wrong codes have closed")->fallthrough();
    AddName(open, words);
    open->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::OpenOtp(words.name); };
    });

    CLI::App* code = otp->add_subcommand("code", "make a code that is good once, for a while")->fallthrough();
    AddName(code, words);
    code->add_option("--minutes", words.minutes, "how long it is good")
        ->type_name("N")
        ->check(CLI::Range(1, tavr::console::kMostMinutes));
    code->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::MakeOtpCode(words.name, words.minutes); };
    });
}

void DefineEnforceCommands(CLI::App& program, Words& words)
{
    CLI::App* enforce = program.add_subcommand("enforce", "who must use two-step sign-in")
                            ->require_subcommand(1)
                            ->fallthrough();
    enforce->add_subcommand("show", "show the option and how many are picked")
        ->fallthrough()
        ->callback([&words] { words.command = tavr::console::ShowPolicy; });

    CLI::App* option = enforce->add_subcommand("option", "choose whom it is demanded of")->fallthrough();
    option->add_option("VALUE", words.second, "none, user (everybody), admin or custom (the picks)")
        ->required()
        ->check(CLI::IsMember({"none", "user", "admin", "custom"}));
    option->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::SetPolicyOption(words.second); };
    });

    const auto addType = [](CLI::App* command, std::string& type) {
        command->add_option("TYPE", type, "local_user, local_group, domain_user, ...")->required();
    };
    const auto change = [&](const char* name, const char* what,
                            void (*command)(const tavr::console::EnforceChoice&)) {
        CLI::App* defined = enforce->add_subcommand(name, what)->fallthrough();
        addType(defined, words.picks.type);
        defined->add_option("NAME", words.picks.names, "names of accounts or groups")->required();
        defined->callback([&words, command] {
            words.rootOnly = true;
            words.command = [&words, command] { command(words.picks); };
        });
        return defined;
    };
    change("add", "pick accounts or groups", tavr::console::AddPicks);
    change("remove", "pick them no more", tavr::console::RemovePicks)
        ->add_flag("--numbers", words.picks.numbers,
                   "the names are numbers, of whom there may be none any more");

    CLI::App* list = enforce->add_subcommand("list", "list accounts or groups, those picked")->fallthrough();
    addType(list, words.listed.type);
    list->add_option("--query", words.listed.query, "that hold this in name or description")
        ->type_name("TEXT");
    list->add_option("--filter", words.listed.filter, "enforced, unenforced or all")
        ->type_name("WHICH")
        ->check(CLI::IsMember({"enforced", "unenforced", "all"}));
    list->add_option("--domain", words.listed.domain, "of this domain")->type_name("NAME");
    list->add_option("--offset", words.listed.offset, "from this one on")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    list->add_option("--limit", words.listed.limit, "so many at most")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    list->callback([&words] { words.command = [&words] { tavr::console::ListPolicy(words.listed); }; });

    CLI::App* explain = enforce->add_subcommand("explain", "tell why a user is asked or not")->fallthrough();
    AddName(explain, words);
    explain->callback([&words] { words.command = [&words] { tavr::console::ExplainPolicy(words.name); }; });
}

void DefineDirectoryCommands(CLI::App& program, Words& words)
{
    CLI::App* directory = program.add_subcommand("directory", "the LDAP directory, the domain")
                              ->require_subcommand(1)
                              ->fallthrough();
    CLI::App* test = directory->add_subcommand("test", "try out what is set up, step by step")->fallthrough();
    test->add_option("NAME", words.name, "name of a user to look for");
    test->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::TestDirectory(words.name); };
    });
}

void DefineCertificateCommands(CLI::App& program, Words& words)
{
    CLI::App* certificate = program.add_subcommand("certificate", "the web server's certificate")
                                ->require_subcommand(1)
                                ->fallthrough();
    CLI::App* use = certificate->add_subcommand("use", "name your own, and its key")->fallthrough();
    use->add_option("CERTIFICATE", words.name, "PEM file, issuers behind it")->required();
    use->add_option("KEY", words.second, "PEM file")->required();
    use->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::UseCertificate(words.name, words.second); };
    });
    const auto add = [&](const char* name, const char* what, void (*command)()) {
        certificate->add_subcommand(name, what)->fallthrough()->callback([&words, command] {
            words.rootOnly = true;
            words.command = command;
        });
    };
    add("self-signed", "go back to a self-signed one", tavr::console::UseSelfSignedCertificate);
    add("show", "show which one is named, and until when it is good", tavr::console::ShowCertificate);
    add("install", "put it where the web server reads it", tavr::console::InstallCertificate);
}

void DefineDomainCommands(CLI::App& program, Words& words)
{
    CLI::App* domain = program.add_subcommand("domain", "the copy of the domain's accounts and groups")
                           ->require_subcommand(1)
                           ->fallthrough();
    domain->add_subcommand("sync", "refresh the copy now")->fallthrough()->callback([&words] {
        words.rootOnly = true;
        words.command = tavr::console::SyncDomain;
    });
    domain->add_subcommand("status", "show how old the copy is, and what it holds")
        ->fallthrough()
        ->callback([&words] {
            words.rootOnly = true;
            words.command = tavr::console::ShowDomain;
        });
}

void DefineSessionCommands(CLI::App& program, Words& words)
{
    CLI::App* session =
        program.add_subcommand("session", "sessions of users")->require_subcommand(1)->fallthrough();

    CLI::App* list = session->add_subcommand("list", "list the sessions of a user or of all")->fallthrough();
    list->add_option("NAME", words.name, "name of the user");
    list->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::ListSessionsCommand(words.name); };
    });

    CLI::App* end = session->add_subcommand("end", "end a user's sessions, or one")->fallthrough();
    CLI::Option* name = end->add_option("NAME", words.name, "name of the user");
    end->add_option("--id", words.handle, "the session, as listed")->type_name("ID")->excludes(name);
    end->require_option(1);
    end->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] {
            words.handle.empty() ? tavr::console::EndSessionsCommand(words.name)
                                 : tavr::console::EndSessionCommand(words.handle);
        };
    });
}

// What a mail server is reached with.
void AddServer(CLI::App* command, tavr::console::ServerTexts& texts)
{
    command->add_option("--host", texts.host, "name or address of the server")->type_name("HOST");
    command->add_option("--port", texts.port, "its port")->type_name("N")->check(CLI::Range(1, 65535));
    command->add_option("--security", texts.security, "starttls, tls or none")
        ->type_name("KIND")
        ->check(CLI::IsMember({"starttls", "tls", "none"}));
    command->add_option("--user", texts.user, "name to log in with; an empty one: without")
        ->type_name("NAME")
        ->expected(1);
    command->add_option("--from", texts.from, "address that mails come from")->type_name("ADDRESS");
}

void DefineMailServerCommand(CLI::App& mail, Words& words)
{
    CLI::App* server =
        mail.add_subcommand("server", "set up the mail server of the system's own mails")->fallthrough();
    server->require_subcommand(0, 1);
    tavr::console::ServerTexts& texts = words.server;
    AddServer(server, texts);
    server->add_option("--ca-file", texts.caFile, "certificates to trust besides the system's, PEM")
        ->type_name("FILE")
        ->expected(1);
    server->add_flag("--password-stdin", words.passwordStdin, "read the password from standard input");
    server->callback([server, &words] {
        if (!server->get_subcommands().empty()) {
            return;
        }
        words.rootOnly = true;
        words.command = [&words] { tavr::console::SetMailServer(words.server, words.passwordStdin); };
    });
    server->add_subcommand("off", "send no mails, forget the password")->fallthrough()->callback([&words] {
        words.rootOnly = true;
        words.command = tavr::console::SwitchMailServerOff;
    });
    server->add_subcommand("show", "show what is set up")->fallthrough()->callback([&words] {
        words.command = tavr::console::ShowMailServer;
    });
}

void DefineMailQueueCommand(CLI::App& mail, Words& words)
{
    CLI::App* queue =
        mail.add_subcommand("queue", "show the mails that wait, and the last ones")->fallthrough();
    queue->require_subcommand(0, 1);
    queue->callback([queue, &words] {
        if (queue->get_subcommands().empty()) {
            words.rootOnly = true;
            words.command = tavr::console::ListMailQueue;
        }
    });
    const auto add = [&](const char* name, const char* what, void (*command)(int64_t)) {
        CLI::App* one = queue->add_subcommand(name, what)->fallthrough();
        one->add_option("ID", words.number, "number of the mail, as listed")->required();
        one->callback([&words, command] {
            words.rootOnly = true;
            words.command = [&words, command] { command(words.number); };
        });
    };
    add("retry", "try a mail again now", tavr::console::RetryQueuedMail);
    add("drop", "give up a mail, wipe its text", tavr::console::DropQueuedMail);
}

void DefineMailAccountCommands(CLI::App& program, Words& words)
{
    CLI::App* accounts =
        program.add_subcommand("mail-account", "users' own mail accounts, which send their codes")
            ->require_subcommand(1)
            ->fallthrough();
    const auto define = [&](const char* name, const char* what, bool ofOne, void (*command)(Words&)) {
        CLI::App* defined = accounts->add_subcommand(name, what)->fallthrough();
        AddName(defined, words);
        if (ofOne) {
            defined->add_option("ALIAS", words.mailAccount.alias, "what the user calls the mail account")
                ->required();
        }
        defined->callback([&words, command] { words.command = [&words, command] { command(words); }; });
        return defined;
    };

    CLI::App* add = define("add", "add a mail account, if a test mail can be sent", true, [](Words& said) {
        said.mailAccount.passwordStdin = said.passwordStdin;
        tavr::console::AddMailAccountCommand(said.name, said.mailAccount);
    });
    AddServer(add, words.mailAccount.server);
    add->add_flag("--password-stdin", words.passwordStdin, "read the password from standard input");
    add->add_option("--to", words.mailAccount.to, "where the test mail goes")->type_name("ADDRESS");
    add->add_flag("--default", words.mailAccount.isDefault, "make it the one that sends");
    add->add_flag("--no-test{false}", words.mailAccount.test, "add it without a test mail");

    CLI::App* test = define("test", "send a test mail now", true, [](Words& said) {
        tavr::console::TestMailAccount(said.name, said.mailAccount.alias, said.mailAccount.to);
    });
    test->add_option("--to", words.mailAccount.to, "where it goes")->type_name("ADDRESS");
    define("default", "make a mail account the one that sends", true, [](Words& said) {
        tavr::console::SetDefaultMailAccountCommand(said.name, said.mailAccount.alias);
    });
    CLI::App* remove = define("remove", "remove a mail account with its password", true, [](Words& said) {
        tavr::console::RemoveMailAccountCommand(said.name, said.mailAccount.alias);
    });
    AddYes(remove, words);
    define("list", "list a user's mail accounts", false,
           [](Words& said) { tavr::console::ListMailAccounts(said.name); });
}

void DefineMailCommands(CLI::App& program, Words& words)
{
    CLI::App* mail =
        program.add_subcommand("mail", "mails of the system")->require_subcommand(1)->fallthrough();
    DefineMailServerCommand(*mail, words);
    CLI::App* test = mail->add_subcommand("test", "send a test mail now")->fallthrough();
    test->add_option("ADDRESS", words.mail, "where to")->required();
    test->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::TestMailServer(words.mail); };
    });
    DefineMailQueueCommand(*mail, words);
}

void DefineAuditCommand(CLI::App& program, Words& words)
{
    CLI::App* audit = program.add_subcommand("audit", "show sign-ins, refusals and changes")->fallthrough();
    audit->add_option("--account", words.audit.account, "of this name only")->type_name("NAME");
    audit->add_option("--since", words.audit.since, "from this time on")->type_name("TIME");
    audit->add_flag("--follow", words.audit.follow, "go on with new ones as they come");
    audit->callback([&words] {
        words.rootOnly = true;
        words.command = [&words] { tavr::console::ShowAudit(words.audit); };
    });
}

// The command line, last word first, as the parser takes it. It knows no empty value behind "=".
std::vector<std::string> WordsOf(int argc, char** argv)
{
    std::vector<std::string> words;
    for (int i = argc - 1; i > 0; --i) {
        const std::string_view word = argv[i];
        if (word == "--mail=" || word == "--desc=" || word == "--user=" || word == "--ca-file=") {
            words.emplace_back();
            words.emplace_back(word.substr(0, word.size() - 1));
        } else {
            words.emplace_back(word);
        }
    }
    return words;
}

int Run(int argc, char** argv)
{
    CLI::App program("Console of two-step sign-in: set-up, doctor, certificate, users, groups, second step, "
                     "policy, directory, domain, sessions, mails, audit",
                     "tavrctl");
    Words words;
    program.require_subcommand(1);
    program.set_help_flag("--help", "show this help and exit");
    program.set_version_flag("--version", std::string("tavrctl ") + TAVR_VERSION,
                             "show the version and exit");
    bool json = false;
    program.add_flag("--json", json, "answer in JSON, errors included");
    program.add_subcommand("setup", "make or mend the files and folders of the service")
        ->fallthrough()
        ->callback([&words] { words.command = tavr::console::SetUp; });
    program.add_subcommand("doctor", "tell what is right, what is not and what to do")
        ->fallthrough()
        ->callback([&words] {
            words.rootOnly = true;
            words.command = tavr::console::Examine;
        });
    DefineUserCommands(program, words);
    DefineGroupCommands(program, words);
    DefineOtpCommands(program, words);
    DefineEnforceCommands(program, words);
    DefineDirectoryCommands(program, words);
    DefineCertificateCommands(program, words);
    DefineDomainCommands(program, words);
    DefineSessionCommands(program, words);
    DefineMailCommands(program, words);
    DefineMailAccountCommands(program, words);
    DefineAuditCommand(program, words);
    // Before the line is read, so that its errors are told in JSON too.
    tavr::console::UseJson(std::find(argv, argv + argc, std::string_view("--json")) != argv + argc);
    try {
        program.parse(WordsOf(argc, argv));
    } catch (const CLI::Success& asked) { // help, version
        program.exit(asked);
        return tavr::console::Finish();
    } catch (const CLI::ParseError& error) {
        throw Failure(Exit::Usage, "usage", std::string(error.what()) + " (see tavrctl --help)");
    }
    tavr::console::AssumeYes(words.yes);
    TakeServiceIds();
    if (words.rootOnly) {
        RequireRoot();
    }
    words.command();
    return tavr::console::Finish();
}

int RunSafely(int argc, char** argv)
{
    try {
        return Run(argc, argv);
    } catch (const Failure& failure) {
        return tavr::console::Finish(failure);
    } catch (const tavr::DatabaseError& error) {
        return tavr::console::Finish(
            Failure(Exit::Failed, "database", std::string("database: ") + error.what()));
    } catch (const tavr::VaultError& error) {
        return tavr::console::Finish(Failure(Exit::Failed, "otp_unavailable", error.what()));
    }
}

} // namespace

int main(int argc, char** argv)
{
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    umask(077);
    openlog("tavrctl", LOG_PID, LOG_USER);
    tavr::StartRequest();
    tavr::CurrentRequest().clientAddress = "console";
    const int status = RunSafely(argc, argv);
    tavr::QueueNotices();
    return status;
}
