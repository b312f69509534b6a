// A mail server for one test (smtp_sink.py), and mails read by another program than the one that wrote them.
#pragma once

#include "tests/support/temp_dir.h"

#include <json/value.h>
#include <sys/types.h>

#include <string>
#include <vector>

class SmtpSink
{
public:
    // Ready to take mails when it returns; options as smtp_sink.py has them. Throws std::runtime_error.
    explicit SmtpSink(const std::vector<std::string>& options = {});
    ~SmtpSink();
    SmtpSink(const SmtpSink&) = delete;
    SmtpSink& operator=(const SmtpSink&) = delete;

    [[nodiscard]] int Port() const { return port_; }
    [[nodiscard]] std::string CaFile() const { return folder_.Path("ca.pem"); }
    [[nodiscard]] std::string CertificateFile() const { return folder_.Path("server.pem"); }
    [[nodiscard]] std::string KeyFile() const { return folder_.Path("server.key"); }
    [[nodiscard]] std::vector<std::string> Commands() const; // that came

    // Mails are counted from 1.
    [[nodiscard]] int Count() const;
    [[nodiscard]] std::string Mail(int number) const;
    [[nodiscard]] Json::Value Envelope(int number) const;

private:
    TempDir folder_;
    pid_t server_ = -1;
    int port_ = 0;
};

// What Python's mail parser sees in a message: {"headers":[[name,value]...], "defects":[...], "text":...,
// "html":..., "types":[...]}.
Json::Value ReadMail(const std::string& message);
