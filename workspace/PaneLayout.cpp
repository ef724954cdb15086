// PaneLayout and PaneContext: tree operations and the JSON forms.
#include "PaneLayout.h"

#include <QJsonValue>
#include <QRegularExpression>

#include <cassert>
#include <cmath>

namespace hl {

QString splitAxisRawValue(SplitAxis axis) {
    return axis == SplitAxis::Horizontal ? QStringLiteral("horizontal")
                                         : QStringLiteral("vertical");
}

QString uuidText(const QUuid& id) {
    return id.toString(QUuid::WithoutBraces).toUpper();
}

std::optional<QUuid> uuidFromText(const QString& text) {
    static const QRegularExpression canonical(QStringLiteral(
        "^[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}$"));
    if (!canonical.match(text).hasMatch()) return std::nullopt;
    return QUuid::fromString(text);
}

namespace {

// The UUID held by a required or optional member; throws when it is not UUID text.
QUuid requireUuid(const QJsonValue& value, const char* what) {
    if (!value.isString()) throw LayoutDecodingError(std::string(what) + " is not UUID text");
    auto id = uuidFromText(value.toString());
    if (!id) throw LayoutDecodingError(std::string(what) + " is not UUID text");
    return *id;
}

bool isAbsent(const QJsonValue& value) {
    return value.isUndefined() || value.isNull();
}

}  // namespace

QJsonObject PaneContext::toJson() const {
    QJsonObject json;
    if (projectID) json.insert("projectID", *projectID);
    json.insert("cwd", cwd);
    if (scratchID) json.insert("scratchID", uuidText(*scratchID));
    return json;
}

PaneContext PaneContext::fromJson(const QJsonValue& json) {
    if (!json.isObject()) throw LayoutDecodingError("pane context is not an object");
    const QJsonObject object = json.toObject();
    PaneContext context;
    const QJsonValue project = object.value("projectID");
    if (!isAbsent(project)) {
        if (!project.isString()) throw LayoutDecodingError("projectID is not text");
        context.projectID = project.toString();
    }
    const QJsonValue cwd = object.value("cwd");
    if (!cwd.isString()) throw LayoutDecodingError("cwd is missing");
    context.cwd = cwd.toString();
    const QJsonValue scratch = object.value("scratchID");
    if (!isAbsent(scratch)) {
        context.scratchID = requireUuid(scratch, "scratchID");
    } else if (const QJsonValue seed = object.value("seedID"); !isAbsent(seed)) {
        context.scratchID = requireUuid(seed, "seedID");
    }
    return context;
}

struct PaneLayout::Split {
    SplitAxis axis;
    double ratio;
    PaneLayout first;
    PaneLayout second;
};

PaneLayout PaneLayout::pane(const QUuid& id) {
    PaneLayout leaf;
    leaf.id_ = id;
    return leaf;
}

PaneLayout PaneLayout::split(const QUuid& id, SplitAxis axis, double ratio, PaneLayout first,
                             PaneLayout second) {
    PaneLayout node;
    node.id_ = id;
    node.split_ =
        std::make_shared<const Split>(Split{axis, ratio, std::move(first), std::move(second)});
    return node;
}

SplitAxis PaneLayout::axis() const {
    assert(split_);
    return split_->axis;
}

double PaneLayout::ratio() const {
    assert(split_);
    return split_->ratio;
}

const PaneLayout& PaneLayout::first() const {
    assert(split_);
    return split_->first;
}

const PaneLayout& PaneLayout::second() const {
    assert(split_);
    return split_->second;
}

double PaneLayout::normalizedRatio(double ratio) {
    if (!std::isfinite(ratio)) return defaultSplitRatio;
    return std::min(std::max(ratio, minimumSplitRatio), maximumSplitRatio);
}

QList<QUuid> PaneLayout::paneIDs() const {
    if (isPane()) return {id_};
    return split_->first.paneIDs() + split_->second.paneIDs();
}

PaneLayout PaneLayout::replacing(const QUuid& paneID, const PaneLayout& replacement) const {
    if (isPane()) return id_ == paneID ? replacement : *this;
    return split(id_, split_->axis, split_->ratio, split_->first.replacing(paneID, replacement),
                 split_->second.replacing(paneID, replacement));
}

std::optional<PaneLayout> PaneLayout::removing(const QUuid& paneID) const {
    if (isPane()) return id_ == paneID ? std::nullopt : std::optional<PaneLayout>(*this);
    auto first = split_->first.removing(paneID);
    auto second = split_->second.removing(paneID);
    if (first && second) return split(id_, split_->axis, split_->ratio, *first, *second);
    return first ? first : second;
}

PaneLayout PaneLayout::settingRatio(const QUuid& splitID, double ratio) const {
    if (isPane()) return *this;
    return split(id_, split_->axis, id_ == splitID ? normalizedRatio(ratio) : split_->ratio,
                 split_->first.settingRatio(splitID, ratio),
                 split_->second.settingRatio(splitID, ratio));
}

QString PaneLayout::signature() const {
    if (isPane()) return QStringLiteral("P");
    return (split_->axis == SplitAxis::Vertical ? QStringLiteral("V(") : QStringLiteral("H(")) +
           split_->first.signature() + "," + split_->second.signature() + ")";
}

QJsonObject PaneLayout::toJson() const {
    if (isPane()) return {{"pane", QJsonObject{{"_0", uuidText(id_)}}}};
    QJsonObject fields;
    fields.insert("id", uuidText(id_));
    fields.insert("axis", splitAxisRawValue(split_->axis));
    fields.insert("ratio", normalizedRatio(split_->ratio));
    fields.insert("first", split_->first.toJson());
    fields.insert("second", split_->second.toJson());
    return {{"split", fields}};
}

PaneLayout PaneLayout::fromJson(const QJsonValue& json) {
    if (!json.isObject()) throw LayoutDecodingError("layout node is not an object");
    const QJsonObject node = json.toObject();
    if (node.contains("pane")) {
        const QJsonValue leaf = node.value("pane");
        if (!leaf.isObject()) throw LayoutDecodingError("pane leaf is not an object");
        return pane(requireUuid(leaf.toObject().value("_0"), "pane id"));
    }
    const QJsonValue splitValue = node.value("split");
    if (!splitValue.isObject()) throw LayoutDecodingError("layout node has neither pane nor split");
    const QJsonObject fields = splitValue.toObject();
    const QUuid id = requireUuid(fields.value("id"), "split id");
    const QString axisText = fields.value("axis").toString();
    SplitAxis axis;
    if (axisText == "horizontal") {
        axis = SplitAxis::Horizontal;
    } else if (axisText == "vertical") {
        axis = SplitAxis::Vertical;
    } else {
        throw LayoutDecodingError("split axis is not horizontal or vertical");
    }
    const QJsonValue ratioValue = fields.value("ratio");
    double ratio = defaultSplitRatio;
    if (!isAbsent(ratioValue)) {
        if (!ratioValue.isDouble()) throw LayoutDecodingError("split ratio is not a number");
        ratio = ratioValue.toDouble();
    }
    PaneLayout first = fromJson(fields.value("first"));
    PaneLayout second = fromJson(fields.value("second"));
    return split(id, axis, normalizedRatio(ratio), std::move(first), std::move(second));
}

bool PaneLayout::operator==(const PaneLayout& other) const {
    if (id_ != other.id_ || isPane() != other.isPane()) return false;
    if (isPane() || split_ == other.split_) return true;
    return split_->axis == other.split_->axis && split_->ratio == other.split_->ratio &&
           split_->first == other.split_->first && split_->second == other.split_->second;
}

}  // namespace hl
