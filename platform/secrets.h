#pragma once

extern "C" {

int   TAVRGetSecretPathByUser(const char* user, char* path, int size);
int   TAVRGoogleAuth(int count, const char* const* texts);
struct TavrHwid { int size; char* text; };
TavrHwid* tavrcrypto_hwid_init(void);
bool  tavrcrypto_hwid_str(TavrHwid* id, int size);
void  tavrcrypto_hwid_free(TavrHwid* id);

}  // extern "C"
