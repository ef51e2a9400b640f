#include "FSResource.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <string_view>
#include <utility>

namespace {

// Inode numbers are often consecutive and often multiples; multiplying spreads both over the
// buckets.
uint32_t hashOf(uint64_t inode) {
  return static_cast<uint32_t>((inode * 0x9E3779B97F4A7C15U) >> 20);
}
uint32_t hashOf(const FSPath& path) {
  return static_cast<uint32_t>(std::hash<std::string_view>()(path.name()));
}

int32_t position(const FSResourceList& items, FSResourceList::const_iterator found) {
  return found == items.end() ? -1 : static_cast<int32_t>(found - items.begin());
}

}  // namespace

FSResource::FSResource(uint64_t inode, FSPath path, bool isFolder, timespec modified,
                       timespec created, uint64_t size, FSText oldPath)
    : inode(inode),
      path(std::move(path)),
      isFolder(isFolder),
      created(created),
      modified(modified),
      size(size),
      oldPath(std::move(oldPath)) {}

FSResourcePtr withPath(const FSResource& resource, FSPath path) {
  auto moved = std::make_shared<FSResource>(resource);
  moved->path = std::move(path);
  return moved;
}

FSChangedResource::FSChangedResource(std::string_view action, const FSResource& resource)
    : FSResource(resource), action(action) {}

FSResourceIndex::FSResourceIndex(const FSResourceList& list, Key key)
    : list_(list), heads_(std::bit_ceil(list.size() + 1), kNone), links_(list.size()) {
  for (size_t i = list.size(); i-- > 0;) {
    const uint32_t hash = key == Key::path ? hashOf(list[i]->path) : hashOf(list[i]->inode);
    uint32_t& head = heads_[hash & (heads_.size() - 1)];
    links_[i] = {hash, head};
    head = static_cast<uint32_t>(i);
  }
}

uint32_t FSResourceIndex::FirstByPath(const FSPath& path) const {
  const uint32_t hash = hashOf(path);
  return MatchPath(Bucket(hash), hash, path);
}

uint32_t FSResourceIndex::NextByPath(uint32_t position) const {
  return MatchPath(links_[position].next, links_[position].hash, list_[position]->path);
}

uint32_t FSResourceIndex::FirstByINode(uint64_t inode) const {
  const uint32_t hash = hashOf(inode);
  return MatchINode(Bucket(hash), hash, inode);
}

uint32_t FSResourceIndex::NextByINode(uint32_t position) const {
  return MatchINode(links_[position].next, links_[position].hash, list_[position]->inode);
}

uint32_t FSResourceIndex::MatchPath(uint32_t position, uint32_t hash, const FSPath& path) const {
  while (position != kNone && (links_[position].hash != hash || list_[position]->path != path)) {
    position = links_[position].next;
  }
  return position;
}

uint32_t FSResourceIndex::MatchINode(uint32_t position, uint32_t hash, uint64_t inode) const {
  while (position != kNone && (links_[position].hash != hash || list_[position]->inode != inode)) {
    position = links_[position].next;
  }
  return position;
}

FSResourceArray::FSResourceArray(FSResourceList list)
    : items(std::move(list)), count(static_cast<uint32_t>(items.size())) {}

void FSResourceArray::Append(FSResourcePtr resource) {
  items.push_back(std::move(resource));
  ++count;
}

void FSResourceArray::Remove(const FSResourcePtr& resource) {
  std::erase(items, FSResourcePtr(resource));  // a copy: the argument may stand in the list itself
  count = static_cast<uint32_t>(items.size());
}

void FSResourceArray::AppendList(FSResourceList list) {
  items.insert(items.end(), list.begin(), list.end());
  count += static_cast<uint32_t>(list.size());
}

FSResourcePtr FSResourceArray::Get(unsigned int index) const {
  return index < count ? items[index] : nullptr;
}

int32_t FSResourceArray::IndexOfByPath(const FSResource& resource) const {
  return position(items, std::find_if(items.begin(), items.end(), [&](const FSResourcePtr& item) {
                    return item->path == resource.path;
                  }));
}

int32_t FSResourceArray::IndexOfByINode(const FSResource& resource) const {
  return position(items, std::find_if(items.begin(), items.end(), [&](const FSResourcePtr& item) {
                    return item->inode == resource.inode;
                  }));
}

FSResourceList FSResourceArray::CompareByPath(const FSResource& reference, bool selectEqual,
                                              bool selectGreater, bool selectLess) const {
  FSResourceList selected;
  for (const FSResourcePtr& item : items) {
    const int order = item->path.str().compare(reference.path);
    if ((selectEqual && order == 0) || (selectGreater && order > 0) || (selectLess && order < 0)) {
      selected.push_back(item);
    }
  }
  return selected;
}
