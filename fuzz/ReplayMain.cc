// Runs a fuzz target over files instead of generated input: a plain program for compilers without libFuzzer, and the
// test that keeps every input that once mattered working.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

bool ReplayFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::printf("%s: %zu bytes\n", path.c_str(), input.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    return true;
}

}  // namespace

// Each argument is a file or a folder of files. Fails when one cannot be read or there is none at all.
int main(int argc, char** argv) {
    bool ok = true;
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            ok = ReplayFile(argv[i]) && ok;
            ++replayed;
            continue;
        }
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            ok = ReplayFile(entry.path()) && ok;
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return ok && replayed > 0 ? 0 : 1;
}
