// The settings of the system (/etc/tavrinfo.conf), as its administrator made them.
#pragma once

class TavrConf
{
public:
    // The value of `key`; `fallback`, which is not null, when the key is absent or the settings cannot be
    // read. Read anew in every call. The text is valid until the next call, of this object or another, which
    // may take it as its fallback; never null. Needs no rights.
    const char* Info(const char* key, const char* fallback);
};
