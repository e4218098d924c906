// The calls of Box's client 10.x that people make first: a name and what is done. `at` makes what they are made on.
'use strict';
const { Readable } = require('node:stream');

const LARGE = Buffer.alloc(20000000, 7);
const stream = (text) => Readable.from([Buffer.from(text)]);
const enterprise = ['enterprise', 'plan'];
const global = ['global', 'properties'];

async function read(body) {
  const pieces = [];
  for await (const piece of body) pieces.push(Buffer.from(piece));
  return Buffer.concat(pieces).toString();
}

function subjects(box) {
  let number = 0;
  const name = () => `ten ${++number}`;
  const at = {
    name,
    file: async (text = 'text') => (await box.uploads.uploadFile({ attributes: { name: name(), parent: { id: '0' } }, file: stream(text) })).entries[0].id,
    folder: async () => (await box.folders.createFolder({ name: name(), parent: { id: '0' } })).id,
    version: async (id, text) => box.uploads.uploadFileVersion(id, { attributes: { name: name() }, file: stream(text) }),
    link: async () => (await box.webLinks.createWebLink({ url: 'https://example.com', name: name(), parent: { id: '0' } })).id,
    trashedFile: async () => { const id = await at.file(); await box.files.deleteFileById(id); return id; },
    trashedFolder: async () => { const id = await at.folder(); await box.folders.deleteFolderById(id); return id; },
    earlier: async (id) => { await at.version(id, 'new'); return (await box.fileVersions.getFileVersions(id)).entries[0].id; },
    comment: async () => (await box.comments.createComment({ message: 'm', item: { id: await at.file(), type: 'file' } })).id,
    collaboration: async () => (await box.userCollaborations.createCollaboration({
      item: { type: 'folder', id: await at.folder() }, accessibleBy: { type: 'user', login: 'olaf@example.com' }, role: 'editor' })).id,
    session: async () => box.chunkedUploads.createFileUploadSession({ folderId: '0', fileName: name(), fileSize: LARGE.length }),
    shared: async () => { const id = await at.file(); return (await box.sharedLinksFiles.addShareLinkToFile(id, { sharedLink: {} }, { fields: 'shared_link' })).sharedLink.url; },
  };
  return at;
}

const CALLS = {
  'users.me': (box) => box.users.getUserMe(),
  'users.get': async (box) => box.users.getUserById((await box.users.getUserMe()).id),
  'users.list': (box) => box.users.getUsers(),
  'users.create': (box) => box.users.createUser({ name: 'x', login: 'x@example.com' }),
  'folders.get': (box) => box.folders.getFolderById('0'),
  'folders.items': (box) => box.folders.getFolderItems('0'),
  'folders.items by marker': (box) => box.folders.getFolderItems('0', { queryParams: { usemarker: true, limit: 1 } }),
  'folders.create': (box, at) => at.folder(),
  'folders.update': async (box, at) => box.folders.updateFolderById(await at.folder(), { requestBody: { name: at.name() } }),
  'folders.move': async (box, at) => box.folders.updateFolderById(await at.folder(), { requestBody: { parent: { id: await at.folder() } } }),
  'folders.copy': async (box, at) => box.folders.copyFolder(await at.folder(), { parent: { id: '0' }, name: at.name() }),
  'folders.delete': async (box, at) => box.folders.deleteFolderById(await at.folder(), { queryParams: { recursive: true } }),
  'files.get': async (box, at) => box.files.getFileById(await at.file()),
  'files.permissions': async (box, at) => (await box.files.getFileById(await at.file(), { queryParams: { fields: ['permissions'] } })).permissions.canDownload || Promise.reject(Error('none')),
  'files.update': async (box, at) => box.files.updateFileById(await at.file(), { requestBody: { name: at.name(), description: 'd' } }),
  'files.tags': async (box, at) => box.files.updateFileById(await at.file(), { requestBody: { tags: ['a'] } }),
  'files.copy': async (box, at) => box.files.copyFile(await at.file(), { parent: { id: '0' }, name: at.name() }),
  'files.delete': async (box, at) => box.files.deleteFileById(await at.file()),
  'files.lock': async (box, at) => box.files.updateFileById(await at.file(), { requestBody: { lock: { type: 'lock' } }, queryParams: { fields: ['lock'] } }),
  'files.unlock': async (box, at) => box.files.updateFileById(await at.file(), { requestBody: { lock: null }, queryParams: { fields: ['lock'] } }),
  'files.thumbnail': async (box, at) => box.files.getFileThumbnailById(await at.file(), 'png'),
  'uploads.file': (box, at) => at.file(),
  'uploads.version': async (box, at) => at.version(await at.file(), 'new'),
  'uploads.preflight': (box, at) => box.uploads.preflightFileUploadCheck({ name: at.name(), size: 1, parent: { id: '0' } }),
  'uploads.large': (box, at) => box.chunkedUploads.uploadBigFile(Readable.from([LARGE]), at.name(), LARGE.length, '0'),
  'uploads.session': (box, at) => at.session(),
  'uploads.session of a version': async (box, at) => box.chunkedUploads.createFileUploadSessionForExistingFile(await at.file(), { fileSize: LARGE.length }),
  'uploads.session get': async (box, at) => box.chunkedUploads.getFileUploadSessionById((await at.session()).id),
  'uploads.session parts': async (box, at) => box.chunkedUploads.getFileUploadSessionParts((await at.session()).id),
  'uploads.session delete': async (box, at) => box.chunkedUploads.deleteFileUploadSessionById((await at.session()).id),
  'downloads.file': async (box, at) => read(await box.downloads.downloadFile(await at.file())),
  'downloads.url': async (box, at) => box.downloads.getDownloadFileUrl(await at.file()),
  'versions.list': async (box, at) => box.fileVersions.getFileVersions(await at.file()),
  'versions.get': async (box, at) => { const id = await at.file(); return box.fileVersions.getFileVersionById(id, await at.earlier(id)); },
  'versions.promote': async (box, at) => { const id = await at.file(); return box.fileVersions.promoteFileVersion(id, { requestBody: { id: await at.earlier(id), type: 'file_version' } }); },
  'versions.delete': async (box, at) => { const id = await at.file(); return box.fileVersions.deleteFileVersionById(id, await at.earlier(id)); },
  'shared links.add': (box, at) => at.shared(),
  'shared links.get': async (box, at) => box.sharedLinksFiles.getSharedLinkForFile(await at.file(), { fields: 'shared_link' }),
  'shared links.update': async (box, at) => box.sharedLinksFiles.updateSharedLinkOnFile(await at.file(), { sharedLink: { access: 'company' } }, { fields: 'shared_link' }),
  'shared links.remove': async (box, at) => box.sharedLinksFiles.removeSharedLinkFromFile(await at.file(), { sharedLink: null }, { fields: 'shared_link' }),
  'shared links.find': async (box, at) => box.sharedLinksFiles.findFileForSharedLink({}, { boxapi: `shared_link=${await at.shared()}` }),
  'shared links.add to a folder': async (box, at) => box.sharedLinksFolders.addShareLinkToFolder(await at.folder(), { sharedLink: {} }, { fields: 'shared_link' }),
  'search.name': (box) => box.search.searchForContent({ query: 'ten' }),
  'search.metadata': (box) => box.search.searchByMetadataQuery({ from: 'enterprise_1.plan', ancestorFolderId: '0' }),
  'events.get': (box) => box.events.getEvents({ queryParams: { streamPosition: '0' } }),
  'events.realtime': (box) => box.events.getEventsWithLongPolling(),
  'metadata.create': async (box, at) => box.fileMetadata.createFileMetadataById(await at.file(), ...global, { a: 'b' }),
  'metadata.get': async (box, at) => { const id = await at.file(); await box.fileMetadata.createFileMetadataById(id, ...global, { a: 'b' }); return box.fileMetadata.getFileMetadataById(id, ...global); },
  'metadata.list': async (box, at) => box.fileMetadata.getFileMetadata(await at.file()),
  'metadata.update': async (box, at) => { const id = await at.file(); await box.fileMetadata.createFileMetadataById(id, ...global, { a: 'b' }); return box.fileMetadata.updateFileMetadataById(id, ...global, [{ op: 'replace', path: '/a', value: 'c' }]); },
  'metadata.delete': async (box, at) => { const id = await at.file(); await box.fileMetadata.createFileMetadataById(id, ...global, { a: 'b' }); return box.fileMetadata.deleteFileMetadataById(id, ...global); },
  'metadata.of a folder': async (box, at) => box.folderMetadata.createFolderMetadataById(await at.folder(), ...global, { a: 'b' }),
  'templates.create': (box) => box.metadataTemplates.createMetadataTemplate({ scope: 'enterprise', displayName: 'Plan', templateKey: 'plan', fields: [{ type: 'string', key: 'a', displayName: 'A' }] }),
  'templates.get': (box) => box.metadataTemplates.getMetadataTemplate(...enterprise),
  'templates.of the enterprise': (box) => box.metadataTemplates.getEnterpriseMetadataTemplates(),
  'templates.global': (box) => box.metadataTemplates.getGlobalMetadataTemplates(),
  'templates.instance': async (box, at) => box.fileMetadata.createFileMetadataById(await at.file(), ...enterprise, { a: 'b' }),
  'templates.delete': (box) => box.metadataTemplates.deleteMetadataTemplate(...enterprise),
  'comments.create': (box, at) => at.comment(),
  'comments.get': async (box, at) => box.comments.getCommentById(await at.comment()),
  'comments.update': async (box, at) => box.comments.updateCommentById(await at.comment(), { requestBody: { message: 'n' } }),
  'comments.delete': async (box, at) => box.comments.deleteCommentById(await at.comment()),
  'comments.list': async (box, at) => box.comments.getFileComments(await at.file()),
  'collaborations.create': (box, at) => at.collaboration(),
  'collaborations.get': async (box, at) => box.userCollaborations.getCollaborationById(await at.collaboration()),
  'collaborations.update': async (box, at) => box.userCollaborations.updateCollaborationById(await at.collaboration(), { requestBody: { role: 'viewer' } }),
  'collaborations.delete': async (box, at) => box.userCollaborations.deleteCollaborationById(await at.collaboration()),
  'collaborations.of a folder': async (box, at) => box.listCollaborations.getFolderCollaborations(await at.folder()),
  'trash.list': (box) => box.trashedItems.getTrashedItems(),
  'trash.restore a file': async (box, at) => box.trashedFiles.restoreFileFromTrash(await at.trashedFile()),
  'trash.restore a folder': async (box, at) => box.trashedFolders.restoreFolderFromTrash(await at.trashedFolder()),
  'trash.delete a file': async (box, at) => box.trashedFiles.deleteTrashedFileById(await at.trashedFile()),
  'web links.update': async (box, at) => box.webLinks.updateWebLinkById(await at.link(), { requestBody: { name: at.name() } }),
};

module.exports = { CALLS, subjects };
