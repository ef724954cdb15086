// FaultyPreferences: a preference store that fails on demand, in front of a real
// one. Reads of chosen keys fail (as a busy or broken database answers) or come
// back as damaged rows; writes of chosen keys fail. Everything else reaches the
// real store, so the bytes on disk can be compared afterwards. And the real fault
// of a busy database: another connection that holds its write lock.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <set>
#include <string>

#include "Preferences.h"

namespace hl::test {

class FaultyPreferences final : public Preferences {
  public:
    explicit FaultyPreferences(std::shared_ptr<Preferences> real) : real_(std::move(real)) {}

    // Keys whose reads fail, or read as rows this version cannot decode.
    std::set<std::string> failingReads;
    std::set<std::string> damagedReads;
    // Writes of these keys fail.
    std::set<std::string> failingWrites;

    const std::string& domain() const override { return real_->domain(); }
    std::filesystem::path location() const override { return real_->location(); }

    PreferenceRead read(const std::string& key) const override {
        if (failingReads.count(key) != 0) {
            PreferenceRead failed;
            failed.state = PreferenceReadState::failed;
            failed.detail = "database is locked";
            return failed;
        }
        auto result = real_->read(key);
        if (damagedReads.count(key) != 0 && result.isPresent()) {
            result.state = PreferenceReadState::unreadable;
            result.value.reset();
        }
        return result;
    }
    bool set(const std::string& key, const PreferenceValue& value) override {
        if (failingWrites.count(key) != 0) return false;
        return real_->set(key, value);
    }
    bool remove(const std::string& key) override {
        if (failingWrites.count(key) != 0) return false;
        return real_->remove(key);
    }
    PreferenceDomainRead readDomain(const std::string& name) const override {
        return real_->readDomain(name);
    }
    std::string lastWriteFailure() const override {
        return !failingWrites.empty() ? "database is locked" : real_->lastWriteFailure();
    }
    bool writeIsPossibleNow() const override { return real_->writeIsPossibleNow(); }

  private:
    std::shared_ptr<Preferences> real_;
};

// A second connection that holds the database's write lock until released.
class WriterHoldingTheLock {
  public:
    explicit WriterHoldingTheLock(const std::filesystem::path& file) {
        EXPECT_EQ(sqlite3_open(file.c_str(), &raw_), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(raw_, "BEGIN EXCLUSIVE; UPDATE preferences SET value = value;",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK);
    }
    ~WriterHoldingTheLock() { release(); }
    void release() {
        if (raw_ == nullptr) return;
        sqlite3_exec(raw_, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(raw_);
        raw_ = nullptr;
    }

  private:
    sqlite3* raw_ = nullptr;
};

}  // namespace hl::test
