#include "FSChangeEvents.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <utility>

#include "FSStandardOutput.h"
#include "utility.h"

namespace {

constexpr std::chrono::seconds kPause(1);

constexpr std::pair<const char*, const char*> kTemplates[] = {
    {"version", "<version>%s</version>"},
    {"path", "<path>%s</path>"},
    {"debug", "<debug>%s</debug>"},
    {"log", "<log>%s</log>"},
    {"show_all", "<show_all>%s</show_all>"},
    {"encode_output", "<encode_output>%s</encode_output>"},
    {"error", "<error>%s</error>"},
    {"scan", R"(<scan action="%s"></scan>)"},
    {"dir_sync",
     R"(<folder action="sync" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</folder>)"},
    {"dir_create",
     R"(<folder action="create" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</folder>)"},
    {"dir_delete",
     R"(<folder action="delete" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</folder>)"},
    {"dir_rename",
     R"(<folder action="rename" inode="%lu" oldValue="%s" modified="%lu" created="%lu" size="%lu">%s</folder>)"},
    {"dir_rootcreate", R"(<folder action="rootcreate" inode="%lu">%s</folder>)"},
    {"dir_rootdelete", R"(<folder action="rootdelete" inode="%lu">%s</folder>)"},
    {"file_sync",
     R"(<file action="sync" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</file>)"},
    {"file_create",
     R"(<file action="create" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</file>)"},
    {"file_delete",
     R"(<file action="delete" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</file>)"},
    {"file_rename",
     R"(<file action="rename" inode="%lu" oldValue="%s" modified="%lu" created="%lu" size="%lu">%s</file>)"},
    {"file_change",
     R"(<file action="change" inode="%lu" modified="%lu" created="%lu" size="%lu">%s</file>)"},
};

}  // namespace

FSChangeEvents::FSChangeEvents() : templates(std::make_unique<FSEventsTree>()) {
  for (const auto& [key, text] : kTemplates) templates->Append(key, text);
}

FSChangeEvents::~FSChangeEvents() { StopThrow(); }

void FSChangeEvents::Append(const FSChangedResource& record) { Append(record.action, record); }

void FSChangeEvents::Append(std::string_view action, const FSResource& resource) {
  AppendOutput(BuildMessage(action, resource, encodeOutput), false);
  if (logging) dolog(BuildMessage(action, resource, false));
}

void FSChangeEvents::AppendOutput(const std::string& line, bool log) {
  const MutexLock lock(outputLock);
  if (log) dolog(line);
  outputLines.push_back(line);
}

void FSChangeEvents::StartThrow(int limit) {
  linesPerWake = limit;
  if (runState == running) return;
  runState = running;
  try {
    emitter = std::thread(&FSChangeEvents::ThrowEvents, this);
  } catch (...) {
    runState = stopped;
    throw;
  }
}

void FSChangeEvents::ThrowEvents() {
  while (runState != stopped) {
    WriteLines();
    FSStandardOutput::EndIfUnread();  // also in a quiet tree
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + kPause);
  }
}

// Holds the lock while it writes: while the reader stalls, the main thread waits at its next line,
// and the queue does not grow. What is refused stays for the next cycle, the rest of a line
// included.
void FSChangeEvents::WriteLines() {
  const MutexLock lock(outputLock);
  auto left = static_cast<size_t>(std::max<int32_t>(linesPerWake, 0));
  while (left > 0 && !outputLines.empty()) {
    const std::string_view text = outputLines.Front(left);
    const size_t written = FSStandardOutput::Write(text);
    const bool isRefused = written < text.size();
    const size_t complete = outputLines.Consume(written);
    linesWritten += complete;
    if (isRefused) break;
    left -= complete;
  }
}

void FSChangeEvents::StopThrow() {
  if (runState == stopped) return;
  runState = stopped;
  if (emitter.joinable()) emitter.join();
}

const FSChangedResource* FSChangeEvents::Get(unsigned int index) const {
  return index < static_cast<unsigned int>(changeCount) ? &changeList[index] : nullptr;
}

std::string FSChangeEvents::buildMessage(const FSChangedResource& record, bool doEncode) const {
  return BuildMessage(record.action, record, doEncode);
}

std::string FSChangeEvents::BuildMessage(std::string_view action, const FSResource& resource,
                                         bool doEncode) const {
  const std::string& text =
      templates->Get(std::string(resource.isFolder ? "dir_" : "file_").append(action));
  const std::string path = encode(resource.path, doEncode);
  const std::string inode = std::to_string(resource.inode);
  if (action == "rootcreate" || action == "rootdelete") {
    return FSEventsTree::Replace(text, {inode.c_str(), path.c_str()});
  }
  const std::string modified = std::to_string(static_cast<uint64_t>(resource.modified.tv_sec));
  const std::string created = std::to_string(static_cast<uint64_t>(resource.created.tv_sec));
  const std::string size = std::to_string(resource.size);
  if (action == "sync" || action == "create" || action == "delete" || action == "change") {
    return FSEventsTree::Replace(
        text, {inode.c_str(), modified.c_str(), created.c_str(), size.c_str(), path.c_str()});
  }
  if (action == "rename") {
    const std::string oldPath = encode(resource.oldPath, doEncode);
    return FSEventsTree::Replace(text, {inode.c_str(), oldPath.c_str(), modified.c_str(),
                                        created.c_str(), size.c_str(), path.c_str()});
  }
  return {};
}

std::string FSChangeEvents::encode(const std::string& text, bool doEncode) const {
  return doEncode ? Utility::urlEncode(text) : text;
}

void FSChangeEvents::dolog(const std::string& text) {
  if (!logging || text.empty()) return;
  const std::time_t now = std::time(nullptr);
  char stamp[80] = "";
  if (const std::tm* local = std::localtime(&now))
    std::strftime(stamp, sizeof stamp, "%F %T", local);
  const std::string line = FSEventsTree::buildString("[%s] %s", stamp, text.c_str());

  // A pipe would keep the tool waiting for whoever reads it.
  struct stat status;
  if (stat(logFile.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return;
  std::ofstream file(logFile, std::ios::out | std::ios::app | std::ios::ate | std::ios::binary);
  if (!file.is_open()) return;
  file << line << '\n' << std::flush;
}

void FSChangeEvents::logToFile(bool enable, const std::string& fileName) {
  logging = enable;
  logFile = fileName;
}
