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
// key of *hash, such as %USER_NAME%, by its value, in which no keys are looked for again. `subject` of `size`
// bytes (256) gets the subject, cut to fit. *content gets the body in memory of malloc, for the caller to
// free(): HTML, whose line feeds the library makes line breaks. 0 on success; anything else is a failure,
// then nothing is written and nothing is to be freed. `flags` is 0.
//
// Two tags are the library's, OTP_emergency_mail and, with the last code, OTP_emergency_mail_warning; their
// keys are %USER_NAME% and %EMG_CODE%. The code belongs into the body, not into the subject.
int TAVRMailReadByTagAndConvertRealEx(const char* lang, const char* tag, char* subject, int size,
                                      char** content, KLIBCSzHash** hash, int flags);

// Fills `mail`. 0 on success, also with an empty server when no service is set up; negative on failure.
int TAVRMailGet(TAVRMail* mail);

// Releases what TAVRMailGet filled. Safe on a zero-filled record.
void TAVRMailFree(TAVRMail* mail);

// Queues a notification mail made of the template `tag` and the values of *hash, in the system's language,
// and comes back without waiting for its delivery. What is queued outlives the process. 0 when it was queued,
// negative when it could not be, as for what is not exactly one address; the library does not look at that,
// so a platform that wants its callers to know notes it elsewhere. `flags` is 0.
int TAVRMailSendMessageWithoutBlock(const char* tag, KLIBCSzHash** hash, const char* address, int flags);

} // extern "C"
