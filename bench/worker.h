// What the platform's benchmarks share: a server's state in a view, a worker's ids, medians of case and floor
// measured in turn.
#pragma once

#include "linux/database.h"
#include "linux/paths.h"

#include <grp.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace tavr::bench
{

inline void Require(bool done, const char* what)
{
    if (!done) {
        std::perror(what);
        std::exit(1);
    }
}

// The view's state lies in memory, where storing something durably costs nothing: a folder beside the
// program, made anew, takes its place.
inline void PutStateOnDisk(const char* program)
{
    const std::string folder = std::filesystem::absolute(program).replace_filename("state");
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::filesystem::create_directories(kStateDir);
    Require(mount(folder.c_str(), kStateDir, nullptr, MS_BIND, nullptr) == 0, folder.c_str());
}

inline const passwd& ServiceUser()
{
    const passwd* service = getpwnam(kServiceUser); // NOLINT(concurrency-mt-unsafe)
    Require(geteuid() == 0 && service != nullptr, "to be run by bench/run");
    return *service;
}

inline void TakeWorkerIds(const passwd& service = ServiceUser())
{
    Require(setgroups(0, nullptr) == 0 && setresgid(service.pw_gid, service.pw_gid, 0) == 0 &&
                setresuid(service.pw_uid, service.pw_uid, 0) == 0,
            "ids");
}

// Folders, settings and machine key as set-up makes them, then the ids of a web worker.
inline void BecomeWorker(const char* program)
{
    PutStateOnDisk(program);
    const passwd& service = ServiceUser();
    for (const char* folder : {kConfigDir, kDataDir, kPreferenceDir, kStateDir}) {
        std::filesystem::create_directories(folder);
        const bool config = folder == kConfigDir;
        Require(chown(folder, config ? 0 : service.pw_uid, config ? 0 : service.pw_gid) == 0, folder);
        Require(chmod(folder, config ? 0755 : 0700) == 0, folder);
    }
    std::ofstream(std::string(kConfigDir) + "/tavrinfo.conf") << "maillang=\"enu\"\n";
    if (!std::filesystem::exists(kSettingsFile)) {
        std::filesystem::create_symlink("tavr/tavrinfo.conf", kSettingsFile);
    }
    std::ofstream(kMachineKeyFile) << "tavr-machine-key-1 " << std::string(64, 'a') << '\n';
    Require(chown(kMachineKeyFile, 0, service.pw_gid) == 0 && chmod(kMachineKeyFile, 0440) == 0,
            kMachineKeyFile);
    TakeWorkerIds(service);
}

// A log that still grows costs more to sync than one that is written over: fills it once, then starts it
// again.
inline void WarmLog(Database& database)
{
    database.Prepare("CREATE TABLE warm (bytes BLOB)").Run();
    database.Prepare("INSERT INTO warm VALUES (zeroblob(6000000))").Run();
    database.Prepare("DROP TABLE warm").Run();
    database.Prepare("PRAGMA wal_checkpoint(RESTART)").Run();
}

inline double Microseconds(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

inline double Median(std::vector<double> times)
{
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2),
                     times.end());
    return times[times.size() / 2];
}

// Case and floor in turn, so that both see the same machine; `between` runs before each pair and is not
// counted. True when the ratio is at most `goal`.
[[nodiscard]] inline bool Compare(const char* what, double goal, int rounds,
                                  const std::function<void()>& between, const std::function<void()>& work,
                                  const std::function<void()>& floor)
{
    std::vector<double> works;
    std::vector<double> floors;
    for (int round = 0; round < rounds; ++round) {
        between();
        if (round % 2 != 0) {
            floors.push_back(Microseconds(floor));
        }
        works.push_back(Microseconds(work));
        if (round % 2 == 0) {
            floors.push_back(Microseconds(floor));
        }
    }
    const double ratio = Median(works) / Median(floors);
    std::printf("%-44s %9.1f us   floor %9.1f us   %5.2f times (goal %.2f)%s\n", what, Median(works),
                Median(floors), ratio, goal, ratio > goal ? "  MISSED" : "");
    std::fflush(stdout);
    return ratio <= goal;
}

} // namespace tavr::bench
