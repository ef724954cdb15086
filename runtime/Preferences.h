// Preferences: the application's key-value store, one SQLite database shared by
// every process of the user. A *domain* is a namespace of keys inside it; a store
// object reads and writes one domain and can read any other domain whole.
// Values are typed: data, text, text list or boolean. Every write is its own
// transaction and is on disk when the call returns.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

struct sqlite3;

namespace hl {

// Opaque bytes, kept apart from text so that the type survives a round trip.
struct PreferenceData {
    std::string bytes;
    bool operator==(const PreferenceData&) const = default;
};

using PreferenceValue = std::variant<PreferenceData, std::string, std::vector<std::string>, bool>;

class PreferencesError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Preferences {
  public:
    // The domain that the application's own keys live in.
    static constexpr const char* standardDomain = "standard";

    // Opens (creating if needed) the database at `file` and binds the store to
    // `domain`. Throws PreferencesError when the database cannot be opened.
    static std::shared_ptr<Preferences> open(const std::filesystem::path& file,
                                             const std::string& domain = standardDomain);
    ~Preferences();
    Preferences(const Preferences&) = delete;
    Preferences& operator=(const Preferences&) = delete;

    const std::string& domain() const { return domain_; }

    std::optional<PreferenceValue> object(const std::string& key) const;
    // Typed reads: absent when the key is missing or holds another type.
    std::optional<PreferenceData> data(const std::string& key) const;
    std::optional<std::string> text(const std::string& key) const;
    std::optional<std::vector<std::string>> textList(const std::string& key) const;
    std::optional<bool> boolean(const std::string& key) const;

    // Writes replace any earlier value of the key. They return false only when
    // the database refused the write.
    bool set(const std::string& key, const PreferenceValue& value);
    bool setBool(const std::string& key, bool value) { return set(key, value); }
    bool remove(const std::string& key);

    // Every key and value of a named domain; empty when the domain holds nothing.
    std::map<std::string, PreferenceValue> persistentDomain(const std::string& name) const;

  private:
    Preferences(sqlite3* db, std::string domain);
    bool execute(const char* sql) const;

    sqlite3* db_;
    std::string domain_;
    mutable std::mutex mutex_;
};

}  // namespace hl
