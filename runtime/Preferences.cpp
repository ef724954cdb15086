// Preferences on SQLite: one table (domain, key, type, value) in WAL mode with
// full synchronisation, so each write is durable and atomic while a reader in
// another process sees either the old or the new value.
#include "Preferences.h"

#include <sqlite3.h>
#include <sys/stat.h>

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

std::optional<PreferenceValue> decodeRow(sqlite3_stmt* row, int typeColumn, int valueColumn) {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(row, valueColumn));
    const int size = sqlite3_column_bytes(row, valueColumn);
    std::string raw = bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(size)) : "";
    switch (static_cast<StoredType>(sqlite3_column_int(row, typeColumn))) {
        case StoredType::Data:
            return PreferenceData{std::move(raw)};
        case StoredType::Text:
            return raw;
        case StoredType::Boolean:
            return raw == "1";
        case StoredType::TextList: {
            auto list = nlohmann::json::parse(raw, nullptr, false);
            if (!list.is_array()) return std::nullopt;
            std::vector<std::string> items;
            for (const auto& item : list) {
                if (!item.is_string()) return std::nullopt;
                items.push_back(item.get<std::string>());
            }
            return items;
        }
    }
    return std::nullopt;
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

}  // namespace

std::shared_ptr<Preferences> Preferences::open(const std::filesystem::path& file,
                                               const std::string& domain) {
    std::error_code ignored;
    if (file.has_parent_path() && !std::filesystem::exists(file.parent_path())) {
        std::filesystem::create_directories(file.parent_path(), ignored);
        ::chmod(file.parent_path().c_str(), 0700);
    }
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(file.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        std::string message = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw PreferencesError("Cannot open preferences at " + file.string() + ": " + message);
    }
    ::chmod(file.c_str(), 0600);
    std::shared_ptr<Preferences> store(new Preferences(db, domain));
    sqlite3_busy_timeout(db, 10000);
    // Large pages keep a megabyte value to a few pages; they only apply to a new file.
    if (!store->execute("PRAGMA page_size=65536") || !store->execute("PRAGMA journal_mode=WAL") ||
        !store->execute("PRAGMA synchronous=FULL") ||
        !store->execute("CREATE TABLE IF NOT EXISTS preferences ("
                        " domain TEXT NOT NULL, key TEXT NOT NULL,"
                        " type INTEGER NOT NULL, value BLOB NOT NULL,"
                        " PRIMARY KEY (domain, key)) WITHOUT ROWID")) {
        throw PreferencesError("Cannot prepare preferences at " + file.string() + ": " +
                               sqlite3_errmsg(db));
    }
    return store;
}

Preferences::Preferences(sqlite3* db, std::string domain) : db_(db), domain_(std::move(domain)) {}

Preferences::~Preferences() {
    sqlite3_close(db_);
}

bool Preferences::execute(const char* sql) const {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::optional<PreferenceValue> Preferences::object(const std::string& key) const {
    std::lock_guard guard(mutex_);
    Statement select(db_, "SELECT type, value FROM preferences WHERE domain = ?1 AND key = ?2");
    if (!select) return std::nullopt;
    select.bindText(1, domain_);
    select.bindText(2, key);
    if (sqlite3_step(select.get()) != SQLITE_ROW) return std::nullopt;
    return decodeRow(select.get(), 0, 1);
}

std::optional<PreferenceData> Preferences::data(const std::string& key) const {
    auto value = object(key);
    if (auto* d = value ? std::get_if<PreferenceData>(&*value) : nullptr) return *d;
    return std::nullopt;
}

std::optional<std::string> Preferences::text(const std::string& key) const {
    auto value = object(key);
    if (auto* s = value ? std::get_if<std::string>(&*value) : nullptr) return *s;
    return std::nullopt;
}

std::optional<std::vector<std::string>> Preferences::textList(const std::string& key) const {
    auto value = object(key);
    if (auto* l = value ? std::get_if<std::vector<std::string>>(&*value) : nullptr) return *l;
    return std::nullopt;
}

std::optional<bool> Preferences::boolean(const std::string& key) const {
    auto value = object(key);
    if (auto* b = value ? std::get_if<bool>(&*value) : nullptr) return *b;
    return std::nullopt;
}

bool Preferences::set(const std::string& key, const PreferenceValue& value) {
    const auto [type, bytes] = encodeValue(value);
    std::lock_guard guard(mutex_);
    Statement upsert(db_,
                     "INSERT INTO preferences (domain, key, type, value) VALUES (?1, ?2, ?3, ?4)"
                     " ON CONFLICT (domain, key) DO UPDATE SET type = ?3, value = ?4");
    if (!upsert) return false;
    upsert.bindText(1, domain_);
    upsert.bindText(2, key);
    sqlite3_bind_int(upsert.get(), 3, static_cast<int>(type));
    sqlite3_bind_blob(upsert.get(), 4, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    return sqlite3_step(upsert.get()) == SQLITE_DONE;
}

bool Preferences::remove(const std::string& key) {
    std::lock_guard guard(mutex_);
    Statement erase(db_, "DELETE FROM preferences WHERE domain = ?1 AND key = ?2");
    if (!erase) return false;
    erase.bindText(1, domain_);
    erase.bindText(2, key);
    return sqlite3_step(erase.get()) == SQLITE_DONE;
}

std::map<std::string, PreferenceValue> Preferences::persistentDomain(
    const std::string& name) const {
    std::map<std::string, PreferenceValue> values;
    std::lock_guard guard(mutex_);
    Statement select(db_, "SELECT key, type, value FROM preferences WHERE domain = ?1");
    if (!select) return values;
    select.bindText(1, name);
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
        const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
        if (auto value = decodeRow(select.get(), 1, 2); key != nullptr && value) {
            values.emplace(key, std::move(*value));
        }
    }
    return values;
}

}  // namespace hl
