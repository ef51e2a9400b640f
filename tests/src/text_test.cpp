#include <gtest/gtest.h>

#include <sstream>

#include "support.h"
#include "utility.h"

namespace {

TEST(PathFilter, RefusesSystemFoldersAndPersonalLibrariesOnly) {
  const char* refused =
      "/Users/ann/Library/ /Users/ann/Library/Caches/x/ /Library/Preferences/ /System/ /var/log/ "
      "/Applications/Tool.app/ /.Trashes/501/ /private/tmp/";
  const char* allowed =
      "/Users/ann/Documents/ /Users/ann/Library /Users/ann/library/ /Users//Library/ /Users/ /tmp/ "
      "/Users/ann/Projects/Library/ /Applications /Volumes/Data/Library/ /VAR/log/ var/log/";
  for (const char* paths : {refused, allowed}) {
    for (const std::string& path : pieces(paths)) {
      EXPECT_EQ(Utility::isAllowedPath(path), paths == allowed) << path;
    }
  }
  EXPECT_EQ(Utility::split2("/a//b//", '/'), (Texts{"", "a", "", "b", ""}));
}

TEST(Encoding, EscapesAllButLettersDigitsAndThreeMarks) {
  EXPECT_EQ(Utility::urlEncode("09AZaz-_~/:@[`{. \n\xc3"),
            "09AZaz-_~%2f%3a%40%5b%60%7b%2e%20%0a%c3");
}

// Escapes are read as a stream reads a number, signs and white space included; but "0x" is the
// digit 0 and a character that is none, which streams see differently.
TEST(Decoding, UndoesEncodingAndReadsAnyEscape) {
  for (int pair = 0; pair < 256 * 256; ++pair) {
    const std::string text = {static_cast<char>(pair & 0xff), static_cast<char>(pair >> 8)};
    EXPECT_EQ(Utility::urlDecode(Utility::urlEncode(text)), text);
    std::istringstream stream(text);
    int16_t number = 0;
    std::string expected = "stream decode failure", decoded;
    const bool isRead = stream >> std::hex >> number || text == "0x" || text == "0X";
    if (isRead) expected = {'+', static_cast<char>(number), '%'};
    try {
      decoded = Utility::urlDecode("+%" + text + "%25");
    } catch (const std::runtime_error& error) {
      decoded = error.what();
    }
    EXPECT_EQ(decoded, expected) << testing::PrintToString(text);
  }
  EXPECT_THROW(Utility::hexToChar("8000"), std::runtime_error);  // more than 16 bits with the sign
  EXPECT_EQ(Utility::hexToChar("-8000"), 0);
  EXPECT_EQ(Utility::urlDecode("%4"), "\x04");
  EXPECT_EQ(Utility::urlDecode("ab%"), std::string("ab\0", 3));
}

}  // namespace
