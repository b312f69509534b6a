// main() of a fuzz target without a fuzzer: runs every file and every folder's files that the command line
// names through the target. A target that finds something wrong ends the process.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace
{

int RunFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
        return -1;
    }
    std::ostringstream content;
    content << file.rdbuf();
    const std::string text = content.str();
    std::fprintf(stderr, "%s\n", path.c_str()); // the last name is the one to blame
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            const int ran = RunFile(argv[i]);
            if (ran < 0) {
                return 1;
            }
            count += ran;
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            const int ran = RunFile(entry.path());
            if (ran < 0) {
                return 1;
            }
            count += ran;
        }
    }
    std::fprintf(stderr, "%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
