// Chooses the transport that HARBORLATTICE_SYNC_URL names.
#include <QUrl>

#include <cstdlib>

#include "FolderSharedStateTransport.h"
#include "SharedStateTransport.h"
#include "WebDavSharedStateTransport.h"

namespace hl {

std::unique_ptr<SharedStateTransport> makeSharedStateTransport() {
    const char* value = std::getenv(syncUrlVariable);
    return makeSharedStateTransport(value ? QString::fromUtf8(value) : QString());
}

std::unique_ptr<SharedStateTransport> makeSharedStateTransport(const QString& url) {
    if (url.trimmed().isEmpty()) return std::make_unique<DisabledSharedStateTransport>();
    const QUrl parsed(url.trimmed());
    if (parsed.isLocalFile()) {
        return std::make_unique<FolderSharedStateTransport>(parsed.toLocalFile());
    }
    return std::make_unique<WebDavSharedStateTransport>(parsed);
}

}  // namespace hl
