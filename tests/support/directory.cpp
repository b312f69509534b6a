#include "tests/support/directory.h"

#include <ldap.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>

namespace
{

constexpr char kPython[] = "/usr/bin/python3";

std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

struct Unbind {
    void operator()(LDAP* connection) const noexcept { ldap_unbind_ext(connection, nullptr, nullptr); }
};

void Require(int code, const std::string& what)
{
    if (code != LDAP_SUCCESS) {
        throw std::runtime_error(what + ": " + ldap_err2string(code));
    }
}

// A connection of the administrator's.
std::unique_ptr<LDAP, Unbind> Administrate(const std::string& uri, const DirectoryKind& kind)
{
    LDAP* made = nullptr;
    Require(ldap_initialize(&made, uri.c_str()), "initialize");
    std::unique_ptr<LDAP, Unbind> connection(made);
    const int version = LDAP_VERSION3;
    ldap_set_option(made, LDAP_OPT_PROTOCOL_VERSION, &version);
    std::string password = "admin-password";
    berval secret{password.size(), password.data()};
    Require(ldap_sasl_bind_s(made, kind.administrator, LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, nullptr),
            "bind");
    return connection;
}

std::string Below(const std::string& dn, const DirectoryKind& kind)
{
    return dn + ',' + kind.base;
}

struct Change {
    std::string attribute;
    std::vector<std::string> values;
};

// Calls use(changes) with what libldap takes.
template<class Use>
void WithChanges(int operation, std::vector<Change> changes, Use use)
{
    std::vector<std::vector<char*>> values;
    std::vector<LDAPMod> mods;
    std::vector<LDAPMod*> pointers;
    values.reserve(changes.size());
    mods.reserve(changes.size());
    for (Change& change : changes) {
        values.push_back(Pointers(change.values));
        LDAPMod mod{};
        mod.mod_op = operation;
        mod.mod_type = change.attribute.data();
        mod.mod_values = values.back().data();
        mods.push_back(mod);
        pointers.push_back(&mods.back());
    }
    pointers.push_back(nullptr);
    use(pointers.data());
}

} // namespace

StartedServer::StartedServer(const char* name, const std::vector<std::string>& words)
{
    std::vector<std::string> line = {kPython, std::string(TAVR_SUPPORT_DIR "/") + name};
    line.insert(line.end(), words.begin(), words.end());
    std::vector<char*> arguments = Pointers(line);
    int ends[2];
    if (pipe(ends) != 0 || (server_ = fork()) < 0) {
        throw std::runtime_error("cannot start Python");
    }
    if (server_ == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execv(kPython, arguments.data());
        _exit(127);
    }
    close(ends[1]);
    FILE* output = fdopen(ends[0], "r");
    char said[100] = {};
    std::istringstream text(std::fgets(said, sizeof said, output) != nullptr ? said : "");
    std::fclose(output);
    std::string word;
    text >> word;
    for (int port = 0; text >> port;) {
        ports_.push_back(port);
    }
    if (word != "PORT" || ports_.empty()) {
        throw std::runtime_error(std::string(name) + " did not start");
    }
}

StartedServer::~StartedServer()
{
    Stop();
}

void StartedServer::Pause(bool paused) const
{
    kill(server_, paused ? SIGSTOP : SIGCONT);
}

void StartedServer::Stop()
{
    if (server_ > 0) {
        kill(server_, SIGKILL);
        waitpid(server_, nullptr, 0);
        server_ = -1;
    }
}

bool Directory::CanStart()
{
    return access("/usr/sbin/slapd", X_OK) == 0;
}

Directory::Directory(const std::vector<std::string>& options, const DirectoryKind& kind)
    : kind_(kind), server(kind.program, [&] {
          std::vector<std::string> words = {folder_.Path()};
          words.insert(words.end(), options.begin(), options.end());
          return words;
      }())
{
    // For workers, which are not root.
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms(0755));
}

std::string Directory::SettingsLines() const
{
    return "ldap_uri=\"" + Uri() + "\"\nldap_realm=\"office.example\"\nldap_base=\"dc=office,dc=example\"\n" +
           "ldap_ca_file=\"" + CaFile() + "\"\nldap_bind_dn=\"" + kind_.reader + "\"\n";
}

std::string Directory::DomainSettingsLines() const
{
    return "domain_name=\"CORP\"\ndomain_realm=\"corp.test\"\ndomain_uri=\"" + Uri() +
           "\"\ndomain_ca_file=\"" + CaFile() + "\"\ndomain_bind_dn=\"" + kind_.reader + "\"\n";
}

void Directory::WriteSecret()
{
    constexpr char kFile[] = "/etc/tavr/secrets";
    constexpr gid_t kServiceGroup = 64217;
    std::ofstream(kFile) << "ldap_bind_password=\"" << kReaderPassword << "\"\ndomain_bind_password=\""
                         << kReaderPassword << "\"\n";
    if (chown(kFile, 0, kServiceGroup) != 0 || chmod(kFile, 0440) != 0) {
        throw std::runtime_error(kFile);
    }
}

void Directory::Rename(const std::string& dn, const std::string& newRdn, const std::string& newParent) const
{
    const auto connection = Administrate(Uri(), kind_);
    Require(ldap_rename_s(connection.get(), Below(dn, kind_).c_str(), newRdn.c_str(),
                          Below(newParent, kind_).c_str(), 1, nullptr, nullptr),
            "rename " + dn);
}

void Directory::Remove(const std::string& dn) const
{
    const auto connection = Administrate(Uri(), kind_);
    Require(ldap_delete_ext_s(connection.get(), Below(dn, kind_).c_str(), nullptr, nullptr), "delete " + dn);
}

void Directory::AddPerson(const std::string& uid, const std::string& password) const
{
    const auto connection = Administrate(Uri(), kind_);
    const std::vector<Change> person = {{"objectClass", {"inetOrgPerson"}},
                                        {"uid", {uid}},
                                        {"cn", {uid}},
                                        {"sn", {uid}},
                                        {"userPassword", {password}}};
    WithChanges(LDAP_MOD_ADD, person, [&](LDAPMod** changes) {
        Require(ldap_add_ext_s(connection.get(), Below("uid=" + uid + ",ou=people", kind_).c_str(), changes,
                               nullptr, nullptr),
                "add " + uid);
    });
}

void Directory::Set(const std::string& dn, const std::string& attribute,
                    const std::vector<std::string>& values) const
{
    const auto connection = Administrate(Uri(), kind_);
    WithChanges(LDAP_MOD_REPLACE, {{attribute, values}}, [&](LDAPMod** changes) {
        Require(ldap_modify_ext_s(connection.get(), Below(dn, kind_).c_str(), changes, nullptr, nullptr),
                "modify " + dn);
    });
}
