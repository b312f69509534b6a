#include "tests/support/smtp_sink.h"

#include <json/reader.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>

namespace
{

constexpr char kPython[] = "/usr/bin/python3";

struct Close {
    void operator()(FILE* file) const noexcept { std::fclose(file); }
};

// Starts a Python program of this folder; its output comes from the stream.
std::unique_ptr<FILE, Close> Start(const char* name, const std::vector<std::string>& words, pid_t& child)
{
    std::vector<std::string> line = {kPython, std::string(TAVR_SUPPORT_DIR "/") + name};
    line.insert(line.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (std::string& word : line) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    int ends[2];
    if (pipe(ends) != 0 || (child = fork()) < 0) {
        throw std::runtime_error("cannot start Python");
    }
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execv(kPython, arguments.data());
        _exit(127);
    }
    close(ends[1]);
    return std::unique_ptr<FILE, Close>(fdopen(ends[0], "r"));
}

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    if (!Json::Reader().parse(text, value)) {
        throw std::runtime_error("no JSON: " + text);
    }
    return value;
}

std::string Numbered(int number, const char* ending)
{
    char name[32];
    std::snprintf(name, sizeof name, "%04d.%s", number, ending);
    return name;
}

} // namespace

SmtpSink::SmtpSink(const std::vector<std::string>& options)
{
    std::vector<std::string> words = {folder_.Path()};
    words.insert(words.end(), options.begin(), options.end());
    const auto output = Start("smtp_sink.py", words, server_);
    if (std::fscanf(output.get(), "PORT %d", &port_) != 1) {
        throw std::runtime_error("the mail server did not start");
    }
}

SmtpSink::~SmtpSink()
{
    kill(server_, SIGKILL);
    waitpid(server_, nullptr, 0);
}

std::vector<std::string> SmtpSink::Commands() const
{
    std::istringstream text(folder_.Read("commands"));
    std::vector<std::string> commands;
    for (std::string line; std::getline(text, line);) {
        commands.push_back(line);
    }
    return commands;
}

int SmtpSink::Count() const
{
    int count = 0;
    while (std::filesystem::exists(folder_.Path(Numbered(count + 1, "eml")))) {
        ++count;
    }
    return count;
}

std::string SmtpSink::Mail(int number) const
{
    return folder_.Read(Numbered(number, "eml"));
}

Json::Value SmtpSink::Envelope(int number) const
{
    return Parse(folder_.Read(Numbered(number, "json")));
}

Json::Value ReadMail(const std::string& message)
{
    const TempDir folder;
    pid_t child = -1;
    const auto output = Start("read_mail.py", {folder.Write("mail", message)}, child);
    std::string text;
    for (int c = 0; (c = std::fgetc(output.get())) != EOF;) {
        text += static_cast<char>(c);
    }
    waitpid(child, nullptr, 0);
    return Parse(text);
}
