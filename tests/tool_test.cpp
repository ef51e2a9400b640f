// The tool as a reader meets it: the binary on a pipe, a real folder, real events. Lines are waited
// for with a deadline, never for a fixed time, and compared as they came.

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <utility>

#include "support.h"
#include "utility.h"

namespace {

using Lines = std::vector<std::string>;

constexpr int kNotPrepared = 77;

// A running Dirwarden, killed at the end. Its standard error has to stay empty.
class Tool {
 public:
  // `prepare` runs in the new process before the tool; when it gives false, the process ends with
  // the status kNotPrepared.
  Tool(
      const std::string& workingFolder, Lines arguments,
      const std::function<bool()>& prepare = [] { return true; }) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    arguments.insert(arguments.begin(), DIRWARDEN_BINARY);
    std::vector<char*> words;
    for (std::string& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    process_ = fork();
    if (process_ == 0) {
      std::signal(SIGPIPE, SIG_DFL);
      const int errors = open(errors_.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
      if (dup2(ends[1], 1) < 0 || dup2(errors, 2) < 0 || close(ends[0]) != 0 ||
          close(ends[1]) != 0 || chdir(workingFolder.c_str()) != 0 || !prepare()) {
        _exit(kNotPrepared);
      }
      execv(DIRWARDEN_BINARY, words.data());
      _exit(127);
    }
    close(ends[1]);
    output_ = ends[0];
  }
  ~Tool() {
    if (!ended_ && kill(process_, SIGKILL) == 0) waitpid(process_, nullptr, 0);
    close(output_);
    EXPECT_EQ(readFile(errors_), "") << "standard error";
  }

  // The next lines, so many; fewer when they do not come in time or the output ends.
  Lines take(size_t count) {
    char buffer[65536];
    pollfd readable{output_, POLLIN, 0};
    while (lines_.size() < count && poll(&readable, 1, 20000) == 1) {
      const ssize_t length = read(output_, buffer, sizeof buffer);
      if (length <= 0) break;
      pending_.append(buffer, static_cast<size_t>(length));
      for (size_t end; (end = pending_.find('\n')) != std::string::npos;) {
        lines_.push_back(pending_.substr(0, end));
        pending_.erase(0, end + 1);
      }
    }
    const auto last = lines_.begin() + static_cast<ssize_t>(std::min(count, lines_.size()));
    const Lines taken(lines_.begin(), last);
    lines_.erase(lines_.begin(), last);
    return taken;
  }

  // Waits until the tool watches something. What changes before the stream exists is not told.
  bool watches() const {
    return comesTrue([&] {
      for (const auto& file :
           std::filesystem::directory_iterator("/proc/" + std::to_string(process_) + "/fdinfo")) {
        if (readFile(file.path()).find("inotify wd:") != std::string::npos) return true;
      }
      return false;
    });
  }

  // How many bytes wait in the pipe.
  int unread() const {
    int count = 0;
    return ioctl(output_, FIONREAD, &count) == 0 ? count : -1;
  }
  void stopReading() { close(std::exchange(output_, -1)); }

  void pause() const { kill(process_, SIGSTOP); }
  void resume() const { kill(process_, SIGCONT); }

  // Waits for the tool's end; the status as waitpid gives it, or -1.
  int status() {
    int status = -1;
    ended_ = comesTrue([&] { return waitpid(process_, &status, WNOHANG) == process_; });
    return status;
  }

 private:
  TempFolder own_;
  const std::string errors_ = own_ / "errors";
  pid_t process_ = -1;
  int output_ = -1;
  bool ended_ = false;
  std::string pending_;  // the beginning of a line
  Lines lines_;          // not taken yet
};

// Commands for TempFolder::run and the records that tell what they do, as ToolTest::line takes
// them.
struct Step {
  std::string commands;
  Lines records;
  bool anyOrder = false;  // of the records after the first
};

class ToolTest : public testing::Test {
 protected:
  ToolTest() { folder.run("mkdir w"); }

  // The line of a record told as "create file w/a", "rename folder w/a -> w/b" or "scan begin". A
  // record of something gone has the values that the last line about the name had.
  std::string line(const std::string& record) {
    const Lines words = pieces(record, " ");
    if (words[0] == "scan") return "<scan action=\"" + words[1] + "\"></scan>";
    const std::string& name = words.back();
    const bool isRoot = words[0].starts_with("root");
    struct stat now {};
    if (words[0] != "delete" && !isRoot && lstat((folder / name).c_str(), &now) == 0) {
      const auto text = [](auto value) { return std::to_string(static_cast<uint64_t>(value)); };
      values[name] = {text(now.st_ino), " modified=\"" + text(now.st_mtim.tv_sec) +
                                            "\" created=\"" + text(now.st_ctim.tv_sec) +
                                            "\" size=\"" + text(now.st_size) + "\""};
    }
    const auto& [inode, others] = values.at(name);
    const std::string old = words.size() > 3 ? " oldValue=\"" + shown(words[2]) + "\"" : "";
    return "<" + words[1] + " action=\"" + words[0] + "\" inode=\"" + inode + "\"" + old +
           (isRoot ? "" : others) + ">" + shown(name) + "</" + words[1] + ">";
  }
  Lines lines(const Lines& records) {
    Lines all;
    for (const std::string& record : records) all.push_back(line(record));
    return all;
  }

  // A name as records show it: "w" is the watched folder.
  std::string shown(const std::string& name) const { return coded(root + name.substr(1)); }
  std::string coded(const std::string& path) const {
    return encoded ? Utility::urlEncode(path) : path;
  }

  // What the tool writes at its start: the settings show_all, debug, log and encode_output, and
  // what the scan gives.
  Lines start(const std::string& path, const Lines& settings, const Lines& scanned = {}) const {
    Lines all = {"<version>3.0.7.160915</version>",
                 "<path>" + coded(path) + "</path>",
                 "<show_all>" + settings[0] + "</show_all>",
                 "<debug>" + settings[1] + "</debug>",
                 "<log>" + coded(settings[2]) + "</log>",
                 "<encode_output>" + settings[3] + "</encode_output>",
                 "<scan action=\"begin\"></scan>"};
    all.insert(all.end(), scanned.begin(), scanned.end());
    all.emplace_back("<scan action=\"complete\"></scan>");
    return all;
  }

  void play(Tool& tool, const std::vector<Step>& steps) {
    ASSERT_TRUE(tool.watches());
    for (const Step& step : steps) {
      SCOPED_TRACE(step.commands);
      tool.pause();  // or a batch might be cut in the middle of the commands
      folder.run(step.commands);
      tool.resume();
      Lines expected = lines(step.records);
      Lines came = tool.take(expected.size());
      if (step.anyOrder && came.size() == expected.size()) {
        std::sort(expected.begin() + 1, expected.end());
        std::sort(came.begin() + 1, came.end());
      }
      ASSERT_EQ(came, expected);
    }
  }

  TempFolder folder;
  std::string root = folder / "w";  // as the tool was given it, without a final "/"
  bool encoded = true;
  std::map<std::string, std::pair<std::string, std::string>> values;  // by name: inode, the others
  const Step nothingMore{"touch w/end", {"create file w/end"}};
};

TEST_F(ToolTest, AnswersWithoutWatching) {
  const std::string version = "<version>3.0.7.160915</version>";
  const Lines usage = {version, "Dirwarden usage:",
                       "Dirwarden [WATCH_DIR] [SHOW_SNAPSHOT=true(default)|false] "
                       "[LOGGING=true|false(default)] [LOG_FILE] "
                       "[ENCODE_OUTPUT=true(default)|false]"};
  const std::vector<std::pair<Lines, Lines>> cases = {
      {{}, {version, "<error>Please pass path to watch or -h for help.</error>"}},
      {{"-h"}, usage},
      {{"-h", root, "true"}, usage}};
  for (const auto& [arguments, expected] : cases) {
    Tool tool(root, arguments);
    EXPECT_EQ(tool.take(SIZE_MAX), expected);
    EXPECT_EQ(tool.status(), 0);
  }
}

TEST_F(ToolTest, StartsWithItsSettingsAndTheSnapshot) {
  folder.run("mkdir w/d.tmp; touch w/d.tmp/a<b; touch w/d.tmp/i.tmp; touch w/d.tmp/.DS_Store");
  const std::vector<std::pair<Lines, Lines>> cases = {
      {{root}, {"true", "false", "", "true"}},
      {{root + "/", "false", "TRUE", "/l.g", "no"}, {"false", "false", "/l.g", "true"}},
      {{".", "False", "1", "/l.g", "false"}, {"true", "false", "/l.g", "false"}},
      {{"../w", "false", "true", "", "FALSE", "false"}, {"false", "true", "", "true"}},
      {{"../w/", "-h"}, {"true", "false", "", "true"}}};
  for (const auto& [arguments, settings] : cases) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    root = arguments[0].substr(0, arguments[0].find_last_not_of('/') + 1);
    encoded = settings[3] == "true";
    const Lines content = lines({"sync folder w/d.tmp", "sync file w/d.tmp/a<b"});
    const Lines expected = start(arguments[0], settings, settings[0] == "true" ? content : Lines());
    Tool tool(folder / "w", arguments);
    ASSERT_EQ(tool.take(expected.size()), expected);
    play(tool, {{"touch w/d.tmp/new", {"create file w/d.tmp/new"}},
                {"rm w/d.tmp/new", {"delete file w/d.tmp/new"}}});
  }
}

TEST_F(ToolTest, LogsWhatItTellsAndSees) {
  const std::string log = folder / "log";
  folder.write("log", "[2000-01-01 00:00:00] before\n");
  Tool tool(root, {root, "false", "true", log});
  Lines expected = start(root, {"false", "true", log, "true"});
  EXPECT_EQ(tool.take(8), expected);
  expected[0] = "before";
  play(tool, {{"touch w/a", {"create file w/a"}}, {"touch w/<b", {"create file w/<b"}}});
  encoded = false;
  const Lines last = {"CHANGED \"" + root + "/\" , EVENT ID N, FLAGS 0",
                      "* CREATED file \"" + root + "/<b\"", line("create file w/<b")};
  comesTrue([&] { return readFile(log).ends_with(last.back() + "\n"); });
  const std::regex time(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] )"), number("EVENT ID \\d+");
  Lines logged = pieces(readFile(log), "\n");
  for (std::string& text : logged) {
    text = std::regex_replace(std::regex_replace(text, time, ""), number, "EVENT ID N");
  }
  ASSERT_GE(logged.size(), expected.size() + 2 * last.size());
  EXPECT_EQ(Lines(logged.begin(), logged.begin() + 8), expected);
  EXPECT_EQ(Lines(logged.end() - 3, logged.end()), last);
}

class ChangesTest : public ToolTest, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Encoded, ChangesTest, testing::Bool());

TEST_P(ChangesTest, AreToldEachByItsLine) {
  encoded = GetParam();
  folder.run("mkdir w/A; mkdir w/B/sub; touch w/A/f; mkdir in/n; touch in/n/m");
  lines({"sync folder w/A", "sync folder w/B", "sync file w/A/f"});
  Tool tool(root, {root, "false", "false", "", encoded ? "true" : "false"});
  ASSERT_EQ(tool.take(8).size(), 8U);
  const std::string odd = "w/B/%41\"<&>\xc3\xa9\xff";
  play(tool,
       {{"touch w/n", {"create file w/n"}},
        {"touch w/n 1000000000.25", {"change file w/n"}},
        {"touch w/n 1000000000.75; touch w/i.tmp; touch w/A/.DS_Store", {}},
        {"mv w/n w/m", {"rename file w/n -> w/m"}},
        {"mv w/m " + odd, {"rename file w/m -> " + odd}},
        {"touch " + odd + " -1", {"change file " + odd}},
        // The new file gets the inode number of the old one, or another.
        {"rm w/A/f; touch w/A/g", {"delete file w/A/f", "create file w/A/g"}},
        {"touch w/A/h; rm w/A/g", {"delete file w/A/g", "create file w/A/h"}},
        {"mkdir w/new/a/b; touch w/new/a/b/c",
         {"create folder w/new", "create folder w/new/a", "create folder w/new/a/b",
          "create file w/new/a/b/c"}},
        {"mkdir w/N/d; touch w/N/d/1; touch w/N/2; touch w/N/3",
         {"create folder w/N", "create folder w/N/d", "create file w/N/d/1", "create file w/N/2",
          "create file w/N/3"},
         true},
        {"mv w/new w/B/x", {"rename folder w/new -> w/B/x"}},
        {"mv w/B/x w/B/y", {"rename folder w/B/x -> w/B/y"}},
        {"touch w/B/y/a/b/c 5", {"change file w/B/y/a/b/c"}},
        {"rm w/B/y/a/b/c", {"delete file w/B/y/a/b/c"}},
        {"mv in w/in", {"create folder w/in", "create folder w/in/n", "create file w/in/n/m"}},
        {"mv w/in out", {"delete folder w/in"}},
        {"rm w/A/h; mkdir w/A/h", {"delete file w/A/h", "create folder w/A/h"}},
        {"rm w/A; touch w/a", {"delete folder w/A", "create file w/a"}},
        {"rm w/B", {"delete folder w/B"}},
        nothingMore});
}

TEST_F(ToolTest, TellsThatTheWatchedFolderGoesAndComes) {
  folder.run("mkdir next/d; touch next/d/f; mkdir last; touch last/z");
  line("sync folder w");  // root records keep the values of the start
  Tool tool(root, {root});
  ASSERT_EQ(tool.take(8).size(), 8U);
  const Lines back = {"rootcreate folder w", "scan begin", "sync folder w/d", "sync file w/d/f",
                      "scan complete"};
  play(tool, {{"rm w", {"rootdelete folder w"}},
              {"mv next w", back},
              {"touch w/d/g", {"create file w/d/g"}},
              {"rm w/d/g", {"delete file w/d/g"}},
              {"mv w away", {"rootdelete folder w"}},
              {"mv away w", back},
              {"touch w/d/f 5", {"change file w/d/f"}},
              {"mv w away; mv last w",
               {"rootcreate folder w", "scan begin", "sync file w/z", "scan complete"}},
              {"touch away/unseen; touch w/z 5", {"change file w/z"}},
              nothingMore});
}

TEST_F(ToolTest, WaitsForAFolderThatIsMissing) {
  Tool tool(root, {root + "/m"});
  const Lines expected =
      start(root + "/m", {"true", "false", "", "true"},
            {"<error>" + root + "/m</error>", "<error>No such file or directory</error>"});
  ASSERT_EQ(tool.take(expected.size()), expected);
  ASSERT_TRUE(tool.watches());
  folder.run("mkdir w/m");
  line("sync folder w/m");  // the values of a root record
  play(tool, {{"", {"rootcreate folder w/m", "scan begin", "scan complete"}},
              {"touch w/m/a", {"create file w/m/a"}}});
}

TEST_F(ToolTest, KeepsEverythingForAReaderThatStallsAndEndsWithIt) {
  Tool tool(root, {root});
  ASSERT_EQ(tool.take(8).size(), 8U);
  ASSERT_TRUE(tool.watches());
  Step many{"", {"create folder w/0"}, true};
  folder.run("mkdir 0");
  for (int i = 100; i < 500; ++i) {
    const std::string name = "0/" + std::string(200, 'x') + std::to_string(i);
    folder.run("touch " + name);
    many.records.push_back("create file w/" + name);
  }
  folder.run("mv 0 w/0");
  // More is to come than the pipe holds, so the tool comes to a stop.
  ASSERT_TRUE(comesTrue([&] { return tool.unread() > 30000; }));
  folder.run("mkdir w/d; touch w/d/f");
  play(tool, {many, {"", {"create folder w/d", "create file w/d/f"}}, nothingMore});
  tool.stopReading();
  folder.run("touch w/a");
  const int status = tool.status();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << status;
}

// Gives the process a user namespace of its own, in which a limit of the kernel's is another.
bool limit(const std::string& name, const std::string& value) {
  const std::string file = "/proc/sys/user/max_inotify_" + name;
  if (unshare(CLONE_NEWUSER) != 0) return false;
  std::ofstream(file) << value;
  return readFile(file) == value + "\n";
}

TEST_F(ToolTest, EndsInOrderWhenItCannotWatch) {
  Tool tool(root, {root}, [] {
    // The tool never gives its stream back.
    const char* options = std::getenv("ASAN_OPTIONS");
    const std::string more = std::string(options == nullptr ? "" : options) + ":detect_leaks=0";
    return setenv("ASAN_OPTIONS", more.c_str(), 1) == 0 && limit("instances", "0");
  });
  const Lines came = tool.take(SIZE_MAX);
  const int status = tool.status();
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPrepared) GTEST_SKIP() << "not permitted";
  EXPECT_EQ(status, 0);
  const Lines all = start(root, {"true", "false", "", "true"});
  ASSERT_TRUE(!came.empty() && came.size() <= all.size()) << testing::PrintToString(came);
  EXPECT_TRUE(std::equal(came.begin(), came.end(), all.begin())) << testing::PrintToString(came);
}

}  // namespace
