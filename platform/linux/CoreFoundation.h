// What the strings and arrays of the API are made of, for the stream that reads them.
#pragma once

#include <string>
#include <vector>

#include "CoreServices/CoreServices.h"

struct CFObject {
  virtual ~CFObject() = default;
};

struct __CFString : CFObject {
  explicit __CFString(const char* bytes) : text(bytes) {}
  std::string text;
};

struct __CFArray : CFObject {
  std::vector<const void*> values;
};
