#include "platform/json.h"

#include "linux/error.h"

#include <fstream>
#include <memory>

using tavr::Error;
using tavr::Fail;

bool JsonFromFile(const std::string& path, Json::Value& value)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        Fail(Error::OpenFailed);
        return false;
    }
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::string problems;
    try {
        if (Json::parseFromStream(builder, file, &value, &problems) && !file.bad()) {
            return true;
        }
    } catch (const Json::Exception&) { // nested too deep
    }
    Fail(Error::ReadFailed);
    return false;
}

std::string JsonToString(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}
