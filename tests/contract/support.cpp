#include "tests/contract/support.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include <malloc.h>
#include <unistd.h>

extern "C" [[gnu::weak]] size_t __sanitizer_get_current_allocated_bytes();

namespace contract
{

namespace
{

namespace fs = std::filesystem;

class System : public testing::Environment
{
public:
    void SetUp() override { contract::SetUp(); }
};
const testing::Environment* const g_system = testing::AddGlobalTestEnvironment(new System);

size_t MemoryInUse()
{
    return __sanitizer_get_current_allocated_bytes != nullptr ? __sanitizer_get_current_allocated_bytes()
                                                              : mallinfo2().uordblks;
}

std::string ReadStream(FILE* stream)
{
    std::string text;
    char block[4096];
    for (size_t got = 0; (got = fread(block, 1, sizeof block, stream)) > 0;) {
        text.append(block, got);
    }
    return text;
}

} // namespace

void Case::SetUp()
{
    constexpr unsigned kLongestSeconds = 120;
    alarm(kLongestSeconds); // a call that never comes back ends the program
    euid_ = geteuid();
    egid_ = getegid();
    StartRequest();
}

void Case::TearDown()
{
    EXPECT_EQ(euid_, geteuid()) << "a call has kept other ids";
    EXPECT_EQ(egid_, getegid()) << "a call has kept other ids";
    alarm(0);
}

Record LastError()
{
    return {KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine()};
}

void FailSomewhere()
{
    char out[1];
    KLIBCBase64SzEncodeFull("foo", 3, out, sizeof out, 0);
}

void FailSomewhereElse()
{
    char out[8];
    KLIBCFileGetKeyValue("/nowhere/at/all", "key", out, sizeof out, 0);
}

AsRoot::AsRoot() : uid_(geteuid()), gid_(getegid())
{
    if (setresuid(-1, 0, -1) != 0 || setresgid(-1, 0, -1) != 0) {
        throw std::runtime_error("the program needs root as its effective or saved user");
    }
}

AsRoot::~AsRoot()
{
    if (setresgid(-1, gid_, -1) != 0 || setresuid(-1, uid_, -1) != 0) {
        std::abort();
    }
}

size_t OpenDescriptors()
{
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

// What is lost in every round adds up; what an allocator or a library keeps for later does so once in a
// while.
testing::AssertionResult GivesEverythingBack(const std::function<void()>& round)
{
    constexpr size_t kRounds = 100;
    constexpr size_t kSmallestPiece = 16; // of memory
    const auto lost = [&round] {
        const size_t before = MemoryInUse();
        for (size_t i = 0; i < kRounds; ++i) {
            round();
        }
        const size_t after = MemoryInUse();
        return after > before ? after - before : 0;
    };
    lost(); // whatever is kept for good is there afterwards
    const size_t descriptors = OpenDescriptors();
    size_t least = lost();
    for (int tries = 0; tries < 4 && least >= kRounds * kSmallestPiece; ++tries) {
        least = std::min(least, lost());
    }
    if (least >= kRounds * kSmallestPiece) {
        return testing::AssertionFailure() << least << " bytes are lost in " << kRounds << " rounds";
    }
    if (OpenDescriptors() != descriptors) {
        return testing::AssertionFailure() << "descriptors are lost";
    }
    return testing::AssertionSuccess();
}

UserRecord Find(const std::string& name)
{
    TAVRUser* record = nullptr;
    return TAVRUserGet(name.c_str(), &record) < 0 ? UserRecord() : UserRecord(record);
}

void Try(const std::function<void()>& work)
{
    try {
        work();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
}

Account::Account(Person made) : person(std::move(made))
{
    AddPerson(person);
}

Account::~Account()
{
    Try([this] { RemovePerson(person.name); });
}

GroupOfPeople::GroupOfPeople(std::string name, const std::string& description) : name_(std::move(name))
{
    AddGroup(name_, description);
}

GroupOfPeople::~GroupOfPeople()
{
    Try([this] { RemoveGroup(name_); });
}

std::string FreshFolder()
{
    static const std::string folder = [] {
        std::string name = "/tmp/contract-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no folder can be made in /tmp");
        }
        return name;
    }();
    for (const auto& entry : fs::directory_iterator(folder)) {
        fs::remove_all(entry);
    }
    return folder;
}

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string ReadText(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool Stands(const std::string& path)
{
    return fs::symlink_status(path).type() != fs::file_type::not_found;
}

std::string OutputOf(const char* path, const char* argument1, const char* argument2)
{
    FILE* stream = KLIBCPopen(path, "r", argument1, argument2, static_cast<char*>(nullptr));
    if (stream == nullptr) {
        return "not started";
    }
    std::string text = ReadStream(stream);
    KLIBCPclose(stream);
    return text;
}

} // namespace contract
