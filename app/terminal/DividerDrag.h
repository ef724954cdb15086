// The arithmetic of a split on screen. A split of `length` points gives its
// first child length × ratio less half the divider, the divider its fixed
// thickness, and the second child the rest. A *drag* of the divider fixes the
// ratio in force when it begins (the origin) and sets the ratio from the
// pointer's whole translation since then, so that the store's echo of each
// step never accumulates; the *draft* is the latest ratio, drawn at once.
#pragma once

#include <optional>

namespace hl {

inline constexpr double splitDividerThickness = 6;

struct SplitLengths {
    double first;
    double second;
};

// The children's lengths along the axis; the divider lies between them.
SplitLengths splitLengths(double length, double ratio);

class DividerDrag {
  public:
    // One pointer change of `translation` along the axis since the press, on a
    // split of `extent` points whose ratio in force is `ratio`; returns the
    // normalised ratio to store.
    double change(double ratio, double translation, double extent);
    // The pointer was released: the stored ratio is in force again.
    void end();

    const std::optional<double>& originRatio() const { return origin_; }
    const std::optional<double>& draftRatio() const { return draft_; }
    // The draft while dragging, otherwise the stored ratio.
    double ratioInForce(double stored) const { return draft_.value_or(stored); }

  private:
    std::optional<double> origin_;
    std::optional<double> draft_;
};

}  // namespace hl
