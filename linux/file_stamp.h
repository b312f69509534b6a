// Telling whether a file has changed, and reading one whole that somebody else may be writing.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace tavr
{

// What tells one state of a file from another.
struct FileStamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    int64_t modified = 0; // nanoseconds
    int64_t changed = 0;
    bool operator==(const FileStamp&) const = default;
};

FileStamp StampOf(const struct stat& entry);

// Files' times come from the kernel's clock and in steps, so a file that has changed just now may do so again
// within the same step: its stamp tells nothing yet.
bool IsJustNow(int64_t time);

// Reads a regular file of at most `limit` bytes whole; one that changes meanwhile is read again.
enum class StampedRead {
    Done,
    Absent,
    Unfit,  // too large, no regular file, a link where `openFlags` has O_NOFOLLOW, or not ours to read
    Failed, // it cannot be told what is there
};
StampedRead ReadStamped(const char* path, int openFlags, size_t limit, std::string& text, FileStamp& stamp);

} // namespace tavr
