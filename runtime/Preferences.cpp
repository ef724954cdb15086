// Preferences on SQLite: one table (domain, key, type, value) in WAL mode with
// full synchronisation, so each write is durable and atomic while a reader in
// another process sees either the old or the new value.
#include "Preferences.h"

#include "PreferencesFile.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>

namespace hl {

namespace {

enum class StoredType : int { Data = 0, Text = 1, TextList = 2, Boolean = 3 };

// A prepared statement, finalised when it goes out of scope.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK)
            statement_ = nullptr;
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    sqlite3_stmt* get() const { return statement_; }
    explicit operator bool() const { return statement_ != nullptr; }
    void bindText(int index, const std::string& text) {
        sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    }

  private:
    sqlite3_stmt* statement_ = nullptr;
};

bool execute(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Runs SQLite's quick check: false when it could not run; `problem` holds its
// first finding when it ran and found one.
bool quickCheck(sqlite3* db, std::string* problem) {
    Statement check(db, "PRAGMA quick_check(1)");
    if (!check || sqlite3_step(check.get()) != SQLITE_ROW) return false;
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
    const std::string result = text != nullptr ? text : "";
    if (result != "ok") *problem = "damaged database (" + result + ")";
    return true;
}

// The row's value, or an unreadable answer that keeps its bytes.
PreferenceRead decodeRow(sqlite3_stmt* row, int typeColumn, int valueColumn) {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(row, valueColumn));
    const int size = sqlite3_column_bytes(row, valueColumn);
    PreferenceRead result;
    result.storedBytes = bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(size)) : "";
    result.state = PreferenceReadState::present;
    const std::string& raw = result.storedBytes;
    const int type = sqlite3_column_int(row, typeColumn);
    switch (static_cast<StoredType>(type)) {
        case StoredType::Data:
            result.value = PreferenceData{raw};
            return result;
        case StoredType::Text:
            result.value = raw;
            return result;
        case StoredType::Boolean:
            if (raw == "1" || raw == "0") {
                result.value = raw == "1";
                return result;
            }
            break;
        case StoredType::TextList: {
            auto list = nlohmann::json::parse(raw, nullptr, false);
            if (!list.is_array()) break;
            std::vector<std::string> items;
            for (const auto& item : list) {
                if (!item.is_string()) break;
                items.push_back(item.get<std::string>());
            }
            if (items.size() != list.size()) break;
            result.value = std::move(items);
            return result;
        }
    }
    result.state = PreferenceReadState::unreadable;
    result.detail = "stored value of type " + std::to_string(type) + " cannot be read";
    return result;
}

std::pair<StoredType, std::string> encodeValue(const PreferenceValue& value) {
    struct Encoder {
        std::pair<StoredType, std::string> operator()(const PreferenceData& d) const {
            return {StoredType::Data, d.bytes};
        }
        std::pair<StoredType, std::string> operator()(const std::string& s) const {
            return {StoredType::Text, s};
        }
        std::pair<StoredType, std::string> operator()(const std::vector<std::string>& list) const {
            return {StoredType::TextList, nlohmann::json(list).dump()};
        }
        std::pair<StoredType, std::string> operator()(bool b) const {
            return {StoredType::Boolean, b ? "1" : "0"};
        }
    };
    return std::visit(Encoder{}, value);
}

class SqlitePreferences final : public Preferences {
  public:
    SqlitePreferences(sqlite3* db, std::filesystem::path file, std::string domain)
        : db_(db), file_(std::move(file)), domain_(std::move(domain)) {}
    ~SqlitePreferences() override { sqlite3_close(db_); }

    const std::string& domain() const override { return domain_; }
    std::filesystem::path location() const override { return file_; }

    PreferenceRead read(const std::string& key) const override {
        std::lock_guard guard(mutex_);
        Statement select(db_, "SELECT type, value FROM preferences WHERE domain = ?1 AND key = ?2");
        if (!select) return failure();
        select.bindText(1, domain_);
        select.bindText(2, key);
        switch (sqlite3_step(select.get())) {
            case SQLITE_ROW:
                return decodeRow(select.get(), 0, 1);
            case SQLITE_DONE:
                return PreferenceRead{};
            default:
                return failure();
        }
    }

    bool set(const std::string& key, const PreferenceValue& value) override {
        const auto [type, bytes] = encodeValue(value);
        std::lock_guard guard(mutex_);
        Statement upsert(
            db_,
            "INSERT INTO preferences (domain, key, type, value) VALUES (?1, ?2, ?3, ?4)"
            " ON CONFLICT (domain, key) DO UPDATE SET type = ?3, value = ?4");
        if (!upsert) return false;
        upsert.bindText(1, domain_);
        upsert.bindText(2, key);
        sqlite3_bind_int(upsert.get(), 3, static_cast<int>(type));
        sqlite3_bind_blob(upsert.get(), 4, bytes.data(), static_cast<int>(bytes.size()),
                          SQLITE_STATIC);
        return finished(upsert.get());
    }

    bool remove(const std::string& key) override {
        std::lock_guard guard(mutex_);
        Statement erase(db_, "DELETE FROM preferences WHERE domain = ?1 AND key = ?2");
        if (!erase) return false;
        erase.bindText(1, domain_);
        erase.bindText(2, key);
        return finished(erase.get());
    }

    std::string lastWriteFailure() const override {
        std::lock_guard guard(mutex_);
        return lastWriteFailure_;
    }

    bool writeIsPossibleNow() const override {
        std::lock_guard guard(mutex_);
        if (PreferencesFile::accessProblem(file_)) return false;
        sqlite3_busy_timeout(db_, 0);
        const bool free = execute(db_, "BEGIN IMMEDIATE");
        if (free) execute(db_, "ROLLBACK");
        sqlite3_busy_timeout(db_, busyTimeout_);
        return free;
    }

    PreferenceDomainRead readDomain(const std::string& name) const override {
        PreferenceDomainRead result;
        std::lock_guard guard(mutex_);
        Statement select(db_, "SELECT key, type, value FROM preferences WHERE domain = ?1");
        if (!select) return failedDomain();
        select.bindText(1, name);
        int step = SQLITE_ROW;
        while ((step = sqlite3_step(select.get())) == SQLITE_ROW) {
            const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
            if (key == nullptr) continue;
            auto row = decodeRow(select.get(), 1, 2);
            if (row.isPresent()) {
                result.values.emplace(key, std::move(*row.value));
            } else {
                result.unreadableKeys.insert(key);
            }
        }
        if (step != SQLITE_DONE) return failedDomain();
        return result;
    }

    int busyTimeout_ = 0;

  private:
    // Steps a write to its end; on failure keeps why, naming the file at fault.
    bool finished(sqlite3_stmt* statement) {
        if (sqlite3_step(statement) == SQLITE_DONE) {
            lastWriteFailure_.clear();
            return true;
        }
        const int code = sqlite3_errcode(db_) & 0xff;
        if (auto problem = PreferencesFile::accessProblem(file_)) {
            lastWriteFailure_ = problem->what();
        } else if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
            lastWriteFailure_ = std::string("the database is in use by another process (") +
                                sqlite3_errmsg(db_) + ")";
        } else {
            lastWriteFailure_ = sqlite3_errmsg(db_);
        }
        return false;
    }

    PreferenceRead failure() const {
        PreferenceRead result;
        result.state = PreferenceReadState::failed;
        result.detail = sqlite3_errmsg(db_);
        return result;
    }
    PreferenceDomainRead failedDomain() const {
        PreferenceDomainRead result;
        result.failed = true;
        result.detail = sqlite3_errmsg(db_);
        return result;
    }

    sqlite3* db_;
    std::filesystem::path file_;
    std::string domain_;
    std::string lastWriteFailure_;
    mutable std::mutex mutex_;
};

}  // namespace

std::shared_ptr<Preferences> Preferences::open(const std::filesystem::path& file,
                                               const std::string& domain,
                                               std::chrono::milliseconds busyTimeout,
                                               std::optional<std::chrono::milliseconds> openWait) {
    std::error_code ignored;
    if (file.has_parent_path() && !std::filesystem::exists(file.parent_path())) {
        std::filesystem::create_directories(file.parent_path(), ignored);
        ::chmod(file.parent_path().c_str(), 0700);
    }
    if (auto problem = PreferencesFile::accessProblem(file)) throw *problem;
    // Only a file made here is narrowed to the owner; a mode the user chose stays.
    const bool isNew = !std::filesystem::exists(file, ignored);
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(file.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        std::string message = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw PreferencesError(PreferencesError::Kind::cannotOpen,
                               "Cannot open preferences at " + file.string() + ": " + message,
                               file);
    }
    if (isNew) ::chmod(file.c_str(), 0600);
    // At start another process's lock is reported at once, not waited out.
    sqlite3_busy_timeout(db, static_cast<int>(openWait.value_or(busyTimeout).count()));
    // Large pages keep a megabyte value to a few pages; they only apply to a new
    // file. The quick check reads every page, so a damaged one is found here and
    // not by a later read; the write probe finds another process's write lock.
    std::string check;
    const bool prepared =
        execute(db, "PRAGMA page_size=65536") && execute(db, "PRAGMA journal_mode=WAL") &&
        execute(db, "PRAGMA synchronous=FULL") &&
        execute(db,
                "CREATE TABLE IF NOT EXISTS preferences ("
                " domain TEXT NOT NULL, key TEXT NOT NULL,"
                " type INTEGER NOT NULL, value BLOB NOT NULL,"
                " PRIMARY KEY (domain, key)) WITHOUT ROWID") &&
        execute(db, "SELECT count(*) FROM preferences") && quickCheck(db, &check) &&
        execute(db, "BEGIN IMMEDIATE") && execute(db, "ROLLBACK");
    if (!prepared || !check.empty()) {
        const int code = check.empty() ? sqlite3_errcode(db) & 0xff : SQLITE_CORRUPT;
        const std::string message = check.empty() ? sqlite3_errmsg(db) : check;
        sqlite3_close(db);
        if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
            throw PreferencesError(
                PreferencesError::Kind::busy,
                "Preferences at " + file.string() + " are in use by another process: " + message,
                file);
        }
        if (code == SQLITE_NOTADB || code == SQLITE_CORRUPT) {
            throw PreferencesError(PreferencesError::Kind::notADatabase,
                                   file.string() + " is not a readable database: " + message, file,
                                   message);
        }
        throw PreferencesError(PreferencesError::Kind::cannotOpen,
                               "Cannot prepare preferences at " + file.string() + ": " + message,
                               file);
    }
    if (sqlite3_db_readonly(db, "main") == 1) {
        sqlite3_close(db);
        throw PreferencesError(PreferencesError::Kind::notWritable,
                               "Preferences at " + file.string() + " cannot be written", file);
    }
    sqlite3_busy_timeout(db, static_cast<int>(busyTimeout.count()));
    auto store = std::make_shared<SqlitePreferences>(db, file, domain);
    store->busyTimeout_ = static_cast<int>(busyTimeout.count());
    return store;
}

PreferenceRead Preferences::readData(const std::string& key) const {
    auto result = read(key);
    if (result.isPresent() && !std::holds_alternative<PreferenceData>(*result.value)) {
        result.state = PreferenceReadState::unreadable;
        result.detail = "stored value is not data";
        result.value.reset();
    }
    return result;
}

PreferenceRead Preferences::readTextList(const std::string& key) const {
    auto result = read(key);
    if (result.isPresent() && !std::holds_alternative<std::vector<std::string>>(*result.value)) {
        result.state = PreferenceReadState::unreadable;
        result.detail = "stored value is not a list of texts";
        result.value.reset();
    }
    return result;
}

std::optional<PreferenceValue> Preferences::object(const std::string& key) const {
    auto result = read(key);
    return result.isPresent() ? result.value : std::nullopt;
}

namespace {
template <typename T>
std::optional<T> typed(const std::optional<PreferenceValue>& value) {
    if (const T* v = value ? std::get_if<T>(&*value) : nullptr) return *v;
    return std::nullopt;
}
}  // namespace

std::optional<PreferenceData> Preferences::data(const std::string& key) const {
    return typed<PreferenceData>(object(key));
}
std::optional<std::string> Preferences::text(const std::string& key) const {
    return typed<std::string>(object(key));
}
std::optional<std::vector<std::string>> Preferences::textList(const std::string& key) const {
    return typed<std::vector<std::string>>(object(key));
}
std::optional<bool> Preferences::boolean(const std::string& key) const {
    return typed<bool>(object(key));
}

}  // namespace hl
