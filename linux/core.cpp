#include "platform/core.h"

#include "linux/error.h"
#include "linux/settings.h"
#include "linux/string_hash.h"

#include <sodium.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

using tavr::Error;
using tavr::Fail;

// Gives the length of the text. An output too small for the whole text becomes the empty one.
int KLIBCBase64SzEncodeFull(const char* in, int inSize, char* out, int outSize, int /*flags*/)
{
    if (in == nullptr || inSize < 0 || out == nullptr || outSize <= 0) {
        return Fail(Error::BadParameter);
    }
    const size_t needed =
        sodium_base64_encoded_len(static_cast<size_t>(inSize), sodium_base64_VARIANT_ORIGINAL);
    if (needed > static_cast<size_t>(outSize)) {
        out[0] = 0;
        return Fail(Error::BufferTooSmall);
    }
    sodium_bin2base64(out, static_cast<size_t>(outSize), reinterpret_cast<const unsigned char*>(in),
                      static_cast<size_t>(inSize), sodium_base64_VARIANT_ORIGINAL);
    return static_cast<int>(needed) - 1;
}

// 1: there is something at the path; 0: there is not, or (the record says OpenFailed) it cannot be told.
int KLIBCFileExist(const char* path)
{
    if (path == nullptr) {
        Fail(Error::BadParameter);
        return 0;
    }
    struct stat entry {
    };
    if (stat(path, &entry) == 0) {
        return 1;
    }
    Fail(errno == ENOENT || errno == ENOTDIR ? Error::NotFound : Error::OpenFailed);
    return 0;
}

// Gives the length of the value: 0 when the key is not there or its value is empty, -1 on a failure, a value
// that does not fit included.
int KLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int /*flags*/)
{
    if (path == nullptr || key == nullptr || value == nullptr || size <= 0) {
        return Fail(Error::BadParameter);
    }
    std::string text;
    const tavr::FileRead read = tavr::ReadWholeFile(path, text);
    if (read != tavr::FileRead::Done) {
        return Fail(read == tavr::FileRead::Absent ? Error::NotFound : Error::ReadFailed);
    }
    const auto found = tavr::FindKey(text, key);
    if (!found || found->empty()) {
        Fail(Error::KeyNotFound);
        return 0;
    }
    if (found->size() >= static_cast<size_t>(size)) {
        return Fail(Error::BufferTooSmall);
    }
    std::memcpy(value, found->c_str(), found->size() + 1);
    return static_cast<int>(found->size());
}

// The size is a hint that this table does not need.
KLIBCSzHash* KLIBCSzHashAlloc(int size)
{
    if (size < 0) {
        Fail(Error::BadParameter);
        return nullptr;
    }
    auto* hash = new (std::nothrow) KLIBCSzHash;
    if (hash == nullptr) {
        Fail(Error::OutOfMemory);
    }
    return hash;
}

int KLIBCSzHashSetValue(KLIBCSzHash** hash, const char* key, const char* value)
{
    if (hash == nullptr || *hash == nullptr || key == nullptr || value == nullptr) {
        return Fail(Error::BadParameter);
    }
    (*hash)->values.insert_or_assign(key, value);
    return 0;
}

void KLIBCSzHashFree(KLIBCSzHash* hash)
{
    delete hash;
}

int TAVRHAIsSafemode(void)
{
    return tavr::Setting("ha_safemode", "no") == "yes" ? 1 : 0;
}
