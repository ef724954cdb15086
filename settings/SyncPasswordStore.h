// SyncPasswordStore: where the password of a WebDAV sync file is kept. The
// real one is the desktop's Secret Service, reached through QtKeychain with no
// fall-back to a file; answers arrive on the calling thread's event loop.
#pragma once

#include <QString>

#include <functional>
#include <optional>

namespace hl {

class SyncPasswordStore {
  public:
    // `password` absent and `failure` empty: none is kept for the account.
    using ReadDone = std::function<void(std::optional<QString> password, QString failure)>;
    // `failure` empty: kept.
    using WriteDone = std::function<void(QString failure)>;

    virtual ~SyncPasswordStore() = default;
    virtual void read(const QString& account, ReadDone done) = 0;
    virtual void write(const QString& account, const QString& password, WriteDone done) = 0;
};

class SecretServicePasswordStore final : public SyncPasswordStore {
  public:
    static constexpr const char* service = "Harborlattice sync";

    void read(const QString& account, ReadDone done) override;
    void write(const QString& account, const QString& password, WriteDone done) override;
};

}  // namespace hl
