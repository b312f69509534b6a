// An LDAP directory for one test: a real slapd (directory.py), and a server that misbehaves (faulty_ldap.py).
#pragma once

#include "tests/support/temp_dir.h"

#include <sys/types.h>

#include <string>
#include <vector>

// A program of this folder that prints "PORT" and ports, and serves on them until it is killed.
class StartedServer
{
public:
    StartedServer(const char* name, const std::vector<std::string>& words); // throws std::runtime_error
    ~StartedServer();
    StartedServer(const StartedServer&) = delete;
    StartedServer& operator=(const StartedServer&) = delete;

    void Pause(bool paused) const; // it takes connections and says nothing
    void Stop();
    [[nodiscard]] int Port(size_t index = 0) const { return ports_.at(index); }

private:
    pid_t server_ = -1;
    std::vector<int> ports_;
};

// Which one: the program that starts it, and who may change or read what below it.
struct DirectoryKind {
    const char* program;
    const char* base;
    const char* administrator;
    const char* reader;
};
inline constexpr DirectoryKind kOffice{"directory.py", "dc=office,dc=example",
                                       "cn=admin,dc=office,dc=example", "cn=reader,dc=office,dc=example"};
inline constexpr DirectoryKind kController{"controller.py", "dc=corp,dc=test", "cn=admin,dc=test",
                                           "cn=reader,dc=test"};
inline constexpr char kReaderPassword[] = "reader-password";

class Directory
{
    TempDir folder_;
    const DirectoryKind& kind_;

public:
    static bool CanStart(); // whether the machine has a slapd

    // Options as the program has them.
    explicit Directory(const std::vector<std::string>& options = {}, const DirectoryKind& kind = kOffice);
    StartedServer server;

    [[nodiscard]] std::string Uri() const { return "ldap://127.0.0.1:" + std::to_string(server.Port(0)); }
    [[nodiscard]] std::string TlsUri() const { return "ldaps://127.0.0.1:" + std::to_string(server.Port(1)); }
    [[nodiscard]] std::string CaFile() const { return folder_.Path("ca.pem"); }
    [[nodiscard]] std::string OtherCaFile() const { return folder_.Path("other.pem"); }

    // The lines of the settings file with which it is used; the password is a secret apart.
    [[nodiscard]] std::string SettingsLines() const;       // as the LDAP directory
    [[nodiscard]] std::string DomainSettingsLines() const; // as a domain's controller
    static void WriteSecret();                             // into the file of secrets, as root

    // As its administrator. A DN is one without the part that all have in common.
    void Rename(const std::string& dn, const std::string& newRdn, const std::string& newParent) const;
    void Remove(const std::string& dn) const;
    void AddPerson(const std::string& uid, const std::string& password) const;
    void Set(const std::string& dn, const std::string& attribute,
             const std::vector<std::string>& values) const;
};
