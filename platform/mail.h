// Mails of the system: templates by tag and language, and the notification mail service.
//
// On failure the error record (platform/core.h) is set. No text of a mail ever reaches a log: it may hold a
// code.
#pragma once

#include "core.h"

extern "C" {

// What the administrator has set up for notification mails. Zero-filled before use.
struct TAVRMail {
    char server[256]; // empty: no service set up
    void* rest;       // the platform's
};

// Looks up the template `tag` in the language `lang` (three letters, "enu" is always there) and replaces each
// key of *hash, such as %USER_NAME%, by its value. `subject` of `size` bytes gets the subject, cut to fit.
// *content gets the body in memory of malloc, for the caller to free(). 0 on success; anything else is a
// failure, then nothing is written and nothing is to be freed. `flags` is 0.
int TAVRMailReadByTagAndConvertRealEx(const char* lang, const char* tag, char* subject, int size,
                                      char** content, KLIBCSzHash** hash, int flags);

// Fills `mail`, also with an empty server when no service is set up. 0 on success, negative on failure.
int TAVRMailGet(TAVRMail* mail);

// Releases what TAVRMailGet filled. Safe on a zero-filled record.
void TAVRMailFree(TAVRMail* mail);

// Queues a notification mail made of the template `tag` and the values of *hash, in the system's language,
// and comes back without waiting for its delivery. What is queued outlives the process. 0 when it was queued,
// negative when it could not be; the library does not look at that, so a platform that wants its callers to
// know notes it elsewhere. `flags` is 0.
int TAVRMailSendMessageWithoutBlock(const char* tag, KLIBCSzHash** hash, const char* address, int flags);

} // extern "C"
