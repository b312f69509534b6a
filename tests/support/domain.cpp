#include "tests/support/domain.h"

#include <unistd.h>

#include <csignal>
#include <fstream>
#include <vector>

bool Domain::CanStart()
{
    return Directory::CanStart() && access(TAVR_SUPPORT_DIR "/../../build/sssd/usr/sbin/sssd", X_OK) == 0;
}

Domain::Domain(const std::vector<std::string>& options)
    : server("domain.py", [&] {
          std::vector<std::string> words = {folder_.Path("d")};
          words.insert(words.end(), options.begin(), options.end());
          return words;
      }())
{
    // For workers, which are not root.
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms(0755));
}

// SSSD's children do not end with it.
Domain::~Domain()
{
    KillClient();
}

void Domain::Signal(int signal) const
{
    const int parent = server.Port(3);
    const std::string folder = "/proc/" + std::to_string(parent);
    std::ifstream children(folder + "/task/" + std::to_string(parent) + "/children");
    std::vector<pid_t> processes = {parent};
    for (pid_t child = 0; children >> child;) {
        processes.push_back(child);
    }
    for (const pid_t process : processes) { // the one that would start others anew comes first
        kill(process, signal);
    }
}

void Domain::Pause(bool paused) const
{
    Signal(paused ? SIGSTOP : SIGCONT);
}

void Domain::KillClient() const
{
    Signal(SIGKILL);
}

void Domain::KillController() const
{
    kill(server.Port(2), SIGKILL);
}

std::string Domain::SettingsLines() const
{
    return "domain_name=\"CORP\"\ndomain_realm=\"corp.test\"\ndomain_uri=\"" + Uri() +
           "\"\ndomain_ca_file=\"" + CaFile() + "\"\ndomain_bind_dn=\"cn=reader,dc=test\"\n";
}
