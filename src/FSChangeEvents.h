// The output queue of the process, the emitter thread that writes it to standard output at a fixed
// pace, the builder of record lines, and the debug log.
//
// One queue per process, owned by FSEventWatcher. The main thread is the only producer (Append,
// AppendOutput, dolog); the emitter thread is the only consumer. outputLock is the innermost lock
// of the program.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "FSEventsTree.h"
#include "FSLineQueue.h"
#include "FSResource.h"
#include "ThreadSafety.h"

class FSChangeEvents {
 public:
  enum RunState : uint8_t { stopped, running };

  FSChangeEvents();

  // Stops the emitter as StopThrow does; lines still queued are dropped unwritten.
  ~FSChangeEvents();
  FSChangeEvents(const FSChangeEvents&) = delete;
  FSChangeEvents& operator=(const FSChangeEvents&) = delete;

  // Queues the record's line, and hands its unencoded form to the debug log. Never drops a line;
  // waits for the emitter's batch in progress, which lasts as long as the reader takes for it.
  void Append(const FSChangedResource& record) EXCLUDES(outputLock);
  void Append(std::string_view action, const FSResource& resource) EXCLUDES(outputLock);

  // Queues a finished line; with `log` it goes to the debug log as well, before it can be written.
  void AppendOutput(const std::string& line, bool log) EXCLUDES(outputLock);

  // Starts the emitter, which writes at most `limit` lines (none when 0 or less), pauses one
  // second, and so on. A line leaves the queue when it has been written whole. While one is
  // running, only the limit changes. Throws std::system_error when no thread can be had.
  void StartThrow(int limit);

  // The emitter's loop; nothing but the emitter thread calls it. Ends the process when nobody can
  // read standard output any more.
  void ThrowEvents() EXCLUDES(outputLock);

  // Ends the emitter and waits for its batch and pause; lines still queued stay. Nothing when none
  // is running.
  void StopThrow();

  // The record's line; empty for an action that has no template for this kind. Any thread.
  std::string buildMessage(const FSChangedResource& record, bool doEncode) const;
  std::string encode(const std::string& text, bool doEncode) const;

  // Appends a time-stamped line to the log file, unless logging is off or the text is empty. A file
  // that cannot be opened loses the line silently. One thread at a time.
  void dolog(const std::string& text);

  // Filled by the constructor, then only read.
  std::unique_ptr<FSEventsTree> templates;

  FSLineQueue outputLines GUARDED_BY(outputLock);
  std::thread emitter;
  uint64_t linesWritten = 0;  // emitter thread only
  Mutex outputLock;
  std::atomic<RunState> runState = stopped;
  std::atomic<int32_t> linesPerWake = 0;

  // Set by the main thread before the first line is queued.
  bool encodeOutput = false;
  bool logging = false;
  std::string logFile;

  // ---- For programs that use the queue as a library. The tool itself uses none of these.

  // Change records offered for inspection. Null past the end.
  int Count() const { return changeCount; }
  const FSChangedResource* Get(unsigned int index) const;
  FSChangeList changeList;
  int32_t changeCount = 0;

  // Sets the log's switch and file name; opens nothing.
  void logToFile(bool enable, const std::string& fileName);

 private:
  std::string BuildMessage(std::string_view action, const FSResource& resource,
                           bool doEncode) const;
  void WriteLines() EXCLUDES(outputLock);
};
