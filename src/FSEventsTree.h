// The table of message templates and the printf-style formatting that fills them. The output queue
// owns the one table of the process: filled before any thread can use it, only read afterwards, so
// it needs no lock.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

class FSEventsTree {
 public:
  std::map<std::string, std::string, std::less<>> entries;  // message key to template
  int32_t appendCount = 0;  // calls of Append, also those that found the key present

  // Adds the template under the key; a key that is present keeps the template it has.
  void Append(const std::string& key, const std::string& value);

  // The template under exactly this key; the empty string when there is none.
  const std::string& Get(std::string_view key) const;

  // The text that printf would give. The format is never a user's text: user data is always
  // an argument. The empty string when memory for the text cannot be allocated. Any thread.
  static std::string buildString(const char* format, ...) __attribute__((format(printf, 1, 2)));

  // The template with its "%s" and "%lu" replaced by these texts, each up to its first NUL: what
  // buildString gives for the same values, in a quarter of its time. REQUIRES: no other
  // conversions.
  static std::string Replace(std::string_view text, std::initializer_list<const char*> values);

  // The template under the key filled with one text.
  std::string Fill(const std::string& key, const std::string& value) const;
};
