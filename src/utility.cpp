#include "utility.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace Utility {
namespace {

constexpr std::array<std::string_view, 6> kRefusedPrefixes = {
    "/Applications/", "/Library/", "/System/", "/.Trashes/", "/var/", "/private/"};
constexpr std::string_view kHomeFolders = "/Users/";
constexpr char kDigits[] = "0123456789abcdef";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// By byte. Letters and digits of the C locale only: a record must not depend on the user's.
constexpr auto kPassesThrough = [] {
  std::array<bool, 256> passes{};
  for (const char c : std::string_view("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "abcdefghijklmnopqrstuvwxyz-_~")) {
    passes[static_cast<unsigned char>(c)] = true;
  }
  return passes;
}();

bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The value of a hexadecimal digit, or -1.
int digitValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool isAllowedPath(std::string_view path) {
  if (path.starts_with(kHomeFolders)) {
    const std::vector<std::string> pieces = split2(path, '/');
    if (pieces.size() < 3 || pieces[2].empty()) return true;
    return !path.starts_with("/" + pieces[1] + "/" + pieces[2] + "/Library/");
  }
  for (const std::string_view prefix : kRefusedPrefixes) {
    if (path.starts_with(prefix)) return false;
  }
  return true;
}

std::vector<std::string> split2(std::string_view text, char delimiter) {
  std::vector<std::string> pieces;
  while (!text.empty()) {
    const size_t end = text.find(delimiter);
    pieces.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return pieces;
}

std::string urlEncode(const std::string& text) {
  static const auto escapes = [] {
    std::array<std::array<char, 3>, 256> made;
    for (size_t byte = 0; byte < made.size(); ++byte) {
      charToHex(static_cast<unsigned char>(byte)).copy(made[byte].data(), made[byte].size());
    }
    return made;
  }();
  std::string encoded(3 * text.size(), '\0');
  char* end = encoded.data();
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (kPassesThrough[byte]) {
      *end++ = c;
    } else {
      std::memcpy(end, escapes[byte].data(), escapes[byte].size());
      end += escapes[byte].size();
    }
  }
  encoded.resize(static_cast<size_t>(end - encoded.data()));
  return encoded;
}

std::string charToHex(unsigned char byte) { return {'%', kDigits[byte >> 4], kDigits[byte & 15]}; }

std::string urlDecode(const std::string& text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    if (text[i] == '%') {
      decoded += hexToChar(text.substr(i + 1, 2));
      i += 3;
    } else {
      decoded += text[i];
      i += 1;
    }
  }
  return decoded;
}

char hexToChar(const std::string& digits) {
  if (digits.empty()) return 0;
  size_t i = 0;
  while (i < digits.size() && isSpace(digits[i])) ++i;
  const bool negative = i < digits.size() && digits[i] == '-';
  if (negative || (i < digits.size() && digits[i] == '+')) ++i;
  const size_t first = i;
  int32_t value = 0;
  for (; i < digits.size() && digitValue(digits[i]) >= 0; ++i) {
    value = value * 16 + digitValue(digits[i]);
    if (value > std::numeric_limits<int16_t>::max() + (negative ? 1 : 0)) {
      throw std::runtime_error("stream decode failure");
    }
  }
  if (i == first) throw std::runtime_error("stream decode failure");
  return static_cast<char>(static_cast<uint8_t>(negative ? -value : value));
}

}  // namespace Utility
