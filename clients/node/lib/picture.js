// The picture of a tree that the records give. Names are strings with one character for each byte ("latin1"): names
// need not be valid in any encoding, and such strings take the least memory.

const UNREPORTED = { inode: -1, modified: 0, created: 0, size: 0 };

// A file or a folder. `below` is a Map from names to entries, null for a file.
export class Entry {
  constructor(name, parent, isFolder, { inode, modified, created, size }) {
    this.name = name;
    this.parent = parent;
    this.below = isFolder ? new Map() : null;
    this.inode = inode;
    this.modified = modified;
    this.created = created;
    this.size = size;
  }

  get kind() { return this.below === null ? 'file' : 'folder'; }

  get isFolder() { return this.below !== null; }

  // False of a folder that is known only because something in it was reported.
  get isReported() { return this.inode >= 0; }

  takeOver({ inode, modified, created, size }) {
    this.inode = inode;
    this.modified = modified;
    this.created = created;
    this.size = size;
  }
}

const trimmed = (path) => {
  let end = path.length;
  while (end > 0 && path[end - 1] === '/') end--;
  return path.slice(0, end);
};

export class Picture {
  constructor(root, encoding) {
    this.root = trimmed(root);
    this.encoding = encoding;
    this.clear();
  }

  clear() { this.top = new Entry(this.root, null, true, UNREPORTED); }

  // A path as the program wants it.
  shown(raw) {
    const bytes = Buffer.from(raw, 'latin1');
    return this.encoding === 'buffer' ? bytes : bytes.toString('utf8');
  }

  pathFrom(parts) { return this.shown([this.root, ...parts].join('/')); }

  // The names below the watched folder; null for a path that is not below it.
  parts(raw) {
    return raw.startsWith(this.root + '/') ? raw.slice(this.root.length + 1).split('/') : null;
  }

  find(parts) {
    let at = this.top;
    for (const name of parts) at = at?.below?.get(name);
    return at;
  }

  // Whether this is the watched folder, or a folder below it that has been reported.
  hasFolder(raw) {
    const parts = this.parts(raw);
    const entry = parts === null ? undefined : this.find(parts);
    return trimmed(raw) === this.root || Boolean(entry?.isFolder && entry.isReported);
  }

  // Whether the path of some folder begins so.
  mayBeginFolder(start) {
    if (start.length <= this.root.length) return this.root.startsWith(start);
    const parts = this.parts(start);
    if (parts === null) return false;
    const last = parts.pop();
    for (const [name, entry] of this.find(parts)?.below ?? []) {
      if (name.startsWith(last) && entry.isFolder) return true;
    }
    return false;
  }

  // Null when the entry has been taken out.
  pathOf(entry) {
    const names = [];
    let at = entry;
    for (; at !== null && at !== this.top; at = at.parent) names.push(at.name);
    return at === null ? null : [this.root, ...names.reverse()].join('/');
  }

  // What the records ask for.

  // The folder; one that was not reported yet is made, and what else has its name goes.
  folder(parts) {
    let at = this.top;
    for (const name of parts) {
      let entry = at.below.get(name);
      if (!entry?.isFolder) {
        if (entry) entry.parent = null;
        entry = new Entry(name, at, true, UNREPORTED);
        at.below.set(name, entry);
      }
      at = entry;
    }
    return at;
  }

  put(parts, isFolder, attributes) {
    return this.putIn(this.folder(parts.slice(0, -1)), parts.at(-1), isFolder, attributes);
  }

  putIn(folder, name, isFolder, attributes) {
    let entry = folder.below.get(name);
    if (entry?.isFolder === isFolder) {
      entry.takeOver(attributes);
      return entry;
    }
    if (entry) entry.parent = null;
    entry = new Entry(name, folder, isFolder, attributes);
    folder.below.set(name, entry);
    return entry;
  }

  take(parts) {
    const entry = this.find(parts);
    if (!entry?.parent) return undefined;
    let gone = entry;
    let at;
    do {
      at = gone.parent;
      at.below.delete(gone.name);
      gone.parent = null;
      gone = at;
    } while (at.below.size === 0 && !at.isReported && at.parent);
    return entry;
  }

  move(old, parts, isFolder, attributes) {
    const entry = this.take(old);
    this.take(parts);
    if (entry?.isFolder !== isFolder) return this.put(parts, isFolder, attributes);
    const folder = this.folder(parts.slice(0, -1));
    entry.name = parts.at(-1);
    entry.parent = folder;
    folder.below.set(entry.name, entry);
    entry.takeOver(attributes);
    return entry;
  }

  // What programs ask for.

  get(path) {
    const parts = this.parts(Buffer.from(path).toString('latin1'));
    const entry = parts === null ? undefined : this.find(parts);
    return entry?.isReported ? entry : undefined;
  }

  has(path) { return this.get(path) !== undefined; }

  get size() {
    let count = 0;
    for (const _ of this) count++;
    return count;
  }

  // Pairs of a path and its entry.
  *[Symbol.iterator]() {
    const folders = [[this.root, this.top]];
    while (folders.length > 0) {
      const [path, folder] = folders.pop();
      for (const [name, entry] of folder.below) {
        const whole = `${path}/${name}`;
        if (entry.isReported) yield [this.shown(whole), entry];
        if (entry.below?.size > 0) folders.push([whole, entry]);
      }
    }
  }
}
