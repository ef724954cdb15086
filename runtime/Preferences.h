// Preferences: the application's key-value store, one SQLite database shared by
// every process of the user. A *domain* is a namespace of keys inside it; a store
// object reads and writes one domain and can read any other domain whole.
// Values are typed: data, text, text list or boolean. Every write is its own
// transaction and is on disk when the call returns.
//
// A read has three answers besides a value: *absent* (no row), *unreadable* (a
// row this version cannot decode: another type than asked for, a type code from
// a later version, a damaged list) and *failed* (the database did not answer:
// busy past the time-out, an I/O error, a corrupt file). Only absent may be
// taken for "nothing stored yet".
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace hl {

// Opaque bytes, kept apart from text so that the type survives a round trip.
struct PreferenceData {
    std::string bytes;
    bool operator==(const PreferenceData&) const = default;
};

using PreferenceValue = std::variant<PreferenceData, std::string, std::vector<std::string>, bool>;

enum class PreferenceReadState { absent, present, unreadable, failed };

// One key's answer. `storedBytes` holds the row's exact bytes when there is a
// row (present or unreadable), so that damaged data can be copied out whole.
struct PreferenceRead {
    PreferenceReadState state = PreferenceReadState::absent;
    std::optional<PreferenceValue> value;
    std::string storedBytes;
    std::string detail;

    bool isAbsent() const { return state == PreferenceReadState::absent; }
    bool isPresent() const { return state == PreferenceReadState::present; }
    // Unreadable or failed: there may be data, and it must not be overwritten.
    bool isDamaged() const { return !isAbsent() && !isPresent(); }
};

// A whole domain: the values that decoded, and the keys whose rows did not.
struct PreferenceDomainRead {
    bool failed = false;
    std::string detail;
    std::map<std::string, PreferenceValue> values;
    std::set<std::string> unreadableKeys;
};

// Why the database could not be opened: another process holds it (`busy`); a
// file this user may not read and write (`notWritable`: the database, one of its
// companions or its folder); a file that is not a database or is damaged
// (`notADatabase`); anything else (`cannotOpen`). `file` is the file at fault.
class PreferencesError : public std::runtime_error {
  public:
    enum class Kind { busy, cannotOpen, notWritable, notADatabase };
    PreferencesError(Kind kind, const std::string& message, std::filesystem::path file = {},
                     std::string reason = {})
        : std::runtime_error(message),
          kind_(kind),
          file_(std::move(file)),
          reason_(std::move(reason)) {}
    Kind kind() const { return kind_; }
    const std::filesystem::path& file() const { return file_; }
    // SQLite's own words for what is wrong, without the file's name.
    const std::string& reason() const { return reason_; }

  private:
    Kind kind_;
    std::filesystem::path file_;
    std::string reason_;
};

class Preferences {
  public:
    // The domain that the application's own keys live in.
    static constexpr const char* standardDomain = "standard";
    static constexpr std::chrono::milliseconds defaultBusyTimeout{10000};
    // How long the application's start waits for another process's write lock
    // before it reports the database busy.
    static constexpr std::chrono::milliseconds startWaitLimit{1000};

    // Opens (creating if needed) the database at `file` and binds the store to
    // `domain`. The files are checked first (see PreferencesFile.h), so that a
    // start that cannot write leaves no companion behind. A database that another
    // process holds for writing is waited for up to `openWait` (by
    // default `busyTimeout`), then reported busy; later reads and writes wait
    // up to `busyTimeout`. Throws PreferencesError when it cannot be opened for writing.
    static std::shared_ptr<Preferences> open(
        const std::filesystem::path& file, const std::string& domain = standardDomain,
        std::chrono::milliseconds busyTimeout = defaultBusyTimeout,
        std::optional<std::chrono::milliseconds> openWait = std::nullopt);
    virtual ~Preferences() = default;

    virtual const std::string& domain() const = 0;
    // Where the values live, for messages.
    virtual std::filesystem::path location() const = 0;

    virtual PreferenceRead read(const std::string& key) const = 0;
    // Writes replace any earlier value of the key. They return false when the
    // database refused the write.
    virtual bool set(const std::string& key, const PreferenceValue& value) = 0;
    virtual bool remove(const std::string& key) = 0;
    virtual PreferenceDomainRead readDomain(const std::string& name) const = 0;
    // Why the last write was refused, naming the file at fault when one is (a
    // companion that cannot be written, another process holding the database);
    // empty when nothing more is known.
    virtual std::string lastWriteFailure() const { return {}; }
    // True when a write could start now without waiting for another process.
    virtual bool writeIsPossibleNow() const { return true; }

    // A read that must be of one type: a row of another type is unreadable.
    PreferenceRead readData(const std::string& key) const;
    PreferenceRead readTextList(const std::string& key) const;

    // Plain typed reads for values whose loss costs nothing: absent unless the
    // row is present and of the type.
    std::optional<PreferenceValue> object(const std::string& key) const;
    std::optional<PreferenceData> data(const std::string& key) const;
    std::optional<std::string> text(const std::string& key) const;
    std::optional<std::vector<std::string>> textList(const std::string& key) const;
    std::optional<bool> boolean(const std::string& key) const;
    bool setBool(const std::string& key, bool value) { return set(key, value); }
    // Every decodable key and value of a named domain.
    std::map<std::string, PreferenceValue> persistentDomain(const std::string& name) const {
        return readDomain(name).values;
    }

  protected:
    Preferences() = default;
    Preferences(const Preferences&) = delete;
    Preferences& operator=(const Preferences&) = delete;
};

}  // namespace hl
