// What the tool's output means: bytes (as latin1 strings) in, events out. No process and no waiting: those who read say
// what the time is. Events come in order; a batch ends where the output pauses.

import { lstatSync } from 'node:fs';
import { Picture } from './picture.js';

const RECORD = new RegExp('<(file|folder) action="([a-z]+)" inode="([0-9]+)"(?: oldValue="([^"\\n]*)")?'
  + '(?: modified="([0-9]+)" created="([0-9]+)" size="([0-9]+)")?>([^<\\n]*)</\\1>\\n', 'y');
const REASON = /<error>([^<\n]*)<\/error>\n/y;
const ERROR = '<error>';
const ERROR_END = '</error>\n';
const LONGEST_PATH = 4096;
const PAUSE = 0.1; // seconds; the tool writes up to 3,000 lines in one go and then waits for one second
const MOST_IN_BATCH = 10000;
const CLOCK_LAG = 0.1; // seconds; the times of files come from a clock that may be late
const CLOCK_LEAD = 2; // seconds; a file's time that is further ahead is no time of a write just made
const STILL = 5; // seconds without a record; the moves that were made before have been reported by then

const wallClock = () => Date.now() / 1000;

const matchAt = (expression, text, at) => {
  expression.lastIndex = at;
  return expression.exec(text);
};

// Beyond what a number holds exactly, a BigInt.
const whole = (digits) => {
  const value = Number(digits);
  return Number.isSafeInteger(value) ? value : BigInt(digits);
};

// Seconds before 1970 come as 2 to the 64 less their distance.
const seconds = (digits) => (digits.length < 16 ? Number(digits) : Number(BigInt.asIntN(64, BigInt(digits))));

// A name without escapes is copied: cut out of a longer string, it would keep all of that in memory.
const decode = (text) => (text.includes('%')
  ? text.replace(/%(..)/g, (_, digits) => String.fromCharCode(parseInt(digits, 16)))
  : Buffer.from(text, 'latin1').toString('latin1'));

export class Follower {
  events = [];
  isReady = false;
  wasReady = false;
  records = 0;
  rest = ''; // what has no end yet; the last words, when the tool has ended
  #base; // where the path begins; the program may change its working folder
  #started = Math.floor(wallClock()) - 1;
  #batch = [];
  #problems = [];
  #heard = 0;
  #isOver = false; // no more comes
  #isMoving = false; // something happened since the last settled
  #looks = new Map(); // entries by the second that has to be over
  #moving = []; // with that second, entries whose folders may have moved
  #nextTry = 0; // at these
  #folder = null; // of the sync record before: its encoded path and its entry
  #folderPath = '';

  constructor(root, encoding, quiet) {
    this.picture = new Picture(root, encoding);
    this.quiet = quiet;
    this.#base = root.startsWith('/') ? '' : `${process.cwd()}/`;
  }

  // When something is to be done although nothing comes, as seconds from now; null for never.
  wait(now) {
    const waits = [];
    if (this.#batch.length > 0) waits.push(this.#heard + PAUSE - now);
    if (this.#looks.size > 0) waits.push(Math.min(...this.#looks.keys()) + 1 + CLOCK_LAG - wallClock());
    if (this.#moving.length > 0) waits.push(this.#nextTry - now);
    if (this.#isMoving && this.#batch.length === 0 && this.#looks.size === 0) waits.push(this.#heard + this.quiet - now);
    return waits.length > 0 ? Math.max(Math.min(...waits), 0) : null;
  }

  // Time in which nothing was read is no pause.
  resume(now) { this.#heard = now; }

  passTime(now) {
    if (now - this.#heard >= PAUSE) this.#endBatch();
    const clock = wallClock();
    for (const [second, entries] of this.#looks) {
      const isAhead = second > clock + CLOCK_LEAD; // the clock was set back
      const isDue = second <= clock - 1 - CLOCK_LAG;
      if (isAhead || isDue) this.#looks.delete(second);
      if (isDue) for (const entry of entries) this.#lookAgain(entry, second, now);
    }
    if (this.#moving.length > 0 && now >= this.#nextTry) {
      for (const [entry, second] of this.#moving.splice(0)) this.#lookAgain(entry, second, now);
    }
    if (this.#isMoving && this.#batch.length === 0 && this.#looks.size === 0 && now - this.#heard >= this.quiet) {
      this.#isMoving = false;
      this.events.push({ type: 'settled' });
    }
  }

  feed(data, now) {
    this.#heard = now;
    this.#read(this.rest + data);
  }

  // No more comes.
  end() {
    this.#isOver = true;
    this.#read(this.rest);
    this.#endBatch();
  }

  #read(data) {
    let at = 0;
    for (;;) {
      const found = matchAt(RECORD, data, at);
      if (found !== null) {
        at = RECORD.lastIndex;
        this.records++;
        this.#record(found);
        continue;
      }
      let end;
      if (data.startsWith(ERROR, at)) {
        end = this.#problem(data, at);
      } else {
        end = data.indexOf('\n', at) + 1;
        if (end > 0) this.#mark(data.slice(at, end - 1));
      }
      if (end === 0) break;
      at = end;
    }
    this.rest = data.slice(at);
  }

  #mark(line) {
    if (line === '') {
      this.#rootWent();
    } else if (line.startsWith('<scan action="begin"')) {
      this.#endBatch();
      this.#problems = [];
    } else if (line.startsWith('<scan action="complete"')) {
      this.#endBatch();
      this.isReady = this.wasReady = this.#isMoving = true;
      this.#folder = null;
      this.events.push({ type: 'ready', problems: [...this.#problems] });
    }
  }

  // The path is not encoded and may hold line feeds and "</error>": it is the longest one of a known folder that fits.
  // Returns where the problem ends, 0 when that cannot be known yet: the tool may pause for a second between the path and
  // the reason.
  #problem(data, at) {
    const begin = at + ERROR.length;
    const text = data.slice(begin, begin + LONGEST_PATH + ERROR_END.length);
    const mayGoOn = this.picture.mayBeginFolder(text) || !(data.endsWith('\n') || this.#isOver);
    if (text.length < LONGEST_PATH && mayGoOn) return 0;
    const first = text.indexOf(ERROR_END);
    let length = -1;
    for (let found = first; found >= 0; found = text.indexOf(ERROR_END, found + 1)) {
      if (!this.picture.hasFolder(text.slice(0, found))) continue;
      const after = begin + found + ERROR_END.length;
      if (matchAt(REASON, data, after)) length = found;
      else if (!this.#isOver && !data.includes('\n', after)) return 0;
    }
    if (length < 0) {
      if (first < 0 || (!this.#isOver && !matchAt(REASON, data, begin + first + ERROR_END.length))) {
        // The second line has not come, or this is none of the pairs.
        return data.length - begin < LONGEST_PATH + 100 && !this.#isOver ? 0 : data.indexOf('\n', at) + 1;
      }
      length = first;
    }
    const end = begin + length + ERROR_END.length;
    const found = matchAt(REASON, data, end);
    const reason = Buffer.from(found?.[1] ?? '', 'latin1').toString();
    const problem = { type: 'problem', path: this.picture.shown(text.slice(0, length)), reason };
    this.#endBatch();
    this.#problems.push(problem);
    this.events.push(problem);
    return found ? end + found[0].length : end;
  }

  #record([, kind, action, inode, old, modified, created, size, path]) {
    if (modified === undefined) {
      if (action.startsWith('root')) this.#rootWent();
      return;
    }
    const isFolder = kind === 'folder';
    const attributes = {
      inode: whole(inode), modified: seconds(modified), created: seconds(created), size: Number(size),
    };
    if (action === 'sync') {
      const entry = this.#sync(path, isFolder, attributes);
      if (entry) this.#lookLater(entry);
      return;
    }
    this.#folder = null;
    const parts = this.picture.parts(decode(path));
    const oldParts = old === undefined ? undefined : this.picture.parts(decode(old));
    if (parts !== null && oldParts !== null) this.#change(action, isFolder, parts, oldParts, attributes);
  }

  // As Picture.put; the entries of one folder come one after the other.
  #sync(path, isFolder, attributes) {
    const slash = path.lastIndexOf('%2f');
    if (this.#folder === null || slash !== this.#folderPath.length || !path.startsWith(this.#folderPath)) {
      const parts = this.picture.parts(decode(path));
      if (parts === null) return null;
      this.#folder = this.picture.folder(parts.slice(0, -1));
      this.#folderPath = path.slice(0, slash);
    }
    return this.picture.putIn(this.#folder, decode(path.slice(slash + 3)), isFolder, attributes);
  }

  #change(action, isFolder, parts, old, attributes) {
    const { picture } = this;
    let entry;
    if (action === 'create' || action === 'change') entry = picture.put(parts, isFolder, attributes);
    else if (action === 'delete') picture.take(parts);
    else if (action === 'rename' && old) entry = picture.move(old, parts, isFolder, attributes);
    else return;
    const oldPath = old ? picture.pathFrom(old) : null;
    this.#batch.push({
      action, kind: isFolder ? 'folder' : 'file', path: picture.pathFrom(parts), oldPath, ...attributes,
    });
    this.#isMoving = true;
    if (entry) this.#lookLater(entry);
    if (this.#batch.length >= MOST_IN_BATCH) this.#endBatch();
  }

  #endBatch() {
    if (this.#batch.length === 0) return;
    this.events.push({ type: 'changes', changes: this.#batch });
    this.#batch = [];
  }

  #rootWent() {
    this.#endBatch();
    this.picture.clear();
    this.#looks.clear();
    this.#moving = [];
    this.#folder = null;
    if (!this.isReady) return;
    this.isReady = false;
    this.#isMoving = true;
    this.events.push({ type: 'gone' });
  }

  // The second write within a second has no record. Where the status was changed after that second, the tool has looked
  // at the file after it too.
  #lookLater(entry) {
    const second = entry.modified;
    if (entry.isFolder || entry.created > second || second < this.#started || second > wallClock() + CLOCK_LEAD) return;
    const entries = this.#looks.get(second);
    if (entries) entries.push(entry);
    else this.#looks.set(second, [entry]);
  }

  #lookAgain(entry, second, now) {
    const path = this.picture.pathOf(entry);
    if (path === null || entry.modified !== second) return;
    const base = Buffer.from(this.#base);
    const statusOf = (name) => lstatSync(Buffer.concat([base, Buffer.from(name, 'latin1')]), { bigint: true });
    let status;
    let isThere = false;
    try {
      const above = whole(String(statusOf(path.slice(0, path.lastIndexOf('/')) || '/').ino));
      status = statusOf(path);
      // A folder that was replaced at once has no record of its new number: then that of the file has to do.
      isThere = !entry.parent?.isReported || above === entry.parent.inode || whole(String(status.ino)) === entry.inode;
    } catch {
      status = undefined;
    }
    if (!isThere && now - this.#heard < STILL) {
      this.#moving.push([entry, second]);
      this.#nextTry = now + 1;
      return;
    }
    if (!status) return;
    const seen = {
      inode: whole(String(status.ino)),
      modified: Number(status.mtimeNs / 1_000_000_000n),
      created: Number(status.ctimeNs / 1_000_000_000n),
      size: Number(status.size),
    };
    if (status.isDirectory() || ['inode', 'modified', 'size'].every((name) => seen[name] === entry[name])) return;
    this.#heard = now;
    this.#change('change', false, this.picture.parts(path), undefined, seen);
  }
}
