// The event stream through its API, with its own thread and real time.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <atomic>
#include <mutex>

#include "CoreServices/CoreServices.h"
#include "support.h"

namespace {

namespace fs = std::filesystem;

// What the callback got, which has no other way to the test.
struct Received {
  std::mutex lock;
  std::vector<Texts> batches;  // the paths, with "!" where the root has changed
  FSEventStreamEventId last = 0;
  std::mutex gate;  // the callback waits while the test has it
  std::atomic<int> running = 0;
  std::atomic<bool> endsItself = false;  // the callback takes its stream off the loop
};
Received* received = nullptr;

void receive(ConstFSEventStreamRef stream, void* /*info*/, size_t count, void* paths,
             const FSEventStreamEventFlags* flags, const FSEventStreamEventId* ids) {
  EXPECT_EQ(received->running++, 0);
  Texts batch;
  for (size_t i = 0; i < count; ++i) {
    const bool isRoot = flags[i] == kFSEventStreamEventFlagRootChanged;
    EXPECT_TRUE(isRoot ? count == 1 : flags[i] == 0);
    EXPECT_EQ(ids[i], isRoot ? 0 : ++received->last);
    batch.push_back(static_cast<const char**>(paths)[i] + std::string(isRoot ? "!" : ""));
  }
  {
    const std::lock_guard lock(received->lock);
    received->batches.push_back(batch);
  }
  const std::lock_guard waiting(received->gate);
  --received->running;
  if (received->endsItself) FSEventStreamInvalidate(const_cast<FSEventStreamRef>(stream));
}

FSEventStreamRef makeStream(const std::string& path) {
  const CFStringRef text =
      CFStringCreateWithCString(kCFAllocatorDefault, path.c_str(), kCFStringEncodingUTF8);
  const void* values[] = {text};
  const CFArrayRef paths = CFArrayCreate(kCFAllocatorDefault, values, 1, nullptr);
  const FSEventStreamRef stream =
      FSEventStreamCreate(kCFAllocatorDefault, receive, nullptr, paths,
                          kFSEventStreamEventIdSinceNow, 0.01, kFSEventStreamCreateFlagWatchRoot);
  CFRelease(paths);
  CFRelease(text);
  FSEventStreamScheduleWithRunLoop(stream, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  return stream;
}

void endStream(FSEventStreamRef stream) {
  FSEventStreamStop(stream);
  FSEventStreamInvalidate(stream);
  FSEventStreamRelease(stream);
}

size_t entriesIn(const std::string& path) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(path), {}));
}

class StreamTest : public testing::Test {
 protected:
  StreamTest() { ::received = &received; }
  ~StreamTest() override {
    stop();
    fs::current_path("/");
  }

  // Runs a stream for the path on a thread of its own.
  void start(const std::string& path) {
    received.batches.clear();
    received.last = seen = 0;
    std::atomic<bool> isStarted = false;
    thread = std::thread([&, path] {
      const FSEventStreamRef stream = makeStream(path);
      EXPECT_TRUE(FSEventStreamStart(stream));
      loop = CFRunLoopGetCurrent();
      isStarted = true;
      CFRunLoopRun();
      endStream(stream);
    });
    while (!isStarted) std::this_thread::yield();
  }

  void stop() {
    if (!thread.joinable()) return;
    CFRunLoopStop(loop);
    thread.join();
  }

  // Waits until the path has been named since the last call, else fails with what did arrive.
  void awaitName(const std::string& path) {
    const auto isNamed = [&] {
      const std::lock_guard lock(received.lock);
      while (seen < received.batches.size()) {
        if (std::ranges::count(received.batches[seen++], path) > 0) return true;
      }
      return false;
    };
    EXPECT_TRUE(comesTrue(isNamed)) << path << ": " << testing::PrintToString(received.batches);
  }

  TempFolder folder;
  Received received;
  std::thread thread;
  CFRunLoopRef loop = nullptr;
  size_t seen = 0;  // batches that a wait has gone through
};

TEST_F(StreamTest, NamesFoldersBelowThePathAsGiven) {
  folder.run("mkdir t/a");
  fs::current_path(folder / "t");
  for (const std::string& given : {folder / "t", folder / "t/", std::string("."),
                                   std::string("../t"), std::string("../t///")}) {
    start(given);
    folder.write("t/a/f", "x");
    awaitName(given.substr(0, given.find_last_not_of('/') + 1) + "/a/");
    stop();
  }
}

// Bytes of events that nobody has read.
int unreadEvents() {
  int total = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    int size = 0;
    std::error_code ignored;
    if (fs::read_symlink(entry.path(), ignored) != "anon_inode:inotify") continue;
    ioctl(std::stoi(entry.path().filename()), FIONREAD, &size);
    total += size;
  }
  return total;
}

TEST_F(StreamTest, DrainsTheQueueDuringACallbackAndNamesItsChangesNext) {
  folder.run("mkdir t/a; touch t/f");
  std::unique_lock gate(received.gate);
  start(folder / "t");
  folder.write("t/f", "x");
  awaitName(folder / "t/");
  folder.run("mkdir t/a/b/c; touch t/a/f; mv t/a/f t/g");
  EXPECT_TRUE(comesTrue([] { return unreadEvents() == 0; }));
  gate.unlock();
  awaitName(folder / "t/a/b/");
  stop();
  // The callback may have read any of them half way.
  Texts expected;
  for (const char* name : {"t/a/b/c/", "t/a/b/", "t/a/", "t/"}) {
    expected.insert(expected.end(), 2, folder / name);
  }
  EXPECT_EQ(received.batches.at(1), expected);
}

TEST_F(StreamTest, EndsWithoutAThreadOrDescriptorLeft) {
  std::thread([] {}).join();  // sanitizers start a thread of their own with the first
  folder.run("mkdir t");
  const size_t threads = entriesIn("/proc/self/task");
  const size_t descriptors = entriesIn("/proc/self/fd");
  for (const bool endsItself : {false, true}) {
    received.endsItself = endsItself;
    start(folder / "t");
    EXPECT_EQ(entriesIn("/proc/self/task"), threads + 2);
    folder.write("t/f", "x");
    awaitName(folder / "t/");
    if (endsItself) thread.join();  // the loop has no source left
    stop();
    EXPECT_EQ(entriesIn("/proc/self/fd"), descriptors);
    EXPECT_TRUE(comesTrue([&] { return entriesIn("/proc/self/task") == threads; }));
  }
  CFRunLoopStop(CFRunLoopGetCurrent());
  const FSEventStreamRef stream = makeStream(folder / "t");
  EXPECT_TRUE(FSEventStreamStart(stream));
  CFRunLoopRun();  // has been stopped before
  endStream(stream);
  EXPECT_EQ(entriesIn("/proc/self/fd"), descriptors);
}

// In a user namespace of the process's own.
bool limitInstances(int count) {
  std::ofstream limit("/proc/sys/user/max_inotify_instances");
  return static_cast<bool>(limit << count << std::flush);
}

// With one instance the way to the root is looked at from time to time, with none there is no
// stream.
TEST_F(StreamTest, DoesWithOneInstanceAndFailsWithNone) {
  folder.run("mkdir p/t");
  constexpr int kNotPermitted = 77;
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWUSER) != 0 || !limitInstances(1)) _exit(kNotPermitted);
    start(folder / "p/t");
    folder.run("mv p z");
    awaitName(folder / "p/t!");
    stop();
    EXPECT_TRUE(limitInstances(0));
    const size_t descriptors = entriesIn("/proc/self/fd");
    const FSEventStreamRef stream = makeStream(folder / "p/t");
    EXPECT_FALSE(FSEventStreamStart(stream));
    endStream(stream);
    EXPECT_EQ(entriesIn("/proc/self/fd"), descriptors);
    _exit(HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WEXITSTATUS(status) == kNotPermitted) GTEST_SKIP() << "there is no user namespace";
  EXPECT_EQ(status, 0);
}

}  // namespace
