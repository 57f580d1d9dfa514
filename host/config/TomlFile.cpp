#include "host/config/TomlFile.h"

#include "framework/OMF/TomlLimits.h"
#include "host/base/Text.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

namespace nphost {

namespace {

// C's files and not a stream: they say by errno why a file cannot be read.
struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

ConfigurationError atLine(std::filesystem::path const& file, std::size_t line, std::string_view reason) {
    // The reason may quote the file, which may hold anything.
    return ConfigurationError(visible(file.native()) + ":" + std::to_string(line) + ": " + visible(reason));
}

ConfigurationError unreadable(std::filesystem::path const& file, int error) {
    return ConfigurationError(visible(file.native()) + ": cannot be read: " + std::system_category().message(error));
}

} // namespace

std::string readWhole(std::filesystem::path const& file) {
    std::unique_ptr<std::FILE, Close> const stream(std::fopen(file.c_str(), "rbe"));
    if (stream == nullptr)
        throw unreadable(file, errno);
    std::string text;
    char block[4096];
    for (std::size_t count = 0; (count = std::fread(block, 1, sizeof block, stream.get())) > 0;) {
        text.append(block, count);
        if (text.size() > OMF::TomlLimits::mostBytesCM) // which parseToml refuses
            return text;
    }
    // A folder can be opened, and fails only here.
    if (std::ferror(stream.get()) != 0)
        throw unreadable(file, errno);
    return text;
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
