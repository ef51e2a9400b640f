// FSEventStream on inotify: the API, the thread that runs the reader, its waiting, and the
// hand-over of batches to the run loop. Reader.h says what a batch promises.
//
// Until the stream is started, the thread that made it has folders watched (watchFolder). Then the
// reader thread takes in events at all times, hands a batch over when the reader gives one, and
// signals the run loop, whose thread calls the callback. No lock is held meanwhile, and none while
// the reader asks the kernel. The root's batch has the event ID 0.

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "CoreFoundation.h"
#include "CoreServices/CoreServices.h"
#include "Reader.h"
#include "RunLoop.h"
#include "StreamExtension.h"
#include "ThreadSafety.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kNap(4);  // between reads while events keep coming

std::string withoutFinalSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

}  // namespace

struct __FSEventStream {
 public:
  __FSEventStream(FSEventStreamCallback callback, const std::string& path, CFTimeInterval latency);
  ~__FSEventStream();
  __FSEventStream(const __FSEventStream&) = delete;
  __FSEventStream& operator=(const __FSEventStream&) = delete;

  // The thread that made the stream.
  void Schedule(CFRunLoopRef loop);
  void Enter(const std::string& path, const OpenFolder& folder);
  bool Start();
  void Stop();
  void Invalidate();

  // The run loop's thread.
  void NameAgain(const std::string& path) EXCLUDES(lock_);
  bool NamesBehind(size_t event, std::vector<std::string>& names) const;

 private:
  // The run loop's thread.
  void Deliver() EXCLUDES(lock_);
  void ThrowFailure() EXCLUDES(lock_);

  // The reader thread.
  void RunReader() EXCLUDES(lock_);
  void Read() EXCLUDES(lock_);
  void TakeReports() EXCLUDES(lock_);
  void HandOver(Reader::Batch batch) EXCLUDES(lock_);
  void Wait();

  // Any thread.
  void Wake();

  // Constant after construction, but for the loop.
  const FSEventStreamCallback callback_;
  const std::shared_ptr<RunLoopSource> source_;
  CFRunLoopRef loop_ = nullptr;  // not the reader thread's until the stream is started

  Reader reader_;  // the reader thread's, once it runs

  Descriptor wake_;
  bool isStarted_ = false;  // the maker's thread only
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;

  // Between the reader thread and the run loop's.
  Mutex lock_;
  Reader::Batch batch_ GUARDED_BY(lock_);       // from HandOver until Deliver
  bool isDelivered_ GUARDED_BY(lock_) = false;  // the callback has returned; until TakeReports
  std::vector<std::string> again_ GUARDED_BY(lock_);  // paths to name; until TakeReports
  std::exception_ptr failure_ GUARDED_BY(lock_);      // what ended the thread

  // The run loop's thread only.
  FSEventStreamEventId lastId_ = 0;
  const Reader::Batch* delivered_ = nullptr;  // while the callback runs
};

__FSEventStream::__FSEventStream(FSEventStreamCallback callback, const std::string& path,
                                 CFTimeInterval latency)
    : callback_(callback),
      source_(std::make_shared<RunLoopSource>()),
      reader_(withoutFinalSlash(path),
              std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(latency))),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  source_->perform = [this] { Deliver(); };
}

__FSEventStream::~__FSEventStream() { Stop(); }

void __FSEventStream::Schedule(CFRunLoopRef loop) {
  loop_ = loop;
  loop_->Add(source_);
}

bool __FSEventStream::Start() {
  if (!reader_.isOpen() || !wake_.isOpen() || std::exchange(isStarted_, true)) return false;
  reader_.Start(Clock::now());
  try {
    thread_ = std::thread(&__FSEventStream::RunReader, this);
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void __FSEventStream::Enter(const std::string& path, const OpenFolder& folder) {
  if (reader_.isOpen()) reader_.Enter(path, folder, Clock::now());
}

void __FSEventStream::Stop() {
  isStopping_ = true;
  if (!thread_.joinable()) return;
  Wake();
  thread_.join();
}

void __FSEventStream::Invalidate() {
  if (loop_ != nullptr) std::exchange(loop_, nullptr)->Remove(source_);
}

void __FSEventStream::ThrowFailure() {
  const MutexLock lock(lock_);
  if (failure_ != nullptr) std::rethrow_exception(failure_);
}

void __FSEventStream::Deliver() {
  ThrowFailure();
  Reader::Batch batch;
  {
    const MutexLock lock(lock_);
    batch = std::exchange(batch_, {});
  }
  std::vector<const char*> paths;
  std::vector<FSEventStreamEventFlags> flags;
  std::vector<FSEventStreamEventId> ids;
  for (const NamedFolder& folder : batch.folders) {
    paths.push_back(folder.path.c_str());
    flags.push_back(folder.flags);
    ids.push_back(batch.isRoot ? 0 : ++lastId_);
  }
  delivered_ = &batch;
  callback_(this, nullptr, paths.size(), static_cast<void*>(paths.data()), flags.data(),
            ids.data());
  delivered_ = nullptr;
  {
    const MutexLock lock(lock_);
    isDelivered_ = true;
  }
  Wake();
}

void __FSEventStream::NameAgain(const std::string& path) {
  {
    const MutexLock lock(lock_);
    again_.push_back(path);
  }
  Wake();
}

// The thread that runs the loop is the one to end the program.
void __FSEventStream::RunReader() {
  try {
    Read();
  } catch (...) {
    {
      const MutexLock lock(lock_);
      failure_ = std::current_exception();
    }
    if (loop_ != nullptr) loop_->Signal(source_);
  }
}

void __FSEventStream::Read() {
  while (!isStopping_) {
    TakeReports();
    if (std::optional<Reader::Batch> batch = reader_.Step(Clock::now())) {
      HandOver(std::move(*batch));
    }
    Wait();
  }
}

// What the run loop's thread has to report.
void __FSEventStream::TakeReports() {
  bool isDelivered = false;
  std::vector<std::string> again;
  {
    const MutexLock lock(lock_);
    isDelivered = std::exchange(isDelivered_, false);
    again = std::exchange(again_, {});
  }
  if (isDelivered) reader_.EndDelivery();
  for (const std::string& path : again) reader_.NameAgain(path);
}

void __FSEventStream::HandOver(Reader::Batch batch) {
  {
    const MutexLock lock(lock_);
    batch_ = std::move(batch);
  }
  if (loop_ != nullptr) loop_->Signal(source_);
}

// Sleeps until the kernel has something, the reader wants its next step, or the run loop's thread
// has something to report.
void __FSEventStream::Wait() {
  int timeout = -1;
  if (const std::optional<Clock::time_point> wake = reader_.NextWake()) {
    const auto left = std::chrono::ceil<milliseconds>(*wake - Clock::now());
    timeout = static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
  }
  // While a batch is being gathered, events are read in portions instead of one by one. The
  // kernel's queue holds far more than come in that time.
  if (reader_.IsGathering() && !isStopping_) {
    const int nap = static_cast<int>(kNap.count());
    pollfd wake{wake_.number(), POLLIN, 0};
    poll(&wake, 1, timeout < 0 ? nap : std::min(nap, timeout));
    timeout = timeout < 0 ? -1 : std::max(0, timeout - nap);
  }
  std::array<pollfd, 4> wanted{{{reader_.tree(), POLLIN, 0},
                                {reader_.way(), POLLIN, 0},
                                {reader_.mounts(), POLLPRI, 0},
                                {wake_.number(), POLLIN, 0}}};
  poll(wanted.data(), wanted.size(), timeout);
  if ((wanted[2].revents & POLLPRI) != 0) reader_.ReadMounts();
  uint64_t count = 0;
  while (read(wake_.number(), &count, sizeof count) > 0) {
  }
}

bool __FSEventStream::NamesBehind(size_t event, std::vector<std::string>& names) const {
  if (delivered_ == nullptr || !delivered_->folders.at(event).names) return false;
  names = delivered_->folders[event].names->Sorted();
  return true;
}

void __FSEventStream::Wake() {
  const uint64_t one = 1;
  while (write(wake_.number(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

FSEventStreamRef FSEventStreamCreate(CFAllocatorRef /*allocator*/, FSEventStreamCallback callback,
                                     FSEventStreamContext* /*context*/, CFArrayRef paths,
                                     FSEventStreamEventId /*sinceWhen*/, CFTimeInterval latency,
                                     FSEventStreamCreateFlags /*flags*/) {
  if (paths == nullptr || paths->values.empty() || paths->values[0] == nullptr) return nullptr;
  try {
    const auto* path = static_cast<CFStringRef>(paths->values[0]);
    return std::make_unique<__FSEventStream>(callback, path->text, latency).release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void FSEventStreamScheduleWithRunLoop(FSEventStreamRef stream, CFRunLoopRef loop,
                                      CFRunLoopMode /*mode*/) {
  stream->Schedule(loop);
}

Boolean FSEventStreamStart(FSEventStreamRef stream) { return stream->Start(); }

bool nameAgain(FSEventStreamRef stream, const std::string& path) {
  stream->NameAgain(path);
  return true;
}

void watchFolder(FSEventStreamRef stream, const std::string& path, const OpenFolder& folder) {
  stream->Enter(path, folder);
}

bool namesBehind(ConstFSEventStreamRef stream, size_t event, std::vector<std::string>& names) {
  return stream != nullptr && stream->NamesBehind(event, names);
}

void FSEventStreamStop(FSEventStreamRef stream) { stream->Stop(); }

void FSEventStreamInvalidate(FSEventStreamRef stream) { stream->Invalidate(); }

void FSEventStreamRelease(FSEventStreamRef stream) {
  const std::unique_ptr<__FSEventStream> released(stream);
}
