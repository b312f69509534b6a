#pragma once

class TavrConf { public: const char* Info(const char* key, const char* fallback); };   // valid until the next call; never null
