// A server's state made anew for each test, in a view, and worker processes on it. The test program itself
// stays root and opens nothing; what is tested runs in children, so that no connection outlives its test.
#pragma once

#include "linux/accounts.h"
#include "tests/support/test_clock.h" // SetClocks

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace tavr::test
{

inline constexpr uid_t kServiceId = 64217;

class FreshServer : public testing::Test
{
protected:
    void SetUp() override; // empty state folder, preference tree and /tmp, a machine key
    void TearDown() override;

    // The system settings, as they stand on a server: a link in /etc to the file in /etc/tavr.
    static void WriteSettings(const std::string& lines);

    // Runs `work` in a child with a web worker's ids (real and effective the service's, saved root). What it
    // expects in vain fails the test.
    void AsWorker(const std::function<void()>& work);

    // Likewise, started side by side; ends when all have.
    void AsWorkers(int count, const std::function<void(int)>& work);

    // Puts a file system of this size over a folder until the end of the test; the folder's content is
    // copied.
    void LimitFolder(const std::string& folder, long bytes);
    void MakeReadOnly(const std::string& folder); // a folder that LimitFolder was called for

    // State folder, preference tree and waiting secrets as they are now, and back to that.
    void KeepState();
    void RestoreState();

private:
    std::vector<std::string> mounts_;
};

// Runs `work` in this process with a web worker's ids for the rest of its life, for a child of the stepper.
// What it throws is the exit status 90.
int RunLowered(const std::function<int()>& work);

// --- For work in a child ---

// An account with its preference directory. Cheap: its password is not to be used.
Account MakeAccount(const std::string& name);

// The clocks of all processes in the view stand from SetUp on, so that nothing hangs on how long a machine
// takes.
void SetWallClock(int64_t seconds);     // the other one as SetUp left it
void AdvanceBootClock(int64_t seconds); // from where SetUp left it, and the other one is there again

// The clocks run from now on, for a service that looks again after a second. So far ahead is the one since
// the start.
void LetClocksRun(int64_t bootAhead = 0);

// The code of a time step, by liboath alone. Six digits.
std::string CodeOf(const std::string& secretBase32, int64_t step);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text); // mode 0600
void RunSql(const std::string& path, const std::string& sql);     // in an SQLite file, past our own code

// The output of a program; its exit status in `status`, what it said on standard error in `complaint`.
struct Ran {
    int status = -1;
    std::string output;
    std::string complaint;
};
Ran RunProgram(const std::vector<std::string>& arguments);

} // namespace tavr::test
