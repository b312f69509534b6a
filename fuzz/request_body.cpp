// Request bodies: what is accepted keeps to what its members say.
#include "web/request.h"

#include <cstdlib>

using namespace tavr::web;

namespace
{

constexpr Member kMembers[] = {
    {"user", 256}, {"password", 1024}, {"key", 64, Form::Base32Key, true}, {"code", 64, Form::Text, true}};

void Require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    std::optional<Json::Value> body = ParseBody({reinterpret_cast<const char*>(data), size}, kMembers);
    if (!body) {
        return 0;
    }
    Require(body->isObject());
    for (const Member& member : kMembers) {
        if (!body->isMember(member.name)) {
            Require(member.optional);
            continue;
        }
        const std::string text = (*body)[member.name].asString();
        Require(text.size() <= member.limit && text.find('\0') == std::string::npos);
        Require(member.form != Form::Base32Key || text.size() >= 16);
    }
    tavr::Wipe(*body);
    return 0;
}
