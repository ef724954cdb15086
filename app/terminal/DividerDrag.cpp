// Split lengths and the divider drag.
#include "DividerDrag.h"

#include <algorithm>

#include "PaneLayout.h"

namespace hl {

SplitLengths splitLengths(double length, double ratio) {
    const double first = std::max(0.0, length * ratio - splitDividerThickness / 2);
    const double second = std::max(0.0, length - first - splitDividerThickness);
    return {first, second};
}

double DividerDrag::change(double ratio, double translation, double extent) {
    if (!origin_) origin_ = ratio;
    const double start = origin_.value_or(ratio);
    const double next = PaneLayout::normalizedRatio(start + translation / std::max(extent, 1.0));
    draft_ = next;
    return next;
}

void DividerDrag::end() {
    origin_.reset();
    draft_.reset();
}

}  // namespace hl
