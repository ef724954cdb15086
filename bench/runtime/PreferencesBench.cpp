// Writes per second of a 1 MiB preference value, the size of a large saved
// workspace written on every step of a divider drag, set side by side with a
// store that rewrites one whole file per write (a property-list style store:
// serialise every key, write a temporary file, flush it, rename it over).
//
// Usage: preferences_bench [writes] [other-values]
//   writes        how many writes each store makes (default 300)
//   other-values  how many further 1 MiB values the domain holds beside the one
//                 being written (default 3: accepted, pending and recovery snapshots)
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "Preferences.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// The reference: every write serialises the whole domain into one file.
class WholeFileStore {
  public:
    explicit WholeFileStore(fs::path file) : file_(std::move(file)) {}
    bool set(const std::string& key, const std::string& value) {
        values_[key] = value;
        std::string image;
        for (const auto& [k, v] : values_) {
            image += std::to_string(k.size()) + ":" + k + std::to_string(v.size()) + ":" + v;
        }
        const fs::path temporary = file_.string() + ".tmp";
        const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0) return false;
        bool ok = ::write(fd, image.data(), image.size()) == static_cast<ssize_t>(image.size());
        ok = ::fsync(fd) == 0 && ok;
        ::close(fd);
        return ok && ::rename(temporary.c_str(), file_.c_str()) == 0;
    }

  private:
    fs::path file_;
    std::map<std::string, std::string> values_;
};

std::string megabyte(char fill) {
    return std::string(1 << 20, fill);
}

template <typename Write>
double writesPerSecond(int writes, Write&& write) {
    const auto start = Clock::now();
    for (int i = 0; i < writes; ++i) {
        if (!write(i)) {
            std::fprintf(stderr, "write %d failed\n", i);
            std::exit(1);
        }
    }
    return writes / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const int writes = argc > 1 ? std::atoi(argv[1]) : 300;
    const int others = argc > 2 ? std::atoi(argv[2]) : 3;
    char pattern[] = "/tmp/hl-prefs-bench-XXXXXX";
    const fs::path dir = ::mkdtemp(pattern);

    auto store = hl::Preferences::open(dir / "prefs.sqlite3");
    WholeFileStore reference(dir / "prefs.plist");
    for (int i = 0; i < others; ++i) {
        const std::string key = "other." + std::to_string(i);
        store->set(key, hl::PreferenceData{megabyte('o')});
        reference.set(key, megabyte('o'));
    }
    std::string value = megabyte('w');
    const double sqlite = writesPerSecond(writes, [&](int i) {
        value[static_cast<std::size_t>(i) % value.size()] ^= 1;
        return store->set("harborlattice.workspace.simple.v1", hl::PreferenceData{value});
    });
    const double whole = writesPerSecond(writes, [&](int i) {
        value[static_cast<std::size_t>(i) % value.size()] ^= 1;
        return reference.set("harborlattice.workspace.simple.v1", value);
    });

    std::printf("1 MiB value, %d writes each, %d other 1 MiB values in the domain\n", writes,
                others);
    std::printf("  preferences (SQLite, WAL, durable):  %8.1f writes/s\n", sqlite);
    std::printf("  whole-file rewrite per write:        %8.1f writes/s\n", whole);
    std::printf("  ratio preferences / whole-file:      %8.2f\n", sqlite / whole);
    std::printf("  target 60 writes/s (a divider drag): %s\n", sqlite >= 60 ? "met" : "NOT met");
    store.reset();
    fs::remove_all(dir);
    return 0;
}
