// npbench::TemporaryFolder: a folder of its own in the system's temporary one (TMPDIR), which goes with the object.
// Ownership: the folder and all in it. Threads: none inside. Errors: construction throws std::runtime_error.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace npbench {

class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "npbench-XXXXXX").string();
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

  private:
    std::filesystem::path pathM;
};

} // namespace npbench
