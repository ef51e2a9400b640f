#include "Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <string_view>

#include "FileStatus.h"
#include "FolderEntries.h"

namespace {

// Nothing when that cannot be found out.
std::optional<bool> isFolder(int parent, const dirent64& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat status;
  if (fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return S_ISDIR(status.st_mode);
  }
  if (failureOf(errno) == Failure::passing) return std::nullopt;
  return false;
}

// Leaves the folder at its start, for whoever lists it next.
template <typename Visit>
bool eachEntryFromTheStart(const OpenFolder& folder, Visit visit) {
  lseek(folder.number(), 0, SEEK_SET);
  const bool isWhole = eachEntry(folder.number(), visit);
  const int error = errno;
  lseek(folder.number(), 0, SEEK_SET);
  errno = error;
  return isWhole;
}

}  // namespace

FileIdentity identityOf(const OpenFolder& folder) {
  const std::optional<FileStatus> status = readStatus(folder.number(), "");
  return status ? status->identity : FileIdentity();
}

bool isSameFolder(const OpenFolder& a, const OpenFolder& b) {
  struct stat one, other;
  return fstat(a.number(), &one) == 0 && fstat(b.number(), &other) == 0 &&
         one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

FolderListing listFolder(const OpenFolder& folder) {
  FolderListing listing;
  bool areKindsKnown = true;
  const bool isRead = eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    listing.isEmpty = false;
    const std::optional<bool> isSubfolder = isFolder(folder.number(), entry);
    areKindsKnown &= isSubfolder.has_value();
    if (isSubfolder.value_or(false)) listing.subfolders.emplace_back(entry.d_name);
  });
  listing.isWhole = isRead && areKindsKnown;
  return listing;
}

uint64_t fingerprintOf(const OpenFolder& folder) {
  const auto withTime = [](uint64_t hash, const FileStatus& status) {
    hash = mixedWith(hash, static_cast<uint64_t>(status.created.tv_sec));
    return mixedWith(hash, static_cast<uint64_t>(status.created.tv_nsec));
  };
  const std::optional<FileStatus> own = readStatus(folder.number(), "");
  uint64_t sum = own ? withTime(1, *own) : 0;
  eachEntryFromTheStart(folder, [&](const dirent64& entry) {
    const std::optional<FileStatus> status = readStatus(folder.number(), entry.d_name);
    if (!status) return;
    uint64_t hash = std::hash<std::string_view>()(entry.d_name);
    hash = mixedWith(mixedWith(hash, status->identity.inode), status->identity.generation);
    if (!status->isFolder) hash = withTime(hash, *status);
    sum += hash;  // in whatever order they are listed
  });
  return sum;
}
