#include "linux/settings.h"

#include "linux/descriptor.h"
#include "linux/error.h"
#include "linux/file_stamp.h"
#include "linux/ids.h"
#include "linux/paths.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <mutex>
#include <set>

namespace tavr
{

namespace
{

constexpr size_t kMaxSize = 1 << 20;
constexpr char kLockName[] = "settings.lock"; // in kConfigDir

// A file of settings in kConfigDir, and whose it is: root's, and where it is secret the service's group too.
struct Place {
    const char* name;
    const char* newName;
    mode_t mode;
};
constexpr Place kOpenPlace{"tavrinfo.conf", "tavrinfo.conf.new", 0644};
constexpr Place kSecretPlace{"secrets", "secrets.new", 0440};

std::string_view Trim(std::string_view text)
{
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

struct Line {
    std::string_view key; // empty: a comment, or nothing that this format knows
    std::string_view value;
};

Line ParseLine(std::string_view text)
{
    text = Trim(text);
    const size_t equals = text.find('=');
    if (text.empty() || text.front() == '#' || equals == std::string_view::npos) {
        return {};
    }
    Line line{Trim(text.substr(0, equals)), Trim(text.substr(equals + 1))};
    if (line.value.size() >= 2 && line.value.front() == '"' && line.value.back() == '"') {
        line.value = line.value.substr(1, line.value.size() - 2);
    }
    return line;
}

// Calls each(start of the line, line without its end).
template<class Each>
void ForEachLine(std::string_view text, Each each)
{
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        each(start, text.substr(start, end - start));
        start = end + 1;
    }
}

// A link, a folder and a file that is too large are none that can be read.
FileRead Read(const char* path, std::string& text, FileStamp& stamp)
{
    switch (ReadStamped(path, 0, kMaxSize, text, stamp)) {
    case StampedRead::Done:
        return FileRead::Done;
    case StampedRead::Absent:
        return FileRead::Absent;
    case StampedRead::Unfit:
    case StampedRead::Failed:
        break;
    }
    return FileRead::Failed;
}

// The settings as last read.
struct Kept {
    FileStamp stamp;
    std::string text;
    bool settled = true; // no later change can leave the same stamp
    bool known = false;  // this is what stands in the file
    bool complained = false;
};

// Whether an editor may be at it that writes into the file that was there, which it empties first.
bool IsHalfWritten(const FileStamp& stamp, const std::string& text)
{
    const bool complete = !text.empty() && text.back() == '\n';
    return !complete && IsJustNow(stamp.modified);
}

Kept& LastRead()
{
    static Kept kept;
    return kept;
}

const Kept& Current()
{
    Kept& kept = LastRead();
    struct stat entry {
    };
    const bool isThere = stat(kSettingsFile, &entry) == 0;
    const bool isAbsent = !isThere && (errno == ENOENT || errno == ENOTDIR);
    if (kept.settled && (isThere || isAbsent) && (isThere ? StampOf(entry) : FileStamp()) == kept.stamp) {
        return kept;
    }
    std::string text;
    FileStamp stamp;
    switch (Read(kSettingsFile, text, stamp)) {
    case FileRead::Done: {
        const bool half = IsHalfWritten(stamp, text);
        if (!half || stamp.device != kept.stamp.device || stamp.inode != kept.stamp.inode) {
            const bool known = !half && !text.empty();
            kept = {stamp, std::move(text), !half && !IsJustNow(stamp.changed), known, false};
        }
        break;
    }
    case FileRead::Absent:
        kept = {};
        break;
    case FileRead::Failed:
        if (!kept.complained) {
            syslog(LOG_ERR, "cannot read %s, going on with what was read before: %m", kSettingsFile);
        }
        kept.known = false;
        kept.complained = true;
        kept.settled = false; // read again as soon as it can be, though nothing has changed
        break;
    }
    return kept;
}

bool IsKey(std::string_view key)
{
    return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

bool IsValue(std::string_view value)
{
    return std::none_of(value.begin(), value.end(),
                        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; });
}

// For everybody to read, or for the service's group alone. A file for everybody is made as root's own and
// stays so: in the web program's sandbox no owner can be given.
bool GiveOwner(const Descriptor& file, mode_t mode)
{
    const bool forEverybody = (mode & S_IROTH) != 0;
    return (forEverybody || fchown(file.Get(), 0, ServiceGroup()) == 0) && fchmod(file.Get(), mode) == 0;
}

// Replaces the file inside `folder` by one with this text.
bool ReplaceFile(int folder, const Place& place, std::string_view text)
{
    unlinkat(folder, place.newName, 0); // of a writer that was killed
    Descriptor file(
        openat(folder, place.newName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    const bool written = file && GiveOwner(file, place.mode) && WriteAll(file, text) &&
                         fsync(file.Get()) == 0 && close(file.Release()) == 0 &&
                         renameat(folder, place.newName, folder, place.name) == 0;
    if (!written) {
        unlinkat(folder, place.newName, 0);
        return false;
    }
    return fsync(folder) == 0;
}

bool Write(const Place& place, std::span<const SettingValue> values)
{
    const EffectiveIds root = EffectiveIds::Root();
    if (!root.Changed()) {
        Fail(Error::NotAllowed);
        return false;
    }
    const Descriptor folder(open(kConfigDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
        Fail(Error::OpenFailed);
        return false;
    }
    const Descriptor lock(openat(folder.Get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock || flock(lock.Get(), LOCK_EX) != 0) {
        Fail(Error::OpenFailed);
        return false;
    }
    std::string text;
    FileStamp stamp;
    if (Read((std::string(kConfigDir) + "/" + place.name).c_str(), text, stamp) == FileRead::Failed) {
        Fail(Error::ReadFailed);
        return false;
    }
    for (const auto& [key, value] : values) {
        text = ReplaceKey(text, key, value);
    }
    if (!ReplaceFile(folder.Get(), place, text)) {
        Fail(Error::WriteFailed);
        return false;
    }
    return true;
}

// A name's spelling may depend on a setting, so threads that ask directories ask here too.
std::optional<std::string> CurrentValue(std::string_view key)
{
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    return FindKey(Current().text, key);
}

} // namespace

std::string Setting(std::string_view key, std::string_view fallback)
{
    const auto value = CurrentValue(key);
    return value ? *value : std::string(fallback);
}

bool SettingsKnown()
{
    return LastRead().known;
}

int64_t NumberSetting(std::string_view key, int64_t fallback, int64_t least, int64_t most)
{
    const auto text = CurrentValue(key);
    if (!text) {
        return fallback;
    }
    int64_t number = 0;
    const auto [end, code] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (code == std::errc() && end == text->data() + text->size() && number >= least && number <= most) {
        return number;
    }
    static std::set<std::string, std::less<>> complained;
    if (complained.insert(std::string(key)).second) {
        syslog(LOG_ERR, "setting %s is no number from %lld to %lld, using %lld", std::string(key).c_str(),
               static_cast<long long>(least), static_cast<long long>(most), static_cast<long long>(fallback));
    }
    return fallback;
}

bool WriteSettings(std::span<const SettingValue> values)
{
    const bool valid = std::all_of(values.begin(), values.end(), [](const SettingValue& one) {
        return IsKey(one.key) && IsSettingValue(one.value);
    });
    if (!valid) {
        Fail(Error::BadParameter);
        return false;
    }
    return Write(kOpenPlace, values);
}

bool WriteSetting(std::string_view key, std::string_view value)
{
    const SettingValue one[] = {{key, value}};
    return WriteSettings(one);
}

bool IsSettingValue(std::string_view text)
{
    return IsValue(text) && text.find('"') == std::string_view::npos;
}

std::optional<KeptSecret> SecretSetting(std::string_view key)
{
    const Descriptor file(open(kSecretsFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file && errno == ENOENT) {
        return std::nullopt;
    }
    KeptSecret secrets;
    if (!file || !IsGuarded(file) || !ReadAll(file, kMaxSize, secrets.text)) {
        syslog(LOG_AUTH | LOG_ERR, "%s cannot be read, or its owner or mode is wrong", kSecretsFile);
        return std::nullopt;
    }
    std::optional<std::string> value = FindKey(secrets.text, key);
    return value ? std::optional(KeptSecret(std::move(*value))) : std::nullopt;
}

bool WriteSecretSetting(std::string_view key, std::string_view value)
{
    if (!IsKey(key) || !IsValue(value)) {
        Fail(Error::BadParameter);
        return false;
    }
    const SettingValue one[] = {{key, value}};
    return Write(kSecretPlace, one);
}

std::optional<std::string> FindKey(std::string_view text, std::string_view key)
{
    std::optional<std::string> found;
    ForEachLine(text, [&](size_t, std::string_view line) {
        const Line parsed = ParseLine(line);
        if (!parsed.key.empty() && parsed.key == key) {
            found = parsed.value;
        }
    });
    return found;
}

std::string ReplaceKey(std::string_view text, std::string_view key, std::string_view value)
{
    size_t place = text.size();
    size_t length = 0;
    ForEachLine(text, [&](size_t start, std::string_view line) {
        if (ParseLine(line).key == key) {
            place = start;
            length = line.size();
        }
    });
    std::string replaced(text.substr(0, place));
    if (length == 0 && !replaced.empty() && replaced.back() != '\n') {
        replaced += '\n';
    }
    replaced.append(key).append("=\"").append(value).append("\"");
    replaced.append(length == 0 ? "\n" : text.substr(place + length));
    return replaced;
}

FileRead ReadWholeFile(const char* path, std::string& text)
{
    FileStamp stamp;
    return Read(path, text, stamp);
}

} // namespace tavr
