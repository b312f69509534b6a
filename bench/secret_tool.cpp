// The secret tool, from its start to its end, against the least static program that does its file work and
// one durable SQLite insert. A worker holds the database open meanwhile, as in service.
#include "linux/database.h"

#include "bench/worker.h"

#include <spawn.h>
#include <sys/wait.h>

#include <fcntl.h>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 400;

void Run(const char* program, const char* first, const char* second)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    char* const arguments[] = {const_cast<char*>(program), const_cast<char*>(first),
                               const_cast<char*>(second), nullptr};
    pid_t child = -1;
    Require(posix_spawn(&child, program, &actions, nullptr, arguments, nullptr) == 0, program);
    int status = -1;
    Require(waitpid(child, &status, 0) == child && status == 0, program);
    posix_spawn_file_actions_destroy(&actions);
}

} // namespace

int main(int /*argc*/, char** argv)
{
    const std::string floor = std::filesystem::path(argv[0]).replace_filename("secret_tool_floor");
    BecomeWorker(argv[0]);
    const std::string database = std::string(kStateDir) + "/floor.db";
    Database floorDatabase(database.c_str(), std::vector<const char*>{"CREATE TABLE floor (bytes BLOB)"});
    SigninDatabase();
    floorDatabase.Prepare("SELECT count(*) FROM floor").Run();
    SigninDatabase().Prepare("SELECT count(*) FROM secret").Run();
    WarmLog(floorDatabase);
    WarmLog(SigninDatabase());
    const bool met = Compare(
        "secret tool", 1.4, kRounds, [] {}, [] { Run(kSecretToolPath, "-s", "/tmp/OTP_1026"); },
        [&] { Run(floor.c_str(), "/tmp/OTP_floor", database.c_str()); });
    return met ? 0 : 1;
}
