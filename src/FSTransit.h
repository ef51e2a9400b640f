// The books of one running callback: what its comparisons have found and what is still to be
// emitted. The snapshot knows nothing of it until the records are out.
//
// A callback works in passes. A pass compares folders, which fills the overlay and the list of
// records; then the records are emitted, which changes the snapshot; then Check compares the two. A
// folder for which they do not agree is compared again in the next pass, with what the reader
// really has.
//
// The overlay is the snapshot as it will be when the records of the pass are out, as far as
// comparisons have changed it: later comparisons of the pass see it. Made by FSEventWatcher for one
// callback; main thread only.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "FSListing.h"
#include "FSResource.h"
#include "FSTree.h"

class FSTransit {
 public:
  explicit FSTransit(FSTree& tree) : tree_(tree) {}

  // ---- While folders are compared.

  // What is known of the folder, for its comparison.
  struct Known {
    FSListingPtr listing;  // of what has been reported; empty when there is none
    bool isDetached;       // the folder is unknown, and is compared with nothing
  };
  // `isPresent`: it is on the disk.
  Known LookUp(const std::string& key, bool isPresent);

  // The folder's listing for what cannot be read now; null when there is none.
  FSListingPtr ListingAt(const std::string& key);

  // The same for a comparison of these names of the folder only. Nothing in any doubt: then the
  // folder has to be read in full.
  std::optional<FSTree::Named> LookUpNames(const std::string& key, const FSNames& names);

  // What a comparison has made of the entries of these names.
  void SetComparedByNames(const std::string& key, const FSNames& names, FSListingPtr entries,
                          const FSLook& look);

  // What a comparison has made of the folder's listing.
  void SetCompared(const std::string& key, const Known& known, FSListingPtr listing,
                   const FSLook& look);

  // The comparison could not read the folder, and says nothing.
  void SetUnread(const std::string& key, FSReading reading);

  // A comparison has found a new folder, that a folder has gone, or that it has another name.
  void AddFolder(const std::string& path);
  void RemoveFolder(const std::string& path);
  void MoveFolder(const std::string& oldPath, const std::string& path);

  // In the order of the comparisons; FSChangeBatch takes them.
  FSChangeList records;

  // ---- While records are emitted.

  // Whether the folder is still there after the last comparison.
  bool IsThere(const std::string& path) const;

  // The listing that comparisons have made of the folder; null when they have made none.
  FSListingPtr OwnListing(const std::string& key) const;

  // A scan has read the folder.
  void SetScanned(const std::string& key, FSListingPtr listing, const FSLook& look);

  // The snapshot has been made anew: nothing of the overlay holds.
  void Clear();

  // ---- When the records are out.

  // For a comparison by itself: does at once in the snapshot what its records say, takes its
  // listing over, and gives the records.
  FSChangeList Settle();

  // Takes the listings over with which the snapshot agrees, and gives the folders that have to be
  // compared in the next pass, parents first.
  std::vector<std::string> Check();

 private:
  struct Own {
    FSListingPtr listing;
    bool isFound = false;  // compared or scanned at this path
    FSLook look = {FSReading::whole, {}};
  };

  // What comparisons have made of some entries.
  struct Some {
    FSNames names;
    FSListingPtr entries;
    FSLook look;
  };

  std::optional<std::string> PlaceOf(const std::string& key) const;
  bool IsListedFolder(const std::string& key);
  void MakeWhole(const std::string& key);
  void Doubt(const std::string& place, const std::string& key, FSReading reading);
  const FSLook* FindFound(const std::string& key) const;
  std::vector<std::string> NextPass();

  FSTree& tree_;

  // The overlay of one pass.
  std::map<std::string, Own, std::less<>> own_;  // by key: what comparisons and scans have made
  std::map<std::string, std::optional<std::string>> place_;  // by prefix: where the snapshot has
                                                             // it; nothing: nowhere
  std::map<std::string, Own, std::less<>> detached_;  // of unknown folders, compared with nothing
  std::map<std::string, Some, std::less<>> some_;     // of folders that are not in own_
  std::vector<std::string> compared_;                 // keys, at the time

  // Of the callback: folders that are not to be compared again in it.
  std::set<std::string> waiting_;
};
