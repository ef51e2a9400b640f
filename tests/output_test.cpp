#include <gtest/gtest.h>

#include "FSChangeEvents.h"
#include "support.h"

namespace {

FSChangedResource change(const std::string& action, bool isFolder, time_t modified = 900) {
  return {action, FSResource(42, "/w/50%s <b>.c", isFolder, {modified, 5}, {901, 9}, 7, "/w/a")};
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
      std::string expected = "<" + kind + " action=\"" + action + "\" inode=\"42\"";
      if (action == "rename") expected += " oldValue=\"/w/a\"";
      if (!isRoot) expected += " modified=\"900\" created=\"901\" size=\"7\"";
      expected += ">/w/50%s <b>.c</" + kind + ">";
      if (action == "modify" || (isFolder ? action == "change" : isRoot)) expected = "";
      EXPECT_EQ(changes.buildMessage(change(action, isFolder), false), expected);
    }
  }
  EXPECT_EQ(
      changes.buildMessage(change("rename", false, -1), true),
      R"(<file action="rename" inode="42" oldValue="%2fw%2fa" modified="18446744073709551615")"
      R"( created="901" size="7">%2fw%2f50%25s%20%3cb%3e%2ec</file>)");
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

TEST(Queue, IsWrittenInOrderAtItsPaceUntilStopped) {
  FSChangeEvents changes;
  changes.encodeOutput = true;
  changes.StopThrow();
  changes.AppendOutput("first", false);
  changes.Append(change("rootcreate", true));
  for (const char* line : {"", "last"}) changes.AppendOutput(line, true);

  testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();
  bool inTime = true;
  for (const int limit : {-1, 0}) {  // cycles that write nothing, but flush
    changes.StartThrow(limit);
    std::fputs("-", stdout);
    struct stat output;
    inTime &= comesTrue([&] { return fstat(1, &output) == 0 && output.st_size > limit + 1; });
  }
  changes.StartThrow(3);
  inTime &= comesTrue([&] { return queued(changes) == 0; });
  changes.StopThrow();
  changes.AppendOutput("late", false);
  changes.StopThrow();
  const size_t left = queued(changes);
  changes.StartThrow(1);
  inTime &= comesTrue([&] { return queued(changes) == 0; });
  changes.StopThrow();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "--first\n<folder action=\"rootcreate\" inode=\"42\">"
            "%2fw%2f50%25s%20%3cb%3e%2ec</folder>\n\nlast\nlate\n");
  EXPECT_EQ(left, 1U);
  EXPECT_TRUE(inTime);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
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
  EXPECT_EQ(readFile(log).substr(20), "] <path>%2fw</path>\n");
  changes.AppendOutput("unlogged", false);
  changes.Append(change("rootdelete", true));
  changes.Append(change("change", true));  // has no template
  changes.dolog("two\nlines, 100%s");
  EXPECT_EQ(readLog(log),
            (Texts{"<path>%2fw</path>",
                   "<folder action=\"rootdelete\" inode=\"42\">/w/50%s <b>.c</folder>", "two",
                   "lines, 100%s"}));
  folder.run("rm log");
  changes.dolog("again");
  EXPECT_EQ(readLog(log), Texts{"again"});
  changes.logToFile(true, folder / "missing/log");
  changes.AppendOutput("lost", true);
  EXPECT_EQ(queued(changes), 6U);
}

}  // namespace
