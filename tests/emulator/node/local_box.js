// Starts the local Box of a test file. The path of the built emulator comes in TARVEX_EMULATOR.
'use strict';
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawn } = require('node:child_process');
const { once } = require('node:events');

/** `base` is its address; `control` posts to a control address; `stop` ends it and removes its directory. */
async function startBox(...more) {
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'tarvex-box-'));
  const program = spawn(process.env.TARVEX_EMULATOR, ['--quiet', '--listen', '127.0.0.1:0', '--data', directory, ...more]);
  let line = '';
  for await (const piece of program.stdout) {
    line += piece;
    if (line.includes('\n')) break;
  }
  const base = `http://${line.trim().replace('listening on ', '')}`;
  return {
    base,
    async control(name, values) {
      const answer = await fetch(`${base}/_emulator/${name}`, { method: 'POST', body: JSON.stringify(values) });
      assert.equal(answer.status, 204, await answer.text());
    },
    async stop() {
      program.kill('SIGTERM');
      if (program.exitCode === null) await once(program, 'exit');
      fs.rmSync(directory, { recursive: true });
    },
  };
}

module.exports = { startBox };
