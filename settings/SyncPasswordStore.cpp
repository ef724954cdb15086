// The sync password in the Secret Service, through QtKeychain.
#include "SyncPasswordStore.h"

#include <qt6keychain/keychain.h>

namespace hl {

void SecretServicePasswordStore::read(const QString& account, ReadDone done) {
    auto* job = new QKeychain::ReadPasswordJob(QString::fromLatin1(service));
    job->setAutoDelete(true);
    job->setInsecureFallback(false);
    job->setKey(account);
    QObject::connect(job, &QKeychain::Job::finished, job, [job, done = std::move(done)] {
        if (job->error() == QKeychain::NoError) return done(job->textData(), QString());
        if (job->error() == QKeychain::EntryNotFound) return done(std::nullopt, QString());
        done(std::nullopt, job->errorString());
    });
    job->start();
}

void SecretServicePasswordStore::write(const QString& account, const QString& password,
                                       WriteDone done) {
    auto* job = new QKeychain::WritePasswordJob(QString::fromLatin1(service));
    job->setAutoDelete(true);
    job->setInsecureFallback(false);
    job->setKey(account);
    job->setTextData(password);
    QObject::connect(job, &QKeychain::Job::finished, job, [job, done = std::move(done)] {
        done(job->error() == QKeychain::NoError ? QString() : job->errorString());
    });
    job->start();
}

}  // namespace hl
