#include "platform/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace platform {
namespace {

TEST(Base64Test, EncodesAndDecodesRFC4648VectorsInBothAlphabets) {
  const std::pair<std::string_view, std::string_view> vectors[] = {{"", ""},
                                                                   {"f", "Zg=="},
                                                                   {"fo", "Zm8="},
                                                                   {"foo", "Zm9v"},
                                                                   {"foob", "Zm9vYg=="},
                                                                   {"fooba", "Zm9vYmE="},
                                                                   {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64Decode(encoded), std::string(plain));
    const std::string unpadded(encoded.substr(0, encoded.find('=')));
    EXPECT_EQ(base64URLEncode(plain), unpadded);
    EXPECT_EQ(base64URLDecode(unpadded), std::string(plain));
  }
  // The alphabets differ in their last two symbols.
  const std::string bytes("\xFB\xEF\xBE\xFF\xFF", 5);
  EXPECT_EQ(base64Encode(bytes), "++++//8=");
  EXPECT_EQ(base64URLEncode(bytes), "----__8");
  EXPECT_EQ(base64Decode("++++//8="), bytes);
  EXPECT_EQ(base64URLDecode("----__8"), bytes);
}

TEST(Base64Test, RejectsBadCharactersPaddingAndTrailingBits) {
  // "Zh" and "Zm9" leave non-zero bits after the last byte: no canonical encoding has them.
  for (const char* text : {"Zm9v!", "Zm 9v", "Zm9", "Zg=", "Zg", "Z===", "====", "Zg==Zg==", "Zm=v",
                           "Zh==", "Zm9=", "----__8=", "Zm9vYmF"}) {
    EXPECT_EQ(base64Decode(text), std::nullopt) << text;
  }
  for (const char* text : {"Zg==", "Zm8=", "Z", "Zm9vY", "Zh", "Zm9", "++++//8"}) {
    EXPECT_EQ(base64URLDecode(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace platform
