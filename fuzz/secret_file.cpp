// An account's secret file: read, and held against what the vault says.
#include "linux/secret_file.h"

#include <cstdlib>

using namespace tavr;

namespace
{

const std::string kSecret = "@AAAAAAAAAAAAAAA";
const std::vector<CodeLine> kCodes = {{"+BBBBBBBBBBBBBBB", false},
                                      {"+CCCCCCCCCCCCCCC", true},
                                      {"+DDDDDDDDDDDDDDD", false},
                                      {"+EEEEEEEEEEEEEEE", true}};

void Require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

// The vault's text with either, both or none of the spent codes' lines.
std::string Variant(bool first, bool second)
{
    SecretFileText file{kSecret, {}};
    for (const CodeLine& code : kCodes) {
        const bool isFirst = code.reference == kCodes[1].reference;
        if (!code.spent || (isFirst ? first : second)) {
            file.codes.push_back(code.reference);
        }
    }
    return RenderSecretFile(file);
}

void CheckMatch(std::string_view text)
{
    bool spent = false;
    bool part = false;
    for (const bool first : {false, true}) {
        for (const bool second : {false, true}) {
            const std::string whole = Variant(first, second);
            spent = spent || ((first || second) && text == whole);
            part = part || (text.size() < whole.size() && whole.starts_with(text));
        }
    }
    const Match match = MatchSecretFile(text, kSecret, kCodes);
    Require((match == Match::Whole) == (text == Variant(false, false)));
    Require((match == Match::WithSpent) == spent);
    Require(match != Match::Part || part);
    Require(match != Match::Other || !part);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto file = ParseSecretFile(text)) {
        Require(text.ends_with('\n') && IsReference(file->secret, kSecretMarker));
        for (const std::string& code : file->codes) {
            Require(IsReference(code, kCodeMarker));
        }
        const auto again = ParseSecretFile(RenderSecretFile(*file));
        Require(again.has_value() && again->secret == file->secret && again->codes == file->codes);
    }
    CheckMatch(text);
    const std::string_view bare = BareReference(text);
    Require(bare == text || PaddedReference(bare) == text);
    return 0;
}
