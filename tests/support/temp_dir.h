// A folder of its own for one test, gone again at its end.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

class TempDir
{
public:
    TempDir()
    {
        std::string name = std::filesystem::temp_directory_path() / "tavr-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = name;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] std::string Path(const std::string& name = "") const
    {
        return name.empty() ? path_ : path_ + "/" + name;
    }

    // Gives the path of what was written.
    std::string Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(Path(name), std::ios::binary) << text;
        return Path(name);
    }

    [[nodiscard]] std::string Read(const std::string& name) const
    {
        std::ostringstream text;
        text << std::ifstream(Path(name), std::ios::binary).rdbuf();
        return text.str();
    }

private:
    std::string path_;
};
