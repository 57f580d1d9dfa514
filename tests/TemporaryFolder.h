// A folder of its own for a test or a benchmark, removed with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TemporaryFolder {
  public:
    explicit TemporaryFolder(std::string const& prefix = "np-test") {
        std::string name = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("cannot make a temporary folder");
        pathM = name;
    }
    TemporaryFolder(TemporaryFolder const&) = delete;
    TemporaryFolder& operator=(TemporaryFolder const&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(pathM, ignored);
    }

    std::filesystem::path const& path() const { return pathM; }
    std::string file(std::string const& name) const { return (pathM / name).string(); }

    // Writes a file and returns its full name.
    std::string write(std::string const& name, std::string const& content) const {
        std::ofstream(pathM / name, std::ios::binary) << content;
        return file(name);
    }

  private:
    std::filesystem::path pathM;
};

inline std::string contentOf(std::string const& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
