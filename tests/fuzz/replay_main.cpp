// Runs a fuzz target on files and on all files of folders, without libFuzzer: how every ordinary
// build replays the kept inputs.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.h"

namespace {

namespace fs = std::filesystem;

void replay(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    fuzz::require(!file.bad(), "the file can be read");
    // Exactly as large as the content, so that a sanitizer sees what reads further.
    const std::vector<std::uint8_t> exact(content.begin(), content.end());
    std::fprintf(stderr, "%s\n", path.filename().c_str());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            replay(argv[i]);
            ++count;
            continue;
        }
        for (const auto& entry : fs::directory_iterator(argv[i])) {
            replay(entry.path());
            ++count;
        }
    }
    fuzz::require(count > 0, "there is something to replay");
    return 0;
}
