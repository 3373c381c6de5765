// Replays fuzz inputs without libFuzzer: every regular file named on the command line, or found
// in a directory named there, goes once through the target's entry point. The regular sanitizer
// build runs the checked-in corpora this way, so a parser regression fails the tests without
// any fuzzing.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace fs = std::filesystem;

static bool replay_file(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", p.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    // A copy of exactly the file's size: a read past its end is a sanitizer report.
    std::vector<uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.data(), data.size());
    return true;
}

int main(int argc, char** argv)
{
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<fs::path> files;
        if (fs::is_directory(argv[i])) {
            for (const auto& e : fs::directory_iterator(argv[i]))
                if (e.is_regular_file())
                    files.push_back(e.path());
            std::sort(files.begin(), files.end());
        } else {
            files.emplace_back(argv[i]);
        }
        for (const auto& f : files) {
            if (!replay_file(f))
                return 1;
            ++replayed;
        }
    }
    std::printf("%zu inputs replayed\n", replayed);
    // An empty corpus would pass without testing anything.
    return replayed ? 0 : 1;
}
