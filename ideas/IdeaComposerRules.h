// The rules of the idea composer that need no window: when an idea may be
// queued, what the byte counter reads, and what Return does in the field.
#pragma once

#include <QString>

#include <functional>

namespace hl {

// The trimmed text is not empty and the text as typed fits in the inbox's limit.
bool canQueueIdea(const QString& idea);
// The UTF-8 length of the text as typed, "/", the limit, " bytes".
QString ideaByteCounter(const QString& idea);

struct IdeaComposerShortcut {
    IdeaComposerShortcut() = delete;

    // The modifier keys held with Return, by their meaning on the keyboard.
    enum Modifier : unsigned {
        capsLock = 1u << 0,
        shift = 1u << 1,
        control = 1u << 2,
        option = 1u << 3,
        command = 1u << 4,
    };
    enum class Result { handled, ignored };

    // Control+Return (Caps Lock aside) queues when it may and is handled
    // either way; anything else is ignored, so plain Return breaks the line.
    static Result handleReturn(unsigned modifiers, bool canQueue,
                               const std::function<void()>& queue);
};

}  // namespace hl
