// Replacing a file in one step: the new one is written beside the place, synced, and renamed into it.
#pragma once

#include "linux/descriptor.h"

#include <sys/types.h>

#include <string>
#include <string_view>

namespace tavr
{

// Writes a new file beside `name` in the directory and puts it in place in one step. Nothing of it is left on
// failure, then errno says why. With `Keep`, something that stands at the place is an error (EEXIST);
// otherwise it is replaced, and the caller has looked at it.
enum class AtPlace { Replace, Keep };
class NewFile
{
public:
    static constexpr gid_t kOwnGroup = static_cast<gid_t>(-1); // of the effective ids
    NewFile(const Descriptor& directory, const std::string& name, mode_t mode = 0600,
            gid_t group = kOwnGroup);
    ~NewFile(); // removes it unless it is in place
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    bool Write(std::string_view text); // whole and synced
    bool PutInPlace(AtPlace atPlace);  // durable when it returns true

private:
    const Descriptor& directory_;
    const std::string name_;
    const std::string newName_; // fixed, so that a cut try leaves one file at most
    const mode_t mode_;
    const gid_t group_;
    bool exists_ = false;
};

} // namespace tavr
