// Throwaway folders, scoped environment variables and waiting with a deadline.
#include "TestSupport.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace hl::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "hl-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    // Resolved, so that a shell's own idea of its directory matches ours.
    path_ = std::filesystem::canonical(pattern);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) previous_ = old;
    if (value) {
        ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

ScopedEnv::~ScopedEnv() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

}  // namespace hl::test
