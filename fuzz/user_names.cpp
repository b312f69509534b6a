// Account names as typed: whatever is typed, a name is refused, or it has one canonical spelling that stands
// for itself, fits its limits, and gives a folder inside the preference folder.
#include "linux/names.h"
#include "platform/cgi.h"
#include "platform/secrets.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace
{

void Demand(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

// What the folder's name says when it is read back: nothing of the name may be lost in it.
std::string Decode(const std::string& folder)
{
    std::string name;
    for (size_t i = 0; i < folder.size(); ++i) {
        if (folder[i] != '%') {
            name += folder[i];
            continue;
        }
        Demand(i + 2 < folder.size(), "two digits stand behind a percent sign");
        name += static_cast<char>(std::stoi(folder.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return name;
}

void CheckFolder(const std::string& name)
{
    const std::string folder = tavr::FolderName(name);
    Demand(!folder.empty() && folder.size() <= 255, "a folder's name fits");
    Demand(folder.find('/') == std::string::npos && folder.front() != '.', "a folder stays where it belongs");
    if (folder.find("%-") == std::string::npos) {
        Demand(Decode(folder) == name, "a folder's name says the whole name");
    } else {
        Demand(folder.size() == 255, "only long names are shortened");
    }
}

void CheckCalls(const std::string& typed, const std::optional<std::string>& name)
{
    char out[493];
    std::memset(out, '#', sizeof out);
    const int result = WebUtils::ParseInputUserName(typed.c_str(), out, sizeof out);
    Demand((result >= 0) == name.has_value(), "the parser takes what has a canonical spelling");
    Demand(name ? *name == out : std::string(sizeof out, '#') == std::string(out, sizeof out),
           "the parser writes the canonical spelling or nothing");

    char path[4096] = {};
    Demand((TAVRGetSecretPathByUser(typed.c_str(), path, sizeof path) == 0) == name.has_value(),
           "every name has a secret path");
    Demand(!name || tavr::SecretPath(*name) == path, "every spelling has the same one");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string typed(reinterpret_cast<const char*>(data), size);
    const auto name = tavr::CanonicalName(typed);
    if (name) {
        Demand(!name->empty() && name->size() <= tavr::kMaxName, "a name fits");
        Demand(tavr::CanonicalName(*name) == name, "a canonical name is its own canonical spelling");
        Demand(tavr::CanonicalName("  " + *name + " ") == name || name->size() + 3 > tavr::kMaxName,
               "blanks at the ends do not count");
        Demand(tavr::IsPlainText(*name), "a name can be shown");
        CheckFolder(*name);
    }
    if (typed.find('\0') == std::string::npos) {
        CheckCalls(typed, name);
    }
    return 0;
}
