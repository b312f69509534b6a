// What a benchmark needs of a view: the service's folders, and a worker's ids.
#pragma once

#include "linux/ids.h"
#include "linux/paths.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace bench
{

constexpr int kServiceId = 64217;

inline void Demand(bool done, const char* what)
{
    if (!done) {
        std::fprintf(stderr, "cannot measure: %s\n", what);
        std::exit(1);
    }
}

inline void MakeFolders()
{
    Demand(geteuid() == 0, "needs a private root view; use bench/run");
    for (const char* folder : {tavr::kDataDir, tavr::kPreferenceDir, tavr::kStateDir}) {
        std::filesystem::create_directories(folder);
        Demand(chown(folder, kServiceId, kServiceId) == 0 && chmod(folder, 0700) == 0, folder);
    }
}

// An empty settings file at its place.
inline void MakeSettings()
{
    std::filesystem::create_directories(tavr::kConfigDir);
    std::ofstream(std::string(tavr::kConfigDir) + "/tavrinfo.conf");
    std::filesystem::remove(tavr::kSettingsFile);
    std::filesystem::create_symlink(std::string(tavr::kConfigDir) + "/tavrinfo.conf", tavr::kSettingsFile);
}

// Real and effective ids the service's, saved ones root's.
inline void BecomeWorker()
{
    Demand(setresgid(kServiceId, kServiceId, 0) == 0 && setresuid(kServiceId, kServiceId, 0) == 0,
           "worker's ids");
}

// In a process of its own, so that nothing that it opens is left here.
template<typename Work>
void InChild(const char* what, Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    Demand(WIFEXITED(status) && WEXITSTATUS(status) == 0, what);
}

} // namespace bench
