#include "linux/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace tavr
{

NewFile::NewFile(const Descriptor& directory, const std::string& name, mode_t mode, gid_t group)
    : directory_(directory), name_(name), newName_("." + name + ".new"), mode_(mode), group_(group)
{
}

NewFile::~NewFile()
{
    if (exists_) {
        unlinkat(directory_.Get(), newName_.c_str(), 0);
    }
}

bool NewFile::Write(std::string_view text)
{
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor file(openat(directory_.Get(), newName_.c_str(), kFlags, S_IRUSR | S_IWUSR));
    if (!file && errno == EEXIST && unlinkat(directory_.Get(), newName_.c_str(), 0) == 0) {
        file = Descriptor(openat(directory_.Get(), newName_.c_str(), kFlags, S_IRUSR | S_IWUSR));
    }
    if (!file) {
        return false;
    }
    exists_ = true;
    return (group_ == kOwnGroup || fchown(file.Get(), static_cast<uid_t>(-1), group_) == 0) &&
           fchmod(file.Get(), mode_) == 0 && WriteAll(file, text) && fsync(file.Get()) == 0;
}

bool NewFile::PutInPlace(AtPlace atPlace)
{
    // An O_PATH descriptor cannot be synced.
    const Descriptor directory(openat(directory_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || renameat2(directory.Get(), newName_.c_str(), directory.Get(), name_.c_str(),
                                atPlace == AtPlace::Keep ? RENAME_NOREPLACE : 0) != 0) {
        return false;
    }
    exists_ = false;
    return fsync(directory.Get()) == 0;
}

} // namespace tavr
