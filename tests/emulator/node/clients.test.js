// Box's own client libraries against the local Box: what they expect of Box, they must find here.
'use strict';
const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const http = require('node:http');
const { Readable } = require('node:stream');
const { after, before, test } = require('node:test');
const { startBox } = require('./local_box.js');

const TOKEN = 'client-token';
const LARGE = crypto.createHash('sha512').update('seed').digest().toString('hex').repeat(170000); // 21,760,000 bytes
let localBox;
let base;

const sha1 = (bytes) => crypto.createHash('sha1').update(bytes).digest('hex');

async function read(stream) {
  const pieces = [];
  for await (const piece of stream) pieces.push(Buffer.from(piece));
  return Buffer.concat(pieces).toString();
}

before(async () => {
  localBox = await startBox('--account', `nora:${TOKEN}`, '--set', 'part_size=4194304');
  base = localBox.base;
});

after(() => localBox.stop());

/** One face for both libraries, so that both are held to the same. */
function tenClient() {
  const { BoxClient, BoxDeveloperTokenAuth } = require('box-node-sdk');
  const auth = new BoxDeveloperTokenAuth({ token: TOKEN });
  const box = new BoxClient({ auth }).withCustomBaseUrls({ baseUrl: base, uploadUrl: `${base}/api`, oauth2Url: `${base}/api/oauth2` });
  const place = ['global', 'properties'];
  return {
    me: () => box.users.getUserMe(),
    makeFolder: (parent, name) => box.folders.createFolder({ name, parent: { id: parent } }),
    renameFolder: (id, name) => box.folders.updateFolderById(id, { requestBody: { name } }),
    deleteFolder: (id) => box.folders.deleteFolderById(id, { queryParams: { recursive: true } }),
    list: (id, marker) => box.folders.getFolderItems(id, { queryParams: { usemarker: true, limit: 2, marker } })
      .then((page) => ({ entries: page.entries, next: page.nextMarker })),
    upload: (parent, name, text) => box.uploads
      .uploadFile({ attributes: { name, parent: { id: parent } }, file: Readable.from([Buffer.from(text)]) })
      .then((made) => made.entries[0]),
    uploadLarge: (parent, name, text) => box.chunkedUploads
      .uploadBigFile(Readable.from([Buffer.from(text)]), name, text.length, parent),
    download: async (id, range) => read(await box.downloads.downloadFile(id, range ? { headers: { range: `bytes=${range}` } } : {})),
    addMetadata: (id, values) => box.fileMetadata.createFileMetadataById(id, ...place, values).then((made) => made.extraData ?? made),
    changeMetadata: (id, patch) => box.fileMetadata.updateFileMetadataById(id, ...place, patch),
    metadata: (id) => box.fileMetadata.getFileMetadataById(id, ...place).then((got) => got.extraData ?? got),
    dropMetadata: (id) => box.fileMetadata.deleteFileMetadataById(id, ...place),
    status: (error) => error.responseInfo.statusCode,
    code: (error) => error.responseInfo.body.code,
  };
}

function threeClient() {
  const BoxSDK = require('box-node-sdk-3').default ?? require('box-node-sdk-3');
  const sdk = new BoxSDK({
    clientID: 'id', clientSecret: 'secret', apiRootURL: base, uploadAPIRootURL: `${base}/api`, authorizeRootURL: `${base}/api`,
    request: { agentClass: http.Agent },
  });
  const box = sdk.getBasicClient(TOKEN);
  const place = ['global', 'properties'];
  return {
    me: () => box.users.get('me'),
    makeFolder: (parent, name) => box.folders.create(parent, name),
    renameFolder: (id, name) => box.folders.update(id, { name }),
    deleteFolder: (id) => box.folders.delete(id, { recursive: true }),
    list: (id, marker) => box.folders.getItems(id, { usemarker: true, limit: 2, ...(marker ? { marker } : {}) })
      .then((page) => ({ entries: page.entries, next: page.next_marker })),
    upload: (parent, name, text) => box.files.uploadFile(parent, name, Buffer.from(text)).then((made) => made.entries[0]),
    uploadLarge: async (parent, name, text) => {
      const uploader = await box.files.getChunkedUploader(parent, text.length, name, Buffer.from(text));
      return (await uploader.start()).entries[0];
    },
    download: async (id, range) => read(await box.files.getReadStream(id, range ? { byteRange: range.split('-').map(Number) } : null)),
    addMetadata: (id, values) => box.files.addMetadata(id, ...place, values),
    changeMetadata: (id, patch) => box.files.updateMetadata(id, ...place, patch),
    metadata: (id) => box.files.getMetadata(id, ...place),
    dropMetadata: (id) => box.files.deleteMetadata(id, ...place),
    status: (error) => error.statusCode,
    code: (error) => error.response.body.code,
  };
}

for (const [line, make] of [['10.x', tenClient], ['3.x', threeClient]]) {
  test(`folders of ${line}`, async () => {
    const box = make();
    const me = await box.me();
    assert.equal(me.name, 'nora');
    const top = await box.makeFolder('0', `folders ${line}`);
    for (const name of ['a', 'b', 'c']) await box.makeFolder(top.id, name);
    const first = await box.list(top.id);
    assert.deepEqual(first.entries.map((entry) => entry.name), ['a', 'b']);
    const second = await box.list(top.id, first.next);
    assert.deepEqual(second.entries.map((entry) => entry.name), ['c']);
    assert.ok(!second.next);
    await assert.rejects(box.makeFolder(top.id, 'A'), (error) => box.status(error) === 409 && box.code(error) === 'item_name_in_use');
    const renamed = await box.renameFolder(first.entries[0].id, 'z');
    assert.equal(renamed.name, 'z');
    await box.deleteFolder(top.id);
    await assert.rejects(box.list(top.id), (error) => box.status(error) === 404 && box.code(error) === 'trashed');
  });

  test(`files of ${line}`, async () => {
    const box = make();
    const made = await box.upload('0', `small ${line}.txt`, '0123456789');
    assert.equal(made.sha1, sha1('0123456789'));
    assert.equal(await box.download(made.id), '0123456789');
    assert.equal(await box.download(made.id, '3-5'), '345');
    await assert.rejects(box.upload('0', `small ${line}.txt`, 'x'), (error) => box.status(error) === 409);
  });

  test(`chunked upload of ${line}`, async () => {
    const box = make();
    // 10.x does not understand a commit that has to wait; 3.x does.
    await localBox.control('settings', { commit_pending_count: line === '3.x' ? 2 : 0 });
    const made = await box.uploadLarge('0', `large ${line}.bin`, LARGE);
    assert.equal(made.sha1, sha1(LARGE));
    assert.equal(sha1(await box.download(made.id)), sha1(LARGE));
  });

  test(`metadata of ${line}`, async () => {
    const box = make();
    const file = await box.upload('0', `described ${line}.txt`, 'x');
    await box.addMetadata(file.id, { colour: 'red' });
    await assert.rejects(box.addMetadata(file.id, { colour: 'red' }), (error) => box.status(error) === 409);
    await box.changeMetadata(file.id, [{ op: 'add', path: '/colour', value: 'blue' }]);
    assert.equal((await box.metadata(file.id)).colour, 'blue');
    await box.dropMetadata(file.id);
    await assert.rejects(box.metadata(file.id), (error) => box.status(error) === 404);
  });
}
