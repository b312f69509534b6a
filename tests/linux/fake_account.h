// What sessions and logins ask of accounts, enrolment, verifier and settings, scripted by a test.
#pragma once

#include "linux/accounts.h"
#include "linux/enrolment.h"
#include "linux/verifier.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

struct FakeAccounts {
    std::map<std::string, tavr::Account> accounts;
    std::map<std::string, std::string> passwords;
    std::map<std::string, int64_t> settings;
    std::map<uint32_t, tavr::Enrolment> settlesAs;
    std::optional<tavr::CodeAnswer> libraryAnswer;
    tavr::CodeAnswer codeAnswer; // of VerifyCode
    bool storeFails = false;
    bool areSystem = false; // whose local accounts are
    bool directoriesFail = false;
    int directoriesMade = 0;
    int settled = 0;

    tavr::Account& Add(const std::string& name, uint32_t uid, const std::string& password);
};

FakeAccounts& Fake(); // the one that answers; emptied by ResetFake
void ResetFake();
