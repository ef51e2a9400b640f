// The entry point: announces the version, reads the positional arguments and launches the watcher.

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "FSEventWatcher.h"
#include "FSStandardOutput.h"

namespace {

constexpr char kVersion[] = "<version>3.0.7.160915</version>\n";
constexpr char kMissingPath[] = "<error>Please pass path to watch or -h for help.</error>\n";
constexpr char kUsage[] =
    "Dirwarden usage:\n"
    "Dirwarden [WATCH_DIR] [SHOW_SNAPSHOT=true(default)|false] [LOGGING=true|false(default)] "
    "[LOG_FILE] [ENCODE_OUTPUT=true(default)|false]\n";

struct Settings {
  std::string path;
  bool showAll = true;
  bool debugMode = false;
  std::string logFile;
  bool doEncodeOutput = true;
};

// Only the exact word that differs from the default changes a switch.
void readArguments(int count, char** arguments, Settings& settings) {
  settings.path = arguments[1];
  if (count > 2) settings.showAll = std::string_view(arguments[2]) != "false";
  if (count > 3) settings.debugMode = std::string_view(arguments[3]) == "true";
  if (count > 4) settings.logFile = arguments[4];
  if (count > 5) settings.doEncodeOutput = std::string_view(arguments[5]) != "false";
}

}  // namespace

int main(int argc, char** argv) {
  FSStandardOutput::EndWithReader();
  FSStandardOutput::WriteAll(kVersion);
  if (argc < 2) {
    FSStandardOutput::WriteAll(kMissingPath);
    return 0;
  }
  if (std::string_view(argv[1]) == "-h") {
    FSStandardOutput::WriteAll(kUsage);
    return 0;
  }
  Settings settings;
  try {
    readArguments(argc, argv, settings);
  } catch (const std::exception&) {
    // Watch with what has been read so far.
  }
  launchWatcher(std::move(settings.path), settings.showAll, settings.debugMode,
                std::move(settings.logFile), settings.doEncodeOutput);
  return 0;
}
