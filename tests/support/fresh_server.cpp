#include "tests/support/fresh_server.h"

#include "linux/descriptor.h"
#include "linux/paths.h"
#include "tests/support/in_view.h"

#include <liboath/oath.h>

#include <fcntl.h>
#include <grp.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern "C" [[gnu::weak]] int __llvm_profile_write_file(); // in a program that counts its branches

namespace tavr::test
{

namespace
{

namespace fs = std::filesystem;

const std::string kKept = "/run/kept";

void Require(bool done, const std::string& what)
{
    if (!done) {
        throw std::runtime_error(what);
    }
}

void Shell(const std::string& command)
{
    Require(std::system(command.c_str()) == 0, command); // NOLINT(concurrency-mt-unsafe)
}

void Empty(const std::string& folder, uid_t owner, mode_t mode)
{
    fs::create_directories(folder);
    for (const auto& entry : fs::directory_iterator(folder)) {
        fs::remove_all(entry);
    }
    Require(chown(folder.c_str(), owner, owner) == 0 && chmod(folder.c_str(), mode) == 0, folder);
}

// Not the whole folder: the checkout may lie in it.
void RemoveSecretFiles(const std::string& folder)
{
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name.starts_with("OTP_") || name.starts_with(".OTP_")) {
            fs::remove_all(entry);
        }
    }
}

// When the test began.
int64_t g_wall = 0;
int64_t g_boot = 0;

void Lower()
{
    Require(setgroups(0, nullptr) == 0 && setresgid(kServiceId, kServiceId, 0) == 0 &&
                setresuid(kServiceId, kServiceId, 0) == 0,
            "cannot lower the ids");
}

// The result has the parent's failures too, which are not the child's.
bool FailedSince(int parts)
{
    const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = parts; i < result.total_part_count(); ++i) {
        if (result.GetTestPartResult(i).failed()) {
            return true;
        }
    }
    return false;
}

[[noreturn]] void RunChild(const std::function<void()>& work)
{
    const int parts = testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    try {
        Lower();
        work();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
    std::fflush(nullptr);
    if (__llvm_profile_write_file != nullptr) {
        __llvm_profile_write_file();
    }
    _exit(FailedSince(parts) ? 1 : 0);
}

} // namespace

void FreshServer::SetUp()
{
    ASSERT_TRUE(InView()) << "runs in a view, as root";
    Empty(kStateDir, kServiceId, 0700);
    Empty(kConfigDir, 0, 0755);
    Empty(kDataDir, kServiceId, 0755);
    Empty(kPreferenceDir, kServiceId, 0700);
    RemoveSecretFiles(kWaitingDir);
    g_wall = RunningSeconds(CLOCK_REALTIME);
    g_boot = RunningSeconds(CLOCK_BOOTTIME);
    SetClocks(g_wall, g_boot);
    Require(chown(kClockFile, kServiceId, kServiceId) == 0, kClockFile);
    std::ofstream(kMachineKeyFile)
        << "tavr-machine-key-1 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";
    WriteSettings("maillang=\"enu\"\n");
    Require(chown(kMachineKeyFile, 0, kServiceId) == 0 && chmod(kMachineKeyFile, 0440) == 0, kMachineKeyFile);
}

void FreshServer::TearDown()
{
    for (const std::string& folder : mounts_) {
        umount2(folder.c_str(), MNT_DETACH);
    }
}

void FreshServer::WriteSettings(const std::string& lines)
{
    unlink(kSettingsFile);
    Require(symlink("tavr/tavrinfo.conf", kSettingsFile) == 0, kSettingsFile);
    std::ofstream("/etc/tavr/tavrinfo.conf") << lines;
}

void FreshServer::AsWorker(const std::function<void()>& work)
{
    AsWorkers(1, [&](int) { work(); });
}

void FreshServer::AsWorkers(int count, const std::function<void(int)>& work)
{
    std::fflush(nullptr);
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            RunChild([&] { work(i); });
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(0, status) << "in a worker, see above";
    }
}

void FreshServer::LimitFolder(const std::string& folder, long bytes)
{
    const fs::path copy = fs::path("/var/tmp") / fs::path(folder).filename();
    fs::remove_all(copy);
    ASSERT_EQ(0, std::system(("cp -a " + folder + ' ' + copy.string()).c_str()));
    struct stat what {
    };
    ASSERT_EQ(0, stat(folder.c_str(), &what));
    const std::string options = "size=" + std::to_string(bytes);
    ASSERT_EQ(0, mount("limited", folder.c_str(), "tmpfs", 0, options.c_str()));
    mounts_.push_back(folder);
    ASSERT_EQ(0, chown(folder.c_str(), what.st_uid, what.st_gid));
    ASSERT_EQ(0, chmod(folder.c_str(), what.st_mode & 07777));
    ASSERT_EQ(0, std::system(("cp -a " + copy.string() + "/. " + folder).c_str()));
}

void FreshServer::MakeReadOnly(const std::string& folder)
{
    ASSERT_EQ(0, mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
}

void FreshServer::KeepState()
{
    Shell("rm -rf " + kKept + "; mkdir -p " + kKept + "/state " + kKept + "/data " + kKept +
          "/waiting; cp -a " + kStateDir + "/. " + kKept + "/state; cp -a " + kDataDir + "/. " + kKept +
          "/data; cp -a " + kWaitingDir + "/OTP_* " + kKept + "/waiting 2>/dev/null || true");
}

void FreshServer::RestoreState()
{
    Shell(std::string("find ") + kStateDir + ' ' + kDataDir + " -mindepth 1 -delete; rm -rf " + kWaitingDir +
          "/OTP_* " + kWaitingDir + "/.OTP_*; cp -a " + kKept + "/state/. " + kStateDir + "; cp -a " + kKept +
          "/data/. " + kDataDir + "; cp -a " + kKept + "/waiting/OTP_* " + kWaitingDir +
          " 2>/dev/null || true");
}

int RunLowered(const std::function<int()>& work)
{
    try {
        Lower();
        return work();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 90;
    }
}

Account MakeAccount(const std::string& name)
{
    const auto account = AddAccount({name, "", "", false}, "not to be used");
    Require(account.has_value() && MakePreferenceDirectory(*account), "cannot make the account " + name);
    return *account;
}

void SetWallClock(int64_t seconds)
{
    SetClocks(seconds, g_boot);
}

void AdvanceBootClock(int64_t seconds)
{
    SetClocks(g_wall, g_boot + seconds);
}

void LetClocksRun(int64_t bootAhead)
{
    WriteClockFile("0 " + std::to_string(bootAhead));
}

std::string CodeOf(const std::string& secretBase32, int64_t step)
{
    char* secret = nullptr;
    size_t size = 0;
    Require(oath_base32_decode(secretBase32.data(), secretBase32.size(), &secret, &size) == OATH_OK,
            "base-32");
    char code[7] = {};
    oath_hotp_generate(secret, size, static_cast<uint64_t>(step), 6, false, OATH_HOTP_DYNAMIC_TRUNCATION,
                       code);
    std::free(secret);
    return code;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    Require(chmod(path.c_str(), 0600) == 0, path);
}

void RunSql(const std::string& path, const std::string& sql)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr)) << path;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
    sqlite3_close(db);
}

Ran RunProgram(const std::vector<std::string>& arguments)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const Descriptor output(memfd_create("output", MFD_CLOEXEC));
    const Descriptor complaint(memfd_create("complaint", MFD_CLOEXEC));
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(output.Get(), STDOUT_FILENO);
        dup2(complaint.Get(), STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const auto whole = [](const Descriptor& file) {
        std::string text(4096, 0);
        text.resize(
            static_cast<size_t>(std::max<ssize_t>(0, pread(file.Get(), text.data(), text.size(), 0))));
        return text;
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, whole(output), whole(complaint)};
}

} // namespace tavr::test
