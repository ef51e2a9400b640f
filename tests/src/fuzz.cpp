// What the text functions and the record builder promise for any bytes, tried by libFuzzer:
//
//   cmake --preset fuzz && cmake --build --preset fuzz && build/fuzz/fuzz -runs=1000000
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "FSChangeEvents.h"
#include "utility.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

// The encoding, written once more with other means.
std::string encoded(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '~';
    result += isPlain ? std::string(1, c)
                      : FSEventsTree::buildString("%%%02x", static_cast<unsigned char>(c));
  }
  return result;
}

void checkTexts(const std::string& one, const std::string& other) {
  require(Utility::urlEncode(one) == encoded(one));
  require(Utility::urlDecode(encoded(one)) == one);
  try {
    require(Utility::urlDecode(one).size() <= one.size());
  } catch (const std::runtime_error&) {
  }
  std::string joined;
  for (const std::string& piece : Utility::split2(one, '/')) joined += piece + "/";
  require(joined == one + (one.empty() || one.ends_with('/') ? "" : "/"));
  require(Utility::isAllowedPath(one) || !Utility::isAllowedPath(one + other));
  const std::string text = one.c_str();  // as far as printf sees it
  require(FSEventsTree::buildString("%s|%s", one.c_str(), text.c_str()) == text + "|" + text);
}

void checkRecord(FuzzedDataProvider& data, const std::string& path, const std::string& oldPath) {
  static const FSChangeEvents changes;
  const std::string action = data.PickValueInArray({"sync", "create", "delete", "rename"});
  const bool isFolder = data.ConsumeBool();
  const auto number = [&] { return data.ConsumeIntegral<uint32_t>() * uint64_t{0x100000001}; };
  const timespec modified = {data.ConsumeIntegral<time_t>(), 0};
  const timespec created = {data.ConsumeIntegral<time_t>(), 0};
  const FSResource resource(number(), path, isFolder, modified, created, number(), oldPath);
  const auto attribute = [](const std::string& name, auto value) {
    return " " + name + "=\"" + std::to_string(static_cast<uint64_t>(value)) + "\"";
  };
  const std::string kind = isFolder ? "folder" : "file";
  const std::string oldValue = action == "rename" ? " oldValue=\"" + encoded(oldPath) + "\"" : "";
  require(changes.buildMessage({action, resource}, true) ==
          "<" + kind + " action=\"" + action + "\"" + attribute("inode", resource.inode) +
              oldValue + attribute("modified", modified.tv_sec) +
              attribute("created", created.tv_sec) + attribute("size", resource.size) + ">" +
              encoded(path) + "</" + kind + ">");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  FuzzedDataProvider data(bytes, count);
  const std::string one = data.ConsumeBytesAsString(data.ConsumeIntegralInRange<size_t>(0, count));
  const std::string other = data.ConsumeRandomLengthString();
  checkTexts(one, other);
  checkRecord(data, one, other);
  return 0;
}
