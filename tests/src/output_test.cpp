#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "FSChangeEvents.h"
#include "reader.h"
#include "support.h"

namespace {

FSChangedResource change(const std::string& action, bool isFolder, time_t modified = 900) {
  return {action, FSResource(UINT64_MAX, "/w/50%s <b>.c", isFolder, {modified, 5}, {901, 9},
                             5'000'000'000, "/w/a")};
}

size_t queued(FSChangeEvents& changes) {
  const MutexLock lock(changes.outputLock);
  return changes.outputLines.size();
}

TEST(Records, OfEveryKind) {
  const FSChangeEvents changes;
  const Texts actions = pieces("sync create delete rename change rootcreate rootdelete modify");
  for (const bool isFolder : {false, true}) {
    const std::string kind = isFolder ? "folder" : "file";
    for (const std::string& action : actions) {
      const bool isRoot = action.starts_with("root");
      std::string expected =
          "<" + kind + " action=\"" + action + "\" inode=\"18446744073709551615\"";
      if (action == "rename") expected += " oldValue=\"/w/a\"";
      if (!isRoot) expected += " modified=\"900\" created=\"901\" size=\"5000000000\"";
      expected += ">/w/50%s <b>.c</" + kind + ">";
      if (action == "modify" || (isFolder ? action == "change" : isRoot)) expected = "";
      EXPECT_EQ(changes.buildMessage(change(action, isFolder), false), expected);
    }
  }
  const Record encoded(changes.buildMessage(change("rename", false, -1), true));
  EXPECT_EQ(encoded.oldPath + " " + encoded.path, "%2fw%2fa %2fw%2f50%25s%20%3cb%3e%2ec");
  EXPECT_EQ(encoded.modified, "18446744073709551615");
}

TEST(Templates, AreFoundByExactKeyAndFilledWithTextsOfAnyLength) {
  FSChangeEvents changes;
  EXPECT_EQ(changes.templates->entries.size(), 19U);
  EXPECT_EQ(changes.templates->Get("DIR_SYNC"), "");
  changes.templates->Append("error", "other %s");
  for (const unsigned length : {0U, 1U, 494U, 495U, 496U, 497U, 10000U}) {
    const std::string text = std::string(length, 'x') + "%";
    EXPECT_EQ(changes.templates->Fill("error", text), "<error>" + text + "</error>");
  }
}

TEST(LineQueue, FillsItsBlocksAndGivesThemBack) {
  const auto mapped = [] { return std::stoul(pieces(readFile("/proc/self/statm"))[0]); };  // pages
  const size_t before = mapped();
  FSLineQueue one, other;  // the second's first block is below the first's, as a rule
  one.push_back("1");
  other.push_back("2");
  other.push_back(std::string((16 << 10) - 2, 'x'));
  EXPECT_EQ(one.Front(1), "1\n");
  for (int i = 0; i < 10000; ++i) one.push_back(std::string(1000, 'x'));
  EXPECT_GT(mapped(), before + 2000);
  while (!one.empty()) one.Consume(one.Front(3000).size());
#ifndef KEEPS_FREED_MEMORY
  EXPECT_LT(mapped(), before + 500);
#endif
}

class Queue : public testing::Test {
 protected:
  Queue() { testing::internal::CaptureStdout(); }
  ~Queue() override { testing::internal::GetCapturedStdout(); }

  // What has been written to standard output, which is a file here.
  static std::string written() { return readFile("/proc/self/fd/1"); }
  static size_t writtenLines() { return pieces(written(), "\n").size(); }

  FSChangeEvents changes;
};

TEST_F(Queue, IsWrittenInOrderUntilStopped) {
  changes.encodeOutput = true;
  changes.StopThrow();
  changes.AppendOutput(std::string("first\0lost", 10), false);
  changes.Append(change("rootcreate", true));
  for (const char* line : {"", "last"}) changes.AppendOutput(line, true);
  changes.StartThrow(-1);  // a cycle that writes nothing
  changes.StopThrow();
  EXPECT_EQ(written(), "");
  changes.StartThrow(0);
  changes.StartThrow(4);
  EXPECT_TRUE(comesTrue([&] { return queued(changes) == 0; }));
  changes.StopThrow();
  changes.AppendOutput("late", false);
  changes.StopThrow();
  EXPECT_EQ(queued(changes), 1U);
  changes.StartThrow(1);
  EXPECT_TRUE(comesTrue([&] { return queued(changes) == 0; }));
  changes.StopThrow();
  EXPECT_EQ(written(),
            "first\n<folder action=\"rootcreate\" inode=\"18446744073709551615\">"
            "%2fw%2f50%25s%20%3cb%3e%2ec</folder>\n\nlast\nlate\n");
}

TEST_F(Queue, IsWrittenInCyclesOfSoManyLines) {
  for (int i = 0; i < 7500; ++i) changes.AppendOutput(std::string(300, 'x'), false);
  const auto start = std::chrono::steady_clock::now();
  changes.StartThrow(3000);
  for (const size_t lines : {3000U, 6000U, 7500U}) {
    EXPECT_TRUE(comesTrue([&] { return writtenLines() >= lines; }));
    EXPECT_EQ(writtenLines(), lines);
    EXPECT_EQ(queued(changes), 7500 - lines);
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

// Nothing is lost or torn when a disk is full for a while. A limit on the size of files does the
// same, once just before a line feed.
TEST_F(Queue, KeepsWhatIsRefused) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  std::string all;
  for (int i = 0; i < 100; ++i) {
    changes.AppendOutput("line " + std::to_string(i), false);
    all += "line " + std::to_string(i) + "\n";
  }
  for (const rlim_t limit : {rlim_t{0}, rlim_t{101}, rlim_t{350}, before.rlim_cur}) {
    const rlimit now{limit, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &now);
    changes.StartThrow(3000);
    EXPECT_TRUE(comesTrue([&] { return written().size() >= std::min<rlim_t>(limit, all.size()); }));
    changes.StopThrow();
    EXPECT_EQ(written(), all.substr(0, limit));
    const auto complete = static_cast<size_t>(std::ranges::count(all.substr(0, limit), '\n'));
    EXPECT_EQ(queued(changes), 100 - complete);
  }
}

TEST_F(Queue, EndsTheProcessWhenNobodyCanReadIt) {
  changes.AppendOutput("lost", false);
  const auto closeAndStart = [&] {
    close(STDOUT_FILENO);
    changes.StartThrow(3000);
    comesTrue([] { return false; });
  };
  EXPECT_EXIT(closeAndStart(), testing::KilledBySignal(SIGPIPE), "");
}

TEST(DebugLog, HoldsUnencodedRecordsAndIsMadeAgain) {
  setenv("TZ", "XYZ-5", 1);  // five hours ahead of universal time
  tzset();
  const TempFolder folder;
  const std::string log = folder / "log";
  FSChangeEvents changes;
  changes.encodeOutput = true;
  changes.logToFile(false, log);
  changes.AppendOutput("off", true);
  EXPECT_FALSE(std::filesystem::exists(log));

  changes.logToFile(true, log);
  char start[20];
  const time_t now = time(nullptr);
  strftime(start, sizeof start, "%F %T", localtime(&now));
  changes.AppendOutput("<path>%2fw</path>", true);
  EXPECT_GE(readFile(log).substr(1, 19), start);
  changes.AppendOutput("unlogged", false);
  changes.Append(change("rootdelete", true));
  changes.Append(change("change", true));  // has no template
  changes.dolog("two\nlines, 100%s");
  EXPECT_EQ(
      readLog(log),
      (Texts{"<path>%2fw</path>",
             "<folder action=\"rootdelete\" inode=\"18446744073709551615\">/w/50%s <b>.c</folder>",
             "two", "lines, 100%s"}));
  folder.run("rm log");
  changes.dolog("again");
  EXPECT_EQ(readLog(log), Texts{"again"});
  changes.logToFile(true, folder / "missing/log");
  changes.AppendOutput("lost", true);
  EXPECT_EQ(queued(changes), 6U);
}

}  // namespace
