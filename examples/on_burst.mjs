#!/usr/bin/env node
// Runs a command once at the start and once after each burst of changes: a build, a test, a transfer.
//
// usage: on_burst.mjs [--quiet SECONDS] FOLDER COMMAND [ARGUMENT...]
//
// Needs the client: keep a copy where `npm install .../clients/node` was run. The environment variable DIRWARDEN names the tool where it is not on the search path.
// What changes while the command runs makes it run once more; so the command must not write below FOLDER.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { watch } from 'dirwarden';

const given = process.argv.slice(2);
const quiet = given[0] === '--quiet' ? Number(given.splice(0, 2)[1]) : 2;
const [folder, command, ...args] = given;
if (command === undefined || !(quiet > 0)) {
  console.error('usage: on_burst.mjs [--quiet SECONDS] FOLDER COMMAND [ARGUMENT...]');
  process.exit(2);
}

try {
  for await (const _ of watch(folder, { tool: process.env.DIRWARDEN, quiet }).bursts()) {
    const [status, signal] = await once(spawn(command, args, { stdio: 'inherit' }), 'close');
    if (status !== 0) console.error(`${command} ended ${signal ? `by ${signal}` : `with status ${status}`}`);
  }
} catch (error) {
  console.error(error.message);
  process.exit(1);
}
