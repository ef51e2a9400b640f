#include "FSEventsTree.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

constexpr size_t kMostRecords = 512;  // bytes, enough for most of them

struct Free {
  void operator()(char* memory) const { std::free(memory); }
};

}  // namespace

void FSEventsTree::Append(const std::string& key, const std::string& value) {
  entries.emplace(key, value);
  ++appendCount;
}

const std::string& FSEventsTree::Get(std::string_view key) const {
  static const std::string none;
  const auto found = entries.find(key);
  return found == entries.end() ? none : found->second;
}

std::string FSEventsTree::buildString(const char* format, ...) {
  char inPlace[kMostRecords];
  std::unique_ptr<char, Free> grown;
  char* buffer = inPlace;
  size_t size = sizeof inPlace;
  for (;;) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<size_t>(length) < size) break;
    size = length >= 0 ? static_cast<size_t>(length) + 1 : size * 2;
    grown.reset(static_cast<char*>(std::malloc(size)));
    if (grown == nullptr) return {};
    buffer = grown.get();
  }
  try {
    return buffer;  // up to its first NUL
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::string FSEventsTree::Replace(std::string_view text,
                                  std::initializer_list<const char*> values) {
  std::string filled;
  filled.reserve(kMostRecords);
  for (const char* const value : values) {
    const size_t conversion = text.find('%');
    if (conversion == std::string_view::npos) break;
    filled.append(text.substr(0, conversion)).append(value);
    const bool isNumber = text.substr(conversion).starts_with("%lu");
    text.remove_prefix(conversion + (isNumber ? 3 : 2));
  }
  return filled.append(text);
}

std::string FSEventsTree::Fill(const std::string& key, const std::string& value) const {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  return buildString(Get(key).c_str(), value.c_str());
#pragma GCC diagnostic pop
}
