// Runs a fuzz target on the files, and on the files in the folders, that the command line names.
//
// A target that aborts ends the program; the last file named on the output is then the culprit. The result is
// 1 when there was no file to run, so that a corpus that went missing is noticed.
#include "fuzz/Fuzz.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

using Paths = std::vector<std::filesystem::path>;

Paths filesOf(std::filesystem::path const& named) {
    if (!std::filesystem::is_directory(named))
        return {named};
    Paths files;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(named))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

void replay(std::filesystem::path const& file) {
    std::cout << file.string() << std::endl; // before the target may abort
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + file.string());
    std::string const bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
    try {
        std::size_t count = 0;
        for (int i = 1; i < argc; ++i)
            for (std::filesystem::path const& file : filesOf(argv[i])) {
                replay(file);
                ++count;
            }
        std::cout << count << " inputs" << std::endl;
        return count == 0 ? 1 : 0;
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << std::endl;
        return 1;
    }
}
