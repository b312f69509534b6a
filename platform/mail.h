#pragma once

#include "core.h"

extern "C" {

struct TAVRMail { char server[256]; void* rest; };          // zero-filled before use; server empty: no service set up
int   TAVRMailReadByTagAndConvertRealEx(const char* lang, const char* tag, char* subject, int size,
                                        char** content, KLIBCSzHash** hash, int flags);
int   TAVRMailGet(TAVRMail* mail);
void  TAVRMailFree(TAVRMail* mail);
int   TAVRMailSendMessageWithoutBlock(const char* tag, KLIBCSzHash** hash, const char* address, int flags);

}  // extern "C"
