#include "linux/pam.h"

#include "linux/apart.h"
#include "linux/ids.h"
#include "linux/loaded_library.h"
#include "linux/names.h"

#include <security/pam_appl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace tavr
{

namespace
{

// libpam, loaded for one password in a process apart.
struct Pam {
    decltype(&pam_start_confdir) start;
    decltype(&pam_set_item) setItem;
    decltype(&pam_get_item) getItem;
    decltype(&pam_authenticate) authenticate;
    decltype(&pam_acct_mgmt) checkAccount;
    decltype(&pam_strerror) text;
    decltype(&pam_end) end;
};

Pam LoadPam()
{
    try {
        const LoadedLibrary library(TAVR_PAM_LIBRARY);
        Pam pam{};
        library.Find(pam.start, "pam_start_confdir");
        library.Find(pam.setItem, "pam_set_item");
        library.Find(pam.getItem, "pam_get_item");
        library.Find(pam.authenticate, "pam_authenticate");
        library.Find(pam.checkAccount, "pam_acct_mgmt");
        library.Find(pam.text, "pam_strerror");
        library.Find(pam.end, "pam_end");
        return pam;
    } catch (const LibraryError& error) {
        throw PamError(error.what());
    }
}

struct Conversation {
    const std::string& password;
};

// The only thing that is asked without an echo is the password.
int Converse(int count, const pam_message** messages, pam_response** responses, void* data)
{
    const auto* conversation = static_cast<const Conversation*>(data);
    auto* answers = static_cast<pam_response*>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
    if (answers == nullptr) {
        return PAM_BUF_ERR;
    }
    for (int i = 0; i < count; ++i) {
        if (messages[i]->msg_style == PAM_PROMPT_ECHO_OFF) {
            answers[i].resp = strdup(conversation->password.c_str());
        }
    }
    *responses = answers;
    return PAM_SUCCESS;
}

// A delay after a wrong password is for the attempts to set.
void NoDelay(int /*result*/, unsigned /*microseconds*/, void* /*data*/) {}

// Whether a result means no: anything else that is no success means that nobody knows.
bool IsRefusal(int result)
{
    switch (result) {
    case PAM_AUTH_ERR:
    case PAM_USER_UNKNOWN:
    case PAM_PERM_DENIED:
    case PAM_MAXTRIES:
    case PAM_ACCT_EXPIRED:
    case PAM_CRED_EXPIRED:
    case PAM_AUTHTOK_EXPIRED:
    case PAM_NEW_AUTHTOK_REQD:
        return true;
    default:
        return false;
    }
}

// Whether the module let in whom it was asked about: some take other names for an account, and say so here.
bool IsStill(const Pam& library, pam_handle_t* pam, const std::string& name)
{
    const void* item = nullptr;
    return library.getItem(pam, PAM_USER, &item) == PAM_SUCCESS && item != nullptr &&
           SearchText(static_cast<const char*>(item)) == SearchText(name);
}

} // namespace

bool IsPamPassword(const std::string& folder, const std::string& name, const std::string& password)
{
    const EffectiveIds root = EffectiveIds::Root();
    if (!root.Changed()) {
        throw PamError("it can be asked by root alone");
    }
    EndWithParent();
    // PAM would take the folder's service "other" instead.
    if (const std::string file = folder + '/' + kPamService; access(file.c_str(), F_OK) != 0) {
        throw PamError(file + " is missing");
    }
    Conversation conversation{password};
    const pam_conv way{Converse, &conversation};
    const Pam library = LoadPam();
    pam_handle_t* pam = nullptr;
    if (library.start(kPamService, name.c_str(), &way, folder.c_str(), &pam) != PAM_SUCCESS) {
        throw PamError("PAM cannot be started");
    }
    library.setItem(pam, PAM_FAIL_DELAY, reinterpret_cast<const void*>(NoDelay));
    int result = library.authenticate(pam, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    if (result == PAM_SUCCESS) {
        result = library.checkAccount(pam, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    }
    const bool still = result != PAM_SUCCESS || IsStill(library, pam, name);
    const std::string said = library.text(pam, result);
    library.end(pam, result);
    if (result != PAM_SUCCESS && result != PAM_AUTH_ERR && IsRefusal(result)) {
        syslog(LOG_NOTICE, "PAM does not let %s in: %s", name.c_str(), said.c_str());
    }
    if ((result != PAM_SUCCESS && !IsRefusal(result)) || !still) {
        throw PamError("it cannot compare a password: " + said);
    }
    return result == PAM_SUCCESS;
}

} // namespace tavr
