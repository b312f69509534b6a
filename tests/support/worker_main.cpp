// main() of tests that work as a web worker does: started as root in a view, they make the folders that
// set-up makes, then go on with the service's real and effective ids and root as the saved one.
#include "linux/ids.h"
#include "linux/paths.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

namespace
{

void MakeFolder(const char* path, uid_t owner, gid_t group, mode_t mode)
{
    std::filesystem::create_directories(path);
    if (chown(path, owner, group) != 0 || chmod(path, mode) != 0) {
        std::perror(path);
        std::exit(1);
    }
}

void BecomeWorker()
{
    const passwd* service = getpwnam(tavr::kServiceUser);
    if (geteuid() != 0 || service == nullptr) {
        std::fprintf(stderr, "needs a private root view\n");
        std::exit(1);
    }
    MakeFolder(tavr::kConfigDir, 0, 0, 0755);
    MakeFolder(tavr::kDataDir, service->pw_uid, service->pw_gid, 0755);
    MakeFolder(tavr::kPreferenceDir, service->pw_uid, service->pw_gid, 0700);
    MakeFolder(tavr::kStateDir, service->pw_uid, service->pw_gid, 0700);
    MakeFolder(tavr::kRunDir, 0, 0, 0755);
    if (setgroups(0, nullptr) != 0 || setresgid(service->pw_gid, service->pw_gid, 0) != 0 ||
        setresuid(service->pw_uid, service->pw_uid, 0) != 0) {
        std::perror("ids");
        std::exit(1);
    }
}

// The report is written at the end, to a folder that is root's.
class WrittenAsRoot : public testing::EmptyTestEventListener
{
public:
    explicit WrittenAsRoot(testing::TestEventListener* report) : report_(report) {}
    void OnTestIterationEnd(const testing::UnitTest& test, int iteration) override
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        report_->OnTestIterationEnd(test, iteration);
    }

private:
    std::unique_ptr<testing::TestEventListener> report_;
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    BecomeWorker();
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    if (testing::TestEventListener* report = listeners.Release(listeners.default_xml_generator())) {
        listeners.Append(new WrittenAsRoot(report));
    }
    const int status = RUN_ALL_TESTS();
    // Root again, or the leak checker may not look at this process when it ends.
    return setresuid(0, 0, 0) == 0 ? status : 1;
}
