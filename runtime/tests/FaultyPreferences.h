// FaultyPreferences: a preference store that fails on demand, in front of a real
// one. Reads of chosen keys fail (as a busy or broken database answers) or come
// back as damaged rows; writes fail everywhere or for chosen keys. Everything
// else reaches the real store, so the bytes on disk can be compared afterwards.
#pragma once

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
    // Every write fails, or writes of the chosen keys do.
    bool allWritesFail = false;
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
        if (allWritesFail || failingWrites.count(key) != 0) return false;
        return real_->set(key, value);
    }
    bool remove(const std::string& key) override {
        if (allWritesFail || failingWrites.count(key) != 0) return false;
        return real_->remove(key);
    }
    PreferenceDomainRead readDomain(const std::string& name) const override {
        return real_->readDomain(name);
    }
    std::string lastWriteFailure() const override {
        return allWritesFail || !failingWrites.empty() ? writeFailure : real_->lastWriteFailure();
    }
    bool writeIsPossibleNow() const override {
        return !allWritesFail && real_->writeIsPossibleNow();
    }

    // What a refused write says about itself.
    std::string writeFailure = "database is locked";

  private:
    std::shared_ptr<Preferences> real_;
};

}  // namespace hl::test
