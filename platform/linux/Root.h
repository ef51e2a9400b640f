// The watched folder itself: the way down to it, what is at its path, which folder the callback
// knows there, and every doubt about it.
//
// Its own watch does not report that a folder above was renamed, that a link in its path leads
// elsewhere, or that a missing one has come. So whatever makes it doubtful that the same folder is
// still there, an event on the way, a mount, the loss of its watch, a folder that is not found
// below it, ends in one place: IsInDoubt. Before the next batch the reader then calls Settle.
//
// Owned by the stream's reader, whose thread alone uses it. It has no clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "FileIdentity.h"
#include "OpenFolder.h"
#include "RootChain.h"

class Root {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // What is at the path; unknown when that cannot be found out now.
  enum class Kind : uint8_t { missing, folder, unreadable, other, unknown };
  struct Sight {
    Kind kind = Kind::missing;
    FileIdentity identity;
    OpenFolder folder;  // open if kind is folder
  };

  // Finds out whether the open folder is the root that is being watched: WatchTable::ProbeRoot.
  using Probe = std::function<bool(const OpenFolder&)>;

  // `path` is without a final "/", but for "/". What is there now is what the callback knows.
  explicit Root(std::string path);

  const std::string& path() const { return path_; }

  // The descriptor to wait on; -1 when there is none.
  int number() const { return chain_.number(); }

  // Watches the way down and gives what is there, which becomes the known root. Where the callback
  // knows another, that is a doubt.
  Sight Watch(Time now);

  // The callback knows another root than this one.
  void NoteUnreported() { doubts_ |= kDoubt | kUnreported; }

  // It is doubtful that the known root is at the path.
  void Doubt() { doubts_ |= kDoubt; }

  // And names below the path were possibly looked up elsewhere.
  void DoubtNames() { doubts_ |= kDoubt | kAstray; }

  bool IsInDoubt() const { return doubts_ != 0; }

  // Drains the queue of the way down. Where that cannot be watched, looks at the path when it is
  // time.
  void Read(Time now, const Probe& probe);

  // When Read is to be called though nothing has come; nothing for never.
  std::optional<Time> NextLook() const;

  // A callback is running: while there is a doubt, it possibly finds no root or another.
  void NoteCallback();

  // Watches the way down again, looks, and ends the doubt, unless it cannot be ended now. A root
  // that is not the one that the callback knows becomes the known one.
  struct Finding {
    enum class Verdict : uint8_t { unknown, same, changed };
    Verdict verdict = Verdict::unknown;
    Sight sight;
    bool wasAstray = false;  // the same, but names below it were possibly looked up elsewhere
    bool wasMissed = false;  // the same, but a callback possibly did not find it
  };
  Finding Settle(const Probe& probe);

  // What paths without links begin with below the root; none does where it is missing.
  std::string RealPrefix() const;

 private:
  // What is not certain. Set where it arises; all end with Settle or Watch.
  enum : uint8_t {
    kDoubt = 1,
    kAstray = 2,
    kMissed = 4,
    kUnreported = 8,  // the callback knows another root
  };

  Sight Look() const;
  bool Confirm(const Sight& now, const Probe& probe) const;
  void Accept(const Sight& now);

  const std::string path_;
  RootChain chain_;

  // The known root, from Accept to Accept.
  Kind kind_ = Kind::missing;
  FileIdentity identity_;

  uint8_t doubts_ = 0;
  Time nextLook_{};  // where the way down cannot be watched
};
