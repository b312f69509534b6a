// Making an account's waiting secret: the work of the program at kSecretToolPath, which the library starts
// with the path of the file to make. Stays with the ids that it is started with, so it links without ids.h.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tavr
{

struct ToolPath {
    std::string directory;
    std::string name; // kWaitingFilePrefix and the account's number, as decimal digits
    uint32_t account = 0;
};

// Empty for a path whose last name is anything else (a number above 4294967295 or with a zero in front
// included).
std::optional<ToolPath> ParseToolPath(std::string_view path);

// What is wrong, in words for whoever started the tool.
class ToolError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Makes the file at the path and stores the secret as the account's waiting one, in place of what waited
// before. Gives the secret's reference when file and rows are durable. Only our own regular file is replaced;
// the directory must be one in which nobody else can exchange it. Throws ToolError, VaultError,
// DatabaseError; then nothing that could be used was made.
std::string MakeWaitingSecret(const ToolPath& path);

} // namespace tavr
