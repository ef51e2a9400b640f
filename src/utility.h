// Text functions without state: which folders the tool stays out of, and the percent-encoding of
// paths in records. Callable from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Utility {

// Whether the folder may be scanned and reported: false below the system's own folders and below
// the personal library of a home folder. A test on the text alone, byte for byte; only a path with
// its final "/" is recognised as the refused folder itself.
bool isAllowedPath(std::string_view path);

// The pieces of `text` between delimiters. A leading delimiter gives an empty first piece, two
// adjacent ones an empty piece, a trailing one none; an empty text has no pieces.
std::vector<std::string> split2(std::string_view text, char delimiter);

// Percent-encodes every byte that is not a letter, a digit, "-", "_" or "~": "%" and two lowercase
// digits.
std::string urlEncode(const std::string& text);

// "%" and the two lowercase hexadecimal digits of the byte.
std::string charToHex(unsigned char byte);

// ---- For programs that use the functions as a library. The tool itself uses none of these.

// Undoes urlEncode. Throws std::runtime_error("stream decode failure") for an escape without a
// digit.
std::string urlDecode(const std::string& text);

// The byte that up to two hexadecimal digits give, parsed as a stream parses a number: leading
// white space and a sign are accepted, reading stops at the first other character. An empty text is
// 0. Throws std::runtime_error("stream decode failure") when there is no digit or the number
// exceeds 16 bits.
char hexToChar(const std::string& digits);

}  // namespace Utility
