// Taking an emergency code out of the secret file, against fopen, getline and the one decipher of the same
// file: with the ids raised before, and from a worker's ids with the same switch around both.
#include "linux/cipher.h"
#include "linux/ids.h"
#include "otp/MailOtpCodeHandler.h"
#include "otp/OTPCommon.h"
#include "platform/core.h"

#include "bench/enrolled.h"

#include <json/value.h>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr int kRounds = 2001;
constexpr char kSourceFile[] = "emergency_code.cpp";

void TakeCode()
{
    char code[9] = {};
    Json::Value response;
    Require(MailOtpCodeHandler().GetEmergencyCode("alice", code, sizeof code, response), "GetEmergencyCode");
}

// The first code deciphers; one more line tells that it is not the last.
void ReadAndDecipher(const char* path)
{
    FILE* file = std::fopen(path, "r");
    Require(file != nullptr, path);
    char* line = nullptr;
    size_t size = 0;
    ssize_t length = getline(&line, &size, file);
    while ((length = getline(&line, &size, file)) > 0 && line[0] == '"') {
    }
    Require(length > 1, "a code's line");
    line[length - 1] = '\0';
    char code[1024] = {};
    Require(KLIBCCryptSzDecrypt(line, code, sizeof code) != 0, "KLIBCCryptSzDecrypt");
    Require(getline(&line, &size, file) > 0, "one more line");
    std::free(line);
    std::fclose(file);
}

} // namespace

int main(int /*argc*/, char** argv)
{
    BecomeWorker(argv[0]);
    const Account account = EnrolledAccount();
    Require(NameAccountToCipher(account) == Fault::None, "cipher");
    const std::string path = SecretPath(account.name);
    const auto nothing = [] {};

    bool met = Compare("code extraction, worker's ids", 1.3, kRounds, nothing, TakeCode, [&path] {
        const otp::RootCriticalSection asRoot(kSourceFile, __LINE__, __LINE__);
        ReadAndDecipher(path.c_str());
    });
    const EffectiveIds root = EffectiveIds::Root();
    met &= Compare("code extraction, ids raised before", 1.3, kRounds, nothing, TakeCode,
                   [&path] { ReadAndDecipher(path.c_str()); });
    return met ? 0 : 1;
}
