// Helpers shared by the runtime tests: throwaway folders and scoped environment.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace hl::test {

// A fresh folder under the system's temporary directory, removed with its content.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

// Sets (or, with nullopt, unsets) an environment variable for the life of the object.
class ScopedEnv {
  public:
    ScopedEnv(std::string name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string name_;
    std::optional<std::string> previous_;
};

// Polls `condition` until it holds or `timeout` passes; returns its last value.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

std::string readFile(const std::filesystem::path& path);

// The permission bits of `path` (0 when it cannot be read).
unsigned modeOf(const std::filesystem::path& path);

}  // namespace hl::test
