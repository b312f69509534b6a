// What the contract tests have in common.
#pragma once

#include "platform/core.h"
#include "platform/users.h"
#include "tests/contract/system.h"

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>
#include <sys/types.h>

namespace contract
{

// The setting of every case: a fresh request, and the ids as they were when it ends.
class Case : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

private:
    uid_t euid_ = 0;
    gid_t egid_ = 0;
};

// --- Output buffers ---

// A buffer that shows what was written to it.
class Out
{
public:
    static constexpr size_t kSize = 4096;
    Out() : bytes_(kSize + kGuard, '#') {}
    [[nodiscard]] char* Get() { return bytes_.data(); }
    [[nodiscard]] std::string Text() const { return Untouched() ? "(untouched)" : bytes_.c_str(); }
    [[nodiscard]] bool Untouched(size_t from = 0) const
    {
        return bytes_.find_first_not_of('#', from) == std::string::npos;
    }

private:
    static constexpr size_t kGuard = 64;
    std::string bytes_;
};

// --- The error record ---

struct Record {
    int code = 0;
    std::string file;
    int line = 0;
    bool operator==(const Record&) const = default;
};
Record LastError();
void FailSomewhere();     // a failure of KLIBCBase64SzEncodeFull
void FailSomewhereElse(); // a failure of KLIBCFileGetKeyValue

// Whether a call fails (a negative number, null or false) and says so in the error record.
template<class Call>
testing::AssertionResult Fails(Call call, void (*former)() = FailSomewhere)
{
    former();
    const Record before = LastError();
    const auto result = call();
    bool failed = false;
    if constexpr (std::is_same_v<decltype(result), const int>) {
        failed = result < 0;
    } else {
        failed = !result;
    }
    if (!failed) {
        return testing::AssertionFailure() << "it did not fail";
    }
    if (LastError() == before || LastError().code == 0) {
        return testing::AssertionFailure() << "it failed and left the error record as it was";
    }
    return testing::AssertionSuccess();
}

// --- Ids ---

// Raises the effective ids to root's for one scope, as the library does around a login.
class AsRoot
{
public:
    AsRoot();
    ~AsRoot();
    AsRoot(const AsRoot&) = delete;
    AsRoot& operator=(const AsRoot&) = delete;

private:
    uid_t uid_;
    gid_t gid_;
};

// --- What is kept ---

size_t OpenDescriptors();

// Runs `round` many times. False when memory or descriptors are lost in it.
testing::AssertionResult GivesEverythingBack(const std::function<void()>& round);

// --- Owners ---

struct FreeUser {
    void operator()(TAVRUser* user) const noexcept { TAVRUserFree(user); }
};
using UserRecord = std::unique_ptr<TAVRUser, FreeUser>;
UserRecord Find(const std::string& name); // empty: not found

struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); } // NOLINT(cppcoreguidelines-no-malloc)
};
using Text = std::unique_ptr<char, FreeMemory>;

// Runs what throws when it cannot be done, where an exception would end the program; it fails the case
// instead.
void Try(const std::function<void()>& work);

// An account for one case.
class Account
{
public:
    explicit Account(Person person);
    ~Account();
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;
    const Person person;
};

class GroupOfPeople
{
public:
    GroupOfPeople(std::string name, const std::string& description);
    ~GroupOfPeople();
    GroupOfPeople(const GroupOfPeople&) = delete;
    GroupOfPeople& operator=(const GroupOfPeople&) = delete;

private:
    const std::string name_;
};

// --- Files ---

std::string FreshFolder(); // one for this program, empty at each call
void WriteText(const std::string& path, const std::string& text);
std::string ReadText(const std::string& path);
bool Stands(const std::string& path); // whether something does, a dangling link too

// What a program of the platform's prints.
std::string OutputOf(const char* path, const char* argument1 = nullptr, const char* argument2 = nullptr);

} // namespace contract
