#include "host/config/TomlFile.h"

#include "framework/OMF/TomlLimits.h"
#include "host/base/FileDescriptor.h"
#include "host/base/HostError.h"
#include "host/base/RegularFile.h"
#include "host/base/Text.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace nphost {

namespace {

ConfigurationError atLine(std::filesystem::path const& file, std::size_t line, std::string_view reason) {
    // The reason may quote the file, which may hold anything.
    return ConfigurationError(visible(file.native()) + ":" + std::to_string(line) + ": " + visible(reason));
}

ConfigurationError unreadable(std::filesystem::path const& file, int error) {
    return ConfigurationError(visible(file.native()) + ": cannot be read: " + std::system_category().message(error));
}

// Of more than parseToml takes, as much as it refuses.
std::string contentOf(FileDescriptor const& descriptor, std::filesystem::path const& file) {
    std::string text;
    char block[4096];
    while (text.size() <= OMF::TomlLimits::mostBytesCM) {
        ssize_t const count = read(descriptor.get(), block, sizeof block);
        if (count == 0)
            break;
        if (count > 0)
            text.append(block, static_cast<std::size_t>(count));
        else if (errno != EINTR)
            throw unreadable(file, errno);
    }
    return text;
}

} // namespace

std::string readWhole(std::filesystem::path const& file) {
    try {
        return contentOf(openRegularFile(file), file);
    } catch (HostError const& error) {
        throw ConfigurationError(error.what());
    }
}

std::string readWholeOrPipe(std::filesystem::path const& file) {
    FileDescriptor const made(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!made)
        throw unreadable(file, errno);
    return contentOf(made, file);
}

toml::table parseToml(std::string_view text, std::filesystem::path const& file) {
    // The parser recurses: nested too deeply, a text would end the process.
    if (auto const excess = OMF::TomlLimits::excessOf(text))
        throw atLine(file, excess->line, excess->reason);
    try {
        return toml::parse(text);
    } catch (toml::parse_error const& error) {
        throw errorAt(file, error.source(), error.description());
    }
}

ConfigurationError errorAt(std::filesystem::path const& file, toml::source_region const& where,
                           std::string_view reason) {
    return atLine(file, where.begin.line, reason);
}

} // namespace nphost
