// The split tree of a tab: a PaneLayout is either a *leaf* holding one pane's id
// or a *split* with its own id, an *axis* (horizontal: side by side, first on
// the left; vertical: stacked, first on top), a *ratio* (the first child's share,
// kept within 0.1–0.9) and two children. PaneContext says what a pane runs in.
// Both are plain values with fixed JSON forms.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>

#include <memory>
#include <optional>
#include <stdexcept>

namespace hl {

enum class SplitAxis { Horizontal, Vertical };

QString splitAxisRawValue(SplitAxis axis);

// A stored tree or context that cannot be read: the structure is malformed.
class LayoutDecodingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// UUID text as written: canonical, 36 characters, upper case.
QString uuidText(const QUuid& id);
// Reads canonical UUID text in any case; absent for anything else.
std::optional<QUuid> uuidFromText(const QString& text);

struct PaneContext {
    std::optional<QString> projectID;
    QString cwd;
    std::optional<QUuid> scratchID;

    bool operator==(const PaneContext&) const = default;

    QJsonObject toJson() const;
    // Throws LayoutDecodingError; reads the older "seedID" when "scratchID" gives nothing.
    static PaneContext fromJson(const QJsonValue& json);
};

class PaneLayout {
  public:
    static constexpr double defaultSplitRatio = 0.5;
    static constexpr double minimumSplitRatio = 0.1;
    static constexpr double maximumSplitRatio = 0.9;

    static PaneLayout pane(const QUuid& id);
    static PaneLayout split(const QUuid& id, SplitAxis axis, double ratio, PaneLayout first,
                            PaneLayout second);

    bool isPane() const { return split_ == nullptr; }
    // The leaf's pane id, or the split's own id.
    const QUuid& id() const { return id_; }
    // Split members; calling them on a leaf is a programming error.
    SplitAxis axis() const;
    double ratio() const;
    const PaneLayout& first() const;
    const PaneLayout& second() const;

    // A ratio clamped into 0.1–0.9; anything not finite becomes 0.5.
    static double normalizedRatio(double ratio);

    // Every leaf, left to right: the order of the panes in a tab.
    QList<QUuid> paneIDs() const;
    // The tree with every leaf of `paneID` replaced by `replacement`.
    PaneLayout replacing(const QUuid& paneID, const PaneLayout& replacement) const;
    // The tree without the leaf; a split left with one child collapses into it.
    std::optional<PaneLayout> removing(const QUuid& paneID) const;
    // The tree with the split's ratio set (normalised); an unknown id changes nothing.
    PaneLayout settingRatio(const QUuid& splitID, double ratio) const;
    // The shape alone, as in "H(P,V(P,P))"; for diagnostics.
    QString signature() const;

    QJsonObject toJson() const;
    // Throws LayoutDecodingError on a malformed structure; ratios are clamped.
    static PaneLayout fromJson(const QJsonValue& json);

    bool operator==(const PaneLayout& other) const;

  private:
    struct Split;
    QUuid id_;
    std::shared_ptr<const Split> split_;
};

}  // namespace hl
