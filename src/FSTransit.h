// The state of one running callback: what its comparisons have found and what is still to be
// emitted. The snapshot does not contain it until the records are out.
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
#include <unordered_map>
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
    bool isDetached;       // the folder is unknown: only what the pass has found in it counts
  };
  // `isPresent`: the folder is on the disk. An unknown folder that is not there is compared with
  // its listing, so that its entries are reported as gone.
  Known LookUp(const std::string& key, bool isPresent);

  // The folder's listing, of the overlay or else of the snapshot; null when there is none.
  FSListingPtr ListingAt(const std::string& key);

  // Like LookUp, for a comparison of these names of the folder only, which are examined now.
  // Nothing in any doubt: then the folder has to be read in full.
  std::optional<FSTree::Named> LookUpNames(const std::string& key, const FSNames& names);

  // The entries that a comparison gives the folder for these names.
  void SetComparedByNames(const std::string& key, const FSNames& names, FSListingPtr entries,
                          const FSLook& look);

  // The listing that a comparison gives the folder.
  void SetCompared(const std::string& key, const Known& known, FSListingPtr listing,
                   const FSLook& look);

  // The comparison could not read the folder, and has no result.
  void SetUnread(const std::string& key, FSReading reading);

  // A comparison has found a new folder, that a folder has gone, or that it has another name.
  void AddFolder(const std::string& path);
  void RemoveFolder(const std::string& path);
  void MoveFolder(const std::string& oldPath, const std::string& path);

  // In the order in which comparisons reported them; FSChangeBatch takes them.
  FSChangeList records;

  // ---- While records are emitted.

  // Whether the folder still exists at the path after the last comparison of the pass.
  bool IsThere(const std::string& path) const;

  // Whether this very folder has been read in full in this pass, so that records have been made of
  // all that it has.
  bool IsCompared(const std::string& key, const FileIdentity& folder) const;

  // The overlay's listing of the folder; null when it has none.
  FSListingPtr OwnListing(const std::string& key) const;

  // A scan has read the folder.
  void SetScanned(const std::string& key, FSListingPtr listing, const FSLook& look);

  // Empties the overlay: at the end of a pass, or when the snapshot was emptied or scanned anew.
  void Clear();

  // ---- When the records are out.

  // For a comparison outside a callback: applies its records to the snapshot at once, takes its
  // listing over, and returns the records.
  FSChangeList Settle();

  // Takes over the listings with which the snapshot agrees, and returns the folders that have to be
  // compared in the next pass, parents first.
  std::vector<std::string> Check();

 private:
  // What Check finds out about a listing: whether the snapshot agrees.
  enum class Outcome : uint8_t { none, agrees, unknownAndGone };

  struct Own {
    FSListingPtr listing;
    bool isFound = false;  // compared or scanned at this path
    FSLook look = {FSReading::whole, {}};
    Outcome outcome = Outcome::none;
  };

  // The result of comparing some names of a folder.
  struct Some {
    FSNames names;
    FSListingPtr entries;
    FSLook look;
    Outcome outcome = Outcome::none;
  };

  std::optional<std::string> PlaceOf(const std::string& key) const;
  FSListingPtr UneditedListing(const std::string& key) const;
  bool IsListedFolder(const std::string& key);
  void MakeWhole(const std::string& key);
  void Doubt(const std::string& place, const std::string& key, FSReading reading);
  void CompareWithSnapshot(FSTree::Replaced& replaced);
  void DoubtReplaced(const FSTree::Replaced& replaced);
  void TakeOver();
  Own* FindRead(const std::string& key);
  const FSLook* FindLook(const std::string& key);
  std::vector<std::string> NextPass();

  FSTree& tree_;

  // The overlay of one pass.
  std::map<std::string, Own, std::less<>> own_;  // by key: what comparisons and scans have found
  std::map<std::string, std::optional<std::string>> place_;  // by prefix: where the snapshot has
                                                             // it; nothing: nowhere
  std::map<std::string, Own, std::less<>> detached_;  // the same of unknown folders, see Known
  std::map<std::string, Some, std::less<>> some_;     // of folders that are not in own_
  std::unordered_map<FSListingPtr, FSListingIndex> byName_;  // those that IsListedFolder has needed
  std::vector<std::string> compared_;                        // keys, as they were then

  // Of the callback: folders that are not to be compared again in it.
  std::set<std::string> waiting_;
};
