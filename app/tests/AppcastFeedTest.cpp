// Reading the update feed and ordering versions.
#include <gtest/gtest.h>

#include "AppcastFeed.h"

using hl::AppcastFeed;

TEST(AppcastFeedTest, VersionsCompareByNumberPartByPart) {
    EXPECT_LT(hl::compareVersions("1.9", "1.10"), 0);
    EXPECT_EQ(hl::compareVersions("2.0", "2.0.0"), 0);
    EXPECT_GT(hl::compareVersions("2.0.1", "2"), 0);
    // A pre-release ranks below its release, and above the release before it.
    EXPECT_LT(hl::compareVersions("1.0.0b", "1.0.0"), 0);
    EXPECT_LT(hl::compareVersions("1.0b", "1.0.0"), 0);
    EXPECT_GT(hl::compareVersions("1.0.1rc1", "1.0.0"), 0);
    EXPECT_LT(hl::compareVersions("2.0-beta", "2.0.0"), 0);
    EXPECT_LT(hl::compareVersions("1.0.0a", "1.0.0b"), 0);
}

TEST(AppcastFeedTest, TheNewestItemForThisSystemIsChosen) {
    const QByteArray xml = R"(<?xml version="1.0"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle">
 <channel><title>Updates</title>
  <item><title>Old</title><sparkle:version>1.2</sparkle:version>
   <enclosure url="old.tar.gz" length="10" sparkle:edSignature="c2ln"/></item>
  <item><title>For another system</title>
   <enclosure url="https://x.example/mac.zip" sparkle:version="9.0" sparkle:os="macos"/></item>
  <item><title>New</title><sparkle:shortVersionString>1.10</sparkle:shortVersionString>
   <enclosure url="files/new.tar.gz" sparkle:version="110" sparkle:edSignature="c2ln" length="42"/></item>
  <item><title>No archive</title><sparkle:version>999</sparkle:version></item>
 </channel></rss>)";
    const auto feed = AppcastFeed::parse(xml, QUrl("http://127.0.0.1:8000/a/appcast.xml"));
    ASSERT_EQ(feed.items.size(), 3u);
    const auto newest = feed.newestItem();
    ASSERT_TRUE(newest);
    EXPECT_EQ(newest->title, "New");
    EXPECT_EQ(newest->version, "110");
    EXPECT_EQ(newest->displayVersion, "1.10");
    EXPECT_EQ(newest->archiveURL, QUrl("http://127.0.0.1:8000/a/files/new.tar.gz"));
    EXPECT_EQ(newest->length, 42);
    EXPECT_EQ(newest->edSignature, "c2ln");
}

TEST(AppcastFeedTest, WhatIsNotAnAppcastIsRefused) {
    const QUrl base("https://x.example/appcast.xml");
    EXPECT_THROW(AppcastFeed::parse("<html><body>Moved</body></html>", base), hl::AppcastError);
    EXPECT_THROW(AppcastFeed::parse("<rss><channel><item><title>x</item></channel></rss>", base),
                 hl::AppcastError);
    EXPECT_THROW(AppcastFeed::parse("<rss version=\"2.0\"><channel><item>", base),
                 hl::AppcastError);
    EXPECT_THROW(AppcastFeed::parse("", base), hl::AppcastError);
    EXPECT_TRUE(AppcastFeed::parse("<rss><channel/></rss>", base).items.empty());
}
