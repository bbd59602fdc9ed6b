// Runs a fuzz target on a folder of inputs, without libFuzzer, and compares what it tells with
// answers/: how every ordinary build replays the kept inputs. A file alone: its answers are
// printed. With "keep" behind it: the answers of the folder are written anew.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "fuzz.h"

namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    fuzz::require(file.good(), path.string());
    return {std::istreambuf_iterator<char>(file), {}};
}

void replay(const fs::path& path) {
    const std::string content = contentOf(path);
    // Exactly as large as the content, so that a sanitizer sees what reads further.
    const std::vector<std::uint8_t> exact(content.begin(), content.end());
    std::cerr << path.filename().string() << std::endl;
    *fuzz::answers << "== " << path.filename().string() << '\n';
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

}  // namespace

int main(int, char** argv) {
    fuzz::answers.emplace();
    const fs::path inputs = argv[1];
    if (!fs::is_directory(inputs)) {
        replay(inputs);
        std::cout << fuzz::answers->str();
        return 0;
    }
    const fs::directory_iterator entries(inputs);
    for (const auto& path : std::set<fs::path>(begin(entries), end(entries))) replay(path);
    const fs::path kept = inputs.parent_path().parent_path() / "answers" / inputs.filename();
    if (argv[2] != nullptr) {
        std::ofstream(kept) << fuzz::answers->str();
        return 0;
    }
    std::istringstream seen(fuzz::answers->str());
    std::istringstream expected(contentOf(kept));
    std::string input;
    for (std::string a, b; !seen.eof() || !expected.eof();) {
        std::getline(seen, a);
        std::getline(expected, b);
        fuzz::requireSame(a, b, input);
        if (a.starts_with("==")) input = a;
    }
    return 0;
}
