// What the text functions and the record builder promise for any bytes, tried by libFuzzer:
//
//   cmake --preset fuzz && cmake --build --preset fuzz && build/fuzz/fuzz -runs=1000000
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "FSChangeEvents.h"
#include "reader.h"
#include "utility.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void checkText(const std::string& text) {
  const std::string encoded = Utility::urlEncode(text);
  require(Utility::urlDecode(encoded) == text);
  require(encoded.find_first_not_of("%-_~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                    "abcdefghijklmnopqrstuvwxyz") == std::string::npos);
  try {
    require(Utility::urlDecode(text).size() <= text.size());
  } catch (const std::runtime_error&) {
  }
  const std::string printed = text.c_str();  // as far as printf sees it
  require(FSEventsTree::buildString("%s|%s", text.c_str(), text.c_str()) ==
          printed + "|" + printed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  FuzzedDataProvider data(bytes, count);
  const std::string one = data.ConsumeBytesAsString(data.ConsumeIntegralInRange<size_t>(0, count));
  const std::string other = data.ConsumeRandomLengthString();
  checkText(one);
  static const FSChangeEvents changes;
  const FSResource renamed(1, one, false, {}, {}, 2, other);
  const Record record(changes.buildMessage({"rename", renamed}, true));
  require(Utility::urlDecode(record.path) == one && Utility::urlDecode(record.oldPath) == other);
  return 0;
}
