#include "platform/json.h"

#include "linux/descriptor.h"
#include "linux/error.h"
#include "linux/json_text.h"

#include <fcntl.h>

#include <limits>
#include <memory>
#include <sstream>
#include <utility>

using tavr::Error;
using tavr::Fail;

bool JsonFromFile(const std::string& path, Json::Value& value)
{
    const tavr::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        Fail(Error::OpenFailed);
        return false;
    }
    std::string text;
    if (!ReadAll(file, std::numeric_limits<size_t>::max(), text) || !tavr::ParseJson(text, value)) {
        Fail(Error::ReadFailed);
        return false;
    }
    return true;
}

std::string JsonToString(const Json::Value& value)
{
    static const std::unique_ptr<Json::StreamWriter> writer = [] { // kept: making it costs more than using it
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }();
    std::ostringstream text;
    writer->write(value, &text);
    return std::move(text).str();
}
