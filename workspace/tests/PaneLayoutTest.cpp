// The split tree's operations and the JSON forms of the tree and a pane's context.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <cmath>

#include "PaneLayout.h"

using hl::LayoutDecodingError;
using hl::PaneContext;
using hl::PaneLayout;
using hl::SplitAxis;

namespace {

QJsonObject parse(const char* text) {
    return QJsonDocument::fromJson(text).object();
}

class PaneLayoutTest : public ::testing::Test {
  protected:
    QUuid a = QUuid::createUuid(), b = QUuid::createUuid(), c = QUuid::createUuid();
    QUuid outer = QUuid::createUuid(), inner = QUuid::createUuid();
    // H(a, V(b, c))
    PaneLayout tree =
        PaneLayout::split(outer, SplitAxis::Horizontal, 0.3, PaneLayout::pane(a),
                          PaneLayout::split(inner, SplitAxis::Vertical, 0.6, PaneLayout::pane(b),
                                            PaneLayout::pane(c)));
};

TEST_F(PaneLayoutTest, RemovingCollapsesSplitsAndKeepsTheRest) {
    EXPECT_EQ(tree.paneIDs(), (QList<QUuid>{a, b, c}));
    EXPECT_EQ(tree.signature(), "H(P,V(P,P))");

    auto withoutB = tree.removing(b);
    ASSERT_TRUE(withoutB);
    EXPECT_EQ(*withoutB, PaneLayout::split(outer, SplitAxis::Horizontal, 0.3, PaneLayout::pane(a),
                                           PaneLayout::pane(c)));

    // Removing the left leaf leaves the inner split whole, with its own ratio.
    EXPECT_EQ(*tree.removing(a), tree.second());
    EXPECT_EQ(*tree.removing(QUuid::createUuid()), tree);

    EXPECT_FALSE(PaneLayout::pane(a).removing(a));
    EXPECT_EQ(*PaneLayout::pane(a).removing(b), PaneLayout::pane(a));
    EXPECT_FALSE(tree.removing(a)->removing(b)->removing(c));
}

TEST_F(PaneLayoutTest, ReplacingAndRatios) {
    const QUuid d = QUuid::createUuid(), made = QUuid::createUuid();
    const auto split =
        PaneLayout::split(made, SplitAxis::Vertical, 0.5, PaneLayout::pane(c), PaneLayout::pane(d));
    const auto replaced = tree.replacing(c, split);
    EXPECT_EQ(replaced.paneIDs(), (QList<QUuid>{a, b, c, d}));
    EXPECT_EQ(replaced.signature(), "H(P,V(P,V(P,P)))");
    EXPECT_EQ(replaced.ratio(), 0.3);

    EXPECT_EQ(tree.settingRatio(inner, 0.05).second().ratio(), 0.1);
    EXPECT_EQ(tree.settingRatio(inner, 2).second().ratio(), 0.9);
    EXPECT_EQ(tree.settingRatio(outer, NAN).ratio(), 0.5);
    EXPECT_EQ(tree.settingRatio(QUuid::createUuid(), 0.2), tree);
    EXPECT_EQ(tree.settingRatio(outer, 0.8).signature(), tree.signature());
    EXPECT_NE(tree.settingRatio(outer, 0.8), tree) << "equality includes ratios";
}

TEST_F(PaneLayoutTest, JsonRoundTripWritesUpperCaseAndTheLeafKey) {
    const QJsonObject json = tree.toJson();
    const QString text = QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
    EXPECT_TRUE(text.contains("\"_0\":\"" + a.toString(QUuid::WithoutBraces).toUpper() + "\""));
    EXPECT_FALSE(text.contains(a.toString(QUuid::WithoutBraces).toLower()));
    EXPECT_EQ(PaneLayout::fromJson(json), tree);

    // Lower-case ids are read; ratios are clamped or defaulted on reading.
    const auto read =
        PaneLayout::fromJson(parse(R"({"split":{"id":"abcdef01-2345-6789-abcd-ef0123456789",
        "axis":"vertical","ratio":0.05,"extra":true,
        "first":{"pane":{"_0":"00000000-0000-0000-0000-0000000000aa"}},
        "second":{"split":{"id":"ABCDEF01-2345-6789-ABCD-EF0123456780","axis":"horizontal",
          "first":{"pane":{"_0":"00000000-0000-0000-0000-0000000000bb"}},
          "second":{"pane":{"_0":"00000000-0000-0000-0000-0000000000cc"},"split":7}}}}})"));
    EXPECT_EQ(read.ratio(), 0.1);
    EXPECT_EQ(read.second().ratio(), 0.5);
    EXPECT_EQ(read.signature(), "V(P,H(P,P))");
    EXPECT_EQ(read.id(), QUuid("{abcdef01-2345-6789-abcd-ef0123456789}"));

    // A written ratio is normalised even if the value was built out of range.
    auto wide = PaneLayout::split(outer, SplitAxis::Horizontal, 3, PaneLayout::pane(a),
                                  PaneLayout::pane(b));
    EXPECT_EQ(wide.toJson()["split"].toObject()["ratio"].toDouble(), 0.9);
}

TEST_F(PaneLayoutTest, MalformedTreesAreDecodingErrors) {
    const char* bad[] = {
        R"({})",
        R"({"pane":{}})",
        R"({"pane":{"_0":"not-a-uuid"}})",
        R"({"pane":{"_0":"{00000000-0000-0000-0000-0000000000aa}"}})",
        R"({"split":{"axis":"horizontal"}})",
        R"({"split":{"id":"00000000-0000-0000-0000-0000000000aa","axis":"diagonal"}})",
        R"({"split":{"id":"00000000-0000-0000-0000-0000000000aa","axis":"vertical","ratio":"half",
            "first":{"pane":{"_0":"00000000-0000-0000-0000-0000000000aa"}},
            "second":{"pane":{"_0":"00000000-0000-0000-0000-0000000000bb"}}}})",
        R"({"split":{"id":"00000000-0000-0000-0000-0000000000aa","axis":"vertical",
            "first":{"pane":{"_0":"00000000-0000-0000-0000-0000000000aa"}}}})",
    };
    for (const char* text : bad) {
        EXPECT_THROW(PaneLayout::fromJson(parse(text)), LayoutDecodingError) << text;
    }
    EXPECT_THROW(PaneLayout::fromJson(QJsonValue(3)), LayoutDecodingError);
}

TEST(PaneContextTest, JsonFormReadsTheOlderSeedKeyAndNeverWritesIt) {
    const QString id = "0e5b1c2a-7f0d-4b0e-9a9b-2c3d4e5f6a7b";
    auto seeded = PaneContext::fromJson(
        parse(R"({"cwd":"/s","seedID":"0e5b1c2a-7f0d-4b0e-9a9b-2c3d4e5f6a7b"})"));
    EXPECT_EQ(seeded.scratchID, QUuid::fromString(id));
    EXPECT_FALSE(seeded.projectID);
    const QJsonObject written = seeded.toJson();
    EXPECT_EQ(written["scratchID"].toString(), id.toUpper());
    EXPECT_FALSE(written.contains("seedID"));
    EXPECT_FALSE(written.contains("projectID"));

    auto nullScratch = PaneContext::fromJson(
        parse(R"({"cwd":"/s","scratchID":null,"seedID":"0E5B1C2A-7F0D-4B0E-9A9B-2C3D4E5F6A7B"})"));
    EXPECT_EQ(nullScratch.scratchID, QUuid::fromString(id));
    // With "scratchID" present, "seedID" is never looked at, even when malformed.
    auto both = PaneContext::fromJson(parse(
        R"({"cwd":"/s","scratchID":"0E5B1C2A-7F0D-4B0E-9A9B-2C3D4E5F6A7B","seedID":"junk"})"));
    EXPECT_EQ(both.scratchID, QUuid::fromString(id));

    PaneContext project{QString("p1"), "/work/p", std::nullopt};
    EXPECT_EQ(PaneContext::fromJson(project.toJson()), project);
    EXPECT_EQ(PaneContext::fromJson(parse(R"({"projectID":null,"cwd":"/x"})")).projectID,
              std::nullopt);

    EXPECT_THROW(PaneContext::fromJson(parse(R"({"projectID":"p"})")), LayoutDecodingError);
    EXPECT_THROW(PaneContext::fromJson(parse(R"({"cwd":"/s","scratchID":"junk"})")),
                 LayoutDecodingError);
    EXPECT_THROW(PaneContext::fromJson(parse(R"({"cwd":"/s","seedID":12})")), LayoutDecodingError);
    EXPECT_THROW(PaneContext::fromJson(parse(R"({"cwd":5})")), LayoutDecodingError);
}

}  // namespace
