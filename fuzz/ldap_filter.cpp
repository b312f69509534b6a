// A text in a filter: libldap's own reading of the filter has to find that very text in it, and nothing else.
#include "linux/ldap.h"

#include <ldap.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// What every search goes through; exported, and in no header that is installed.
extern "C" int ldap_pvt_put_filter(BerElement* ber, const char* filter);

namespace
{

void Demand(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

struct FreeElement {
    void operator()(BerElement* element) const noexcept { ber_free(element, 1); }
};
using Element = std::unique_ptr<BerElement, FreeElement>;

// The filter as libldap sends it.
Element Encode(const std::string& filter)
{
    Element written(ber_alloc_t(LBER_USE_DER));
    Demand(ldap_pvt_put_filter(written.get(), filter.c_str()) == 0, "libldap takes the filter");
    berval* bytes = nullptr;
    Demand(ber_flatten(written.get(), &bytes) == 0, "the filter is whole");
    Element read(ber_init(bytes));
    ber_bvfree(bytes);
    return read;
}

std::string TextOf(const berval& value)
{
    return {value.bv_val == nullptr ? "" : value.bv_val, value.bv_len};
}

void CheckEquality(const std::string& text)
{
    const Element filter = Encode("(uid=" + tavr::FilterValue(text) + ")");
    berval attribute{};
    berval value{};
    ber_len_t size = 0;
    Demand(ber_peek_tag(filter.get(), &size) == LDAP_FILTER_EQUALITY, "an equality");
    Demand(ber_scanf(filter.get(), "{mm}", &attribute, &value) != LBER_ERROR, "one attribute and one value");
    Demand(TextOf(attribute) == "uid" && TextOf(value) == text, "the value is the text");
}

void CheckSubstring(const std::string& text)
{
    const Element filter = Encode("(cn=*" + tavr::FilterValue(text) + "*)");
    berval attribute{};
    ber_len_t size = 0;
    Demand(ber_peek_tag(filter.get(), &size) == LDAP_FILTER_SUBSTRINGS, "a substring");
    Demand(ber_scanf(filter.get(), "{m", &attribute) != LBER_ERROR && TextOf(attribute) == "cn",
           "one attribute");
    char* last = nullptr;
    ber_tag_t tag = ber_first_element(filter.get(), &size, &last);
    berval value{};
    Demand(tag == LDAP_SUBSTRING_ANY && ber_scanf(filter.get(), "m", &value) != LBER_ERROR,
           "a part in between");
    Demand(TextOf(value) == text, "the part is the text");
    tag = ber_next_element(filter.get(), &size, last);
    Demand(tag == LBER_DEFAULT, "there is no other part");
}

void CheckInside(const std::string& text)
{
    const std::string value = tavr::FilterValue(text);
    const Element filter = Encode("(&(objectClass=*)(|(uid=" + value + ")(cn=*x" + value + "*)))");
    Demand(value.find_first_of("()*") == std::string::npos && value.find('\0') == std::string::npos,
           "nothing in it means anything");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckEquality(text);
    if (!text.empty()) {
        CheckSubstring(text);
    }
    CheckInside(text);
    return 0;
}
