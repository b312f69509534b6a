#include "linux/secret_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace tavr
{

namespace
{

constexpr char kOptions[] = "\" TOTP_AUTH\n";

bool IsReferenceCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

} // namespace

// --- References ---

bool IsReference(std::string_view text, char marker)
{
    return text.size() == kReferenceSize && text.front() == marker &&
           std::all_of(text.begin() + 1, text.end(), IsReferenceCharacter);
}

std::string PaddedReference(std::string_view reference)
{
    std::string padded(reference);
    padded.resize(kPaddedReferenceSize, '=');
    return padded;
}

std::string_view BareReference(std::string_view text)
{
    const bool padded = text.size() == kPaddedReferenceSize &&
                        text.find_first_not_of('=', kReferenceSize) == std::string_view::npos;
    return padded ? text.substr(0, kReferenceSize) : text;
}

// --- Layout ---

std::string RenderSecretFile(const SecretFileText& file)
{
    std::string text = file.secret + '\n' + kOptions;
    for (const std::string& code : file.codes) {
        text += code;
        text += '\n';
    }
    return text;
}

std::optional<SecretFileText> ParseSecretFile(std::string_view text)
{
    SecretFileText file;
    for (bool first = true; !text.empty(); first = false) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (first && IsReference(line, kSecretMarker)) {
            file.secret = line;
        } else if (!first && IsReference(line, kCodeMarker)) {
            file.codes.emplace_back(line);
        } else if (first || !line.starts_with('"')) {
            return std::nullopt;
        }
    }
    return file.secret.empty() ? std::nullopt : std::optional(file);
}

Match MatchSecretFile(std::string_view text, const std::string& secret, const std::vector<CodeLine>& codes)
{
    Match whole = Match::Whole;
    const auto take = [&](const std::string& line, bool optional) {
        if (text.starts_with(line)) {
            text.remove_prefix(line.size());
            whole = optional ? Match::WithSpent : whole;
            return true;
        }
        return optional && (text.empty() || !line.starts_with(text));
    };
    std::string line = RenderSecretFile({secret, {}});
    bool taken = take(line, false);
    for (size_t i = 0; taken && i < codes.size(); ++i) {
        line = codes[i].reference + '\n';
        taken = take(line, codes[i].spent);
    }
    if (!taken) {
        return line.starts_with(text) ? Match::Part : Match::Other;
    }
    return text.empty() ? whole : Match::Other;
}

// --- Files ---

FoundFile ReadOwnFile(const Descriptor& directory, const std::string& name)
{
    // Not blocking, for a fifo.
    const Descriptor file(
        openat(directory.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        return {errno == ENOENT ? Found::Nothing : Found::NotOurs, {}};
    }
    struct stat what {
    };
    if (fstat(file.Get(), &what) != 0 || !S_ISREG(what.st_mode) || what.st_uid != geteuid() ||
        what.st_nlink != 1 || what.st_size > static_cast<off_t>(kSecretFileLimit)) {
        return {};
    }
    std::string text;
    if (!ReadAll(file, kSecretFileLimit, text)) {
        return {};
    }
    return {Found::Text, text};
}

} // namespace tavr
