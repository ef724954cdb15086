// Standard base64 of terminal bytes: the vectors of the standard, every byte
// value, and text that is not strict base64.
#include <gtest/gtest.h>

#include "Base64.h"

namespace hl {
namespace {

TEST(Base64Test, EncodesStandardVectorsAndRejectsWhatIsNotStrictBase64) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {std::string("\xff\xfe\x00\x80", 4), "//4AgA=="},
    };
    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(base64::encode(bytes), text);
        EXPECT_EQ(base64::decode(text), bytes) << text;
    }
    std::string all;
    for (int i = 0; i < 256 * 3; ++i)
        all.push_back(static_cast<char>(i));
    EXPECT_EQ(base64::decode(base64::encode(all)), all);

    for (const char* bad :
         {"Zg", "Zg=", "Z===", "Zm9v\n", "Zm9v YmFy", "Zg==Zm9v", "Zm-v", "=Zm9"}) {
        EXPECT_FALSE(base64::decode(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace hl
