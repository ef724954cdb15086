// The two places an asset can lie, in order, and the strict UTF-8 read of it.
#include "TerminalAssetLocator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "UniqueFd.h"

namespace fs = std::filesystem;

namespace hl {

namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 6> sourcePaths{{
    {"xterm.js", "@xterm/xterm/lib/xterm.js"},
    {"xterm.css", "@xterm/xterm/css/xterm.css"},
    {"addon-fit.js", "@xterm/addon-fit/lib/addon-fit.js"},
    {"addon-web-links.js", "@xterm/addon-web-links/lib/addon-web-links.js"},
    {"addon-search.js", "@xterm/addon-search/lib/addon-search.js"},
    {"addon-unicode11.js", "@xterm/addon-unicode11/lib/addon-unicode11.js"},
}};

[[noreturn]] void fail(int code) {
    throw std::system_error(code, std::generic_category());
}

bool isDirectory(const fs::path& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

// A regular file (after following links) that this process may read.
bool isReadableFile(const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(path.c_str(), R_OK) == 0;
}

// Whether `text` is well-formed UTF-8: no overlong forms, surrogates or values
// past U+10FFFF.
bool isUtf8(std::string_view text) {
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        std::size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            length = 1;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 2;
            if (c == 0xE0) low = 0xA0;
            if (c == 0xED) high = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 3;
            if (c == 0xF0) low = 0x90;
            if (c == 0xF4) high = 0x8F;
        } else {
            return false;
        }
        if (i + length >= n) return false;
        if (s[i + 1] < low || s[i + 1] > high) return false;
        for (std::size_t k = 2; k <= length; ++k)
            if (s[i + k] < 0x80 || s[i + k] > 0xBF) return false;
        i += length + 1;
    }
    return true;
}

// The whole file at `path` as UTF-8 text; any failure throws.
std::string readUtf8(const fs::path& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) fail(errno);
    std::string text;
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(errno);
        if (count == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    if (!isUtf8(text)) fail(EILSEQ);
    return text;
}

}  // namespace

std::optional<fs::path> TerminalAssetLocator::mainResourceDirectory() {
    std::error_code error;
    const fs::path executable = fs::read_symlink("/proc/self/exe", error);
    if (error) return std::nullopt;
    return resourceDirectory(executable.parent_path());
}

std::optional<fs::path> TerminalAssetLocator::resourceDirectory(
    const fs::path& executableDirectory) {
    if (isDirectory(executableDirectory / "resources")) return executableDirectory / "resources";
    const fs::path installed = executableDirectory.parent_path() / "share" / "harborlattice";
    if (isDirectory(installed)) return installed;
    return std::nullopt;
}

std::string_view TerminalAssetLocator::sourcePath(std::string_view name) {
    for (const auto& [asset, path] : sourcePaths)
        if (asset == name) return path;
    return name;
}

TerminalAssetLocator::TerminalAssetLocator(std::optional<fs::path> resourceDirectory)
    : resourceDirectory_(std::move(resourceDirectory)) {}

std::string TerminalAssetLocator::contents(std::string_view name) const {
    if (resourceDirectory_) {
        const fs::path packaged = *resourceDirectory_ / "Terminal" / name;
        if (isReadableFile(packaged)) return readUtf8(packaged);
    }
    if (const char* root = std::getenv("HARBORLATTICE_ROOT")) {
        const fs::path source = fs::path(root) / "web" / "node_modules" / sourcePath(name);
        if (isReadableFile(source)) return readUtf8(source);
    }
    fail(ENOENT);
}

}  // namespace hl
