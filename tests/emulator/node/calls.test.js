// How many of the calls of Box's own clients the local Box answers as these clients expect, and which it does not.
'use strict';
const assert = require('node:assert/strict');
const http = require('node:http');
const { after, before, test } = require('node:test');
const { startBox } = require('./local_box.js');

const TOKEN = 'calls-token';
const LEAST = 65;
let localBox;

before(async () => {
  localBox = await startBox('--account', `nora:${TOKEN}`, '--account', 'olaf:olaf-token');
});

after(() => localBox.stop());

function ten(base) {
  const { BoxClient, BoxDeveloperTokenAuth } = require('box-node-sdk');
  const auth = new BoxDeveloperTokenAuth({ token: TOKEN });
  return new BoxClient({ auth }).withCustomBaseUrls({ baseUrl: base, uploadUrl: `${base}/api`, oauth2Url: `${base}/api/oauth2` });
}

function three(base) {
  const BoxSDK = require('box-node-sdk-3').default ?? require('box-node-sdk-3');
  const sdk = new BoxSDK({
    clientID: 'id', clientSecret: 'secret', apiRootURL: base, uploadAPIRootURL: `${base}/api`, authorizeRootURL: `${base}/api`,
    request: { agentClass: http.Agent },
  });
  return sdk.getBasicClient(TOKEN);
}

// What this Box does not keep; a call that is answered after all is taken off its list.
const LINES = [
  ['10.x', ten, require('./calls_10.js'), ['users.create', 'files.thumbnail', 'search.metadata']],
  ['3.x', three, require('./calls_3.js'), ['users.create', 'files.thumbnail', 'shared links.embed', 'collections.list']],
];

for (const [line, make, { CALLS, subjects }, notKept] of LINES) {
  test(`calls of ${line}`, async (context) => {
    const box = make(localBox.base);
    const at = subjects(box);
    const missing = {};
    for (const [name, call] of Object.entries(CALLS)) {
      try {
        await call(box, at);
      } catch (error) {
        missing[name] = String(error.message).split('\n')[0].slice(0, 160);
      }
    }
    const all = Object.keys(CALLS).length;
    const answered = all - Object.keys(missing).length;
    context.diagnostic(`${answered} of ${all} calls of ${line}; not: ${JSON.stringify(missing)}`);
    assert.deepEqual(Object.keys(missing), notKept);
    assert.ok(answered >= LEAST);
  });
}
