// Needs @types/node.
import { EventEmitter } from 'node:events';

export type Path = string | Buffer;

/** Times in whole seconds since 1970, the size in bytes. `created` is the last change of status. */
export interface Attributes {
  /** A bigint where a number would not be exact. */
  inode: number | bigint;
  modified: number;
  created: number;
  size: number;
}

/** The delete and the rename of a folder hold for everything below it. */
export interface Change<P extends Path = string> extends Attributes {
  action: 'create' | 'delete' | 'rename' | 'change';
  kind: 'file' | 'folder';
  path: P;
  /** Set for a rename only. */
  oldPath: P | null;
}

export interface Entry extends Readonly<Attributes> {
  readonly kind: 'file' | 'folder';
  readonly isFolder: boolean;
}

/** The entries by path, the watched folder itself left out. */
export interface Picture<P extends Path = string> extends Iterable<[P, Entry]> {
  get(path: Path): Entry | undefined;
  has(path: Path): boolean;
  readonly size: number;
}

/** A folder that cannot be read. What is in it follows when it can be read. */
export interface Problem<P extends Path = string> { type: 'problem'; path: P; reason: string }
/** The listing is complete. What is below the folders of `problems` is not known. */
export interface Ready<P extends Path = string> { type: 'ready'; problems: Problem<P>[] }
/** In the order in which they have to be applied. */
export interface Changes<P extends Path = string> { type: 'changes'; changes: Change<P>[] }
/** Nothing has happened for the quiet time. */
export interface Settled { type: 'settled' }
/** The watched folder is gone or was replaced. `ready` follows when it is back. */
export interface Gone { type: 'gone' }

export type Event<P extends Path = string> = Ready<P> | Changes<P> | Settled | Gone | Problem<P>;

/** The changes from one quiet time to the next. With `fresh`, compare with the whole picture; `problems` are those of the
 * listing then, and empty otherwise. */
export interface Burst<P extends Path = string> {
  changes: Change<P>[];
  fresh: boolean;
  problems: Problem<P>[];
}

export interface Options {
  /** The program's name or path, or a command with arguments that ends in one; "Dirwarden" when left out. */
  tool?: string | string[];
  /** How many seconds without a change make `settled`; 2 when left out. */
  quiet?: number;
  /** The tool's debug log. */
  log?: string;
  /** Of paths; that of the folder when left out. Only "buffer" keeps names that are not valid UTF-8. */
  encoding?: 'utf8' | 'buffer';
}

export class DirwardenError extends Error {}
/** There is no such program, or it cannot be run. */
export class ToolMissing extends DirwardenError {}
/** The tool ended before its first listing was complete, or it reports nothing from the folder. */
export class CannotWatch extends DirwardenError {}
/** The tool ended, and changes are missed from now on. */
export class ToolEnded extends DirwardenError {}

export interface WatcherEvents<P extends Path> {
  ready: [Ready<P>];
  change: [Change<P>];
  changes: [Changes<P>];
  settled: [Settled];
  gone: [Gone];
  problem: [Problem<P>];
  end: [];
  error: [DirwardenError];
}

export class Watcher<P extends Path = string> extends EventEmitter implements AsyncIterable<Event<P>> {
  constructor(folder: Path, options?: Options);
  on<N extends keyof WatcherEvents<P>>(name: N, listener: (...values: WatcherEvents<P>[N]) => void): this;
  once<N extends keyof WatcherEvents<P>>(name: N, listener: (...values: WatcherEvents<P>[N]) => void): this;
  /** As of the last event; empty until the first iterator or listener begins. */
  readonly picture: Picture<P>;
  /** Whether the picture is good for use. */
  readonly isReady: boolean;
  /** How many records of files and folders have been read. */
  readonly records: number;
  readonly pid: number | undefined;
  /** Ends the tool; iterators end. */
  close(): void;
  /** Ends the tool and starts it anew, with an empty picture that the listing fills. */
  restart(): void;
  [Symbol.asyncIterator](): AsyncGenerator<Event<P>, void, void>;
  /** The changes one by one. */
  changes(): AsyncGenerator<Change<P>, void, void>;
  /** What happened between quiet times, once it is over. The first is the listing. */
  bursts(): AsyncGenerator<Burst<P>, void, void>;
}

export function watch(folder: Path, options: Options & { encoding: 'buffer' }): Watcher<Buffer>;
export function watch(folder: string, options?: Options): Watcher<string>;
export function watch(folder: Buffer, options?: Options & { encoding?: undefined }): Watcher<Buffer>;
export function watch(folder: Path, options: Options & { encoding: 'utf8' }): Watcher<string>;
