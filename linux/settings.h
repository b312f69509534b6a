// The system settings: /etc/tavrinfo.conf, lines key="value", everything else kept and ignored.
//
// Blanks around key, equals sign and value are allowed, and so is a value without quotes. Nothing inside the
// quotes is special. Of several lines with one key the last counts.
#pragma once

#include "linux/kept_secret.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tavr
{

// The value of `key`, or `fallback` where the file or the key is missing. Re-read when the file has changed;
// one that is there and cannot be read leaves the values that were read before, and a log line.
std::string Setting(std::string_view key, std::string_view fallback);
int64_t NumberSetting(std::string_view key, int64_t fallback, int64_t least,
                      int64_t most); // outside: fallback, logged once

// Whether the value that was asked for last is what stands in the file: false while that is absent, empty or
// cannot be read, and while an editor may be writing it. Set-up makes the file, so one that is gone never
// means "nothing is set".
bool SettingsKnown();

// Sets keys by a new file, synced and renamed into place inside /etc/tavr; lines that it does not know stay.
// Raises the ids for it. False: nothing has changed, and the platform error record says why. A key is
// lower-case letters, digits and "_"; a value has no control character and no double quote.
struct SettingValue {
    std::string_view key;
    std::string_view value;
};
bool WriteSettings(std::span<const SettingValue> values); // all of them at once
bool WriteSetting(std::string_view key, std::string_view value);
bool IsSettingValue(std::string_view text);

// Passwords of services stand apart, in kSecretsFile (root:tavr-web 0440), in lines of the same form. Read
// anew each time. Empty: no such key, or the file is not root's own and guarded, which is logged. A value may
// hold double quotes.
std::optional<KeptSecret> SecretSetting(std::string_view key);
bool WriteSecretSetting(std::string_view key, std::string_view value); // as WriteSetting

// The value of `key` in a text of such lines.
std::optional<std::string> FindKey(std::string_view text, std::string_view key);

// The text with the key's value set, in the key's last line or in a new one at the end.
std::string ReplaceKey(std::string_view text, std::string_view key, std::string_view value);

// Reads a settings file (at most 1 MiB, a regular file), whole: a file that changes meanwhile is read again.
enum class FileRead { Done, Absent, Failed };
FileRead ReadWholeFile(const char* path, std::string& text);

} // namespace tavr
