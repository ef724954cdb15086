// Composer rules.
#include "IdeaComposerRules.h"

#include "IdeaInboxStore.h"

namespace hl {

bool canQueueIdea(const QString& idea) {
    return !idea.trimmed().isEmpty() &&
           static_cast<std::size_t>(idea.toUtf8().size()) <= IdeaInboxStore::maximumIdeaBytes;
}

QString ideaByteCounter(const QString& idea) {
    return QString::number(idea.toUtf8().size()) + "/" +
           QString::number(IdeaInboxStore::maximumIdeaBytes) + " bytes";
}

IdeaComposerShortcut::Result IdeaComposerShortcut::handleReturn(
    unsigned modifiers, bool canQueue, const std::function<void()>& queue) {
    if ((modifiers & ~unsigned(capsLock)) != control) return Result::ignored;
    if (canQueue) queue();
    return Result::handled;
}

}  // namespace hl
