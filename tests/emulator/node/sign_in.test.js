// Box's own client libraries sign in at the local Box, each in the three ways that they know.
'use strict';
const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const http = require('node:http');
const { after, before, test } = require('node:test');
const { startBox } = require('./local_box.js');

const REDIRECT = 'http://127.0.0.1:4000/callback';
const PASSPHRASE = 'open';
const APP = { client_id: 'app', client_secret: 'secret', redirect_uris: ['http://127.0.0.1/callback'], enterprise_id: '77' };
let localBox;
let keys;
let userId;

before(async () => {
  keys = crypto.generateKeyPairSync('rsa', {
    modulusLength: 2048,
    publicKeyEncoding: { type: 'spki', format: 'pem' },
    privateKeyEncoding: { type: 'pkcs8', format: 'pem', cipher: 'aes-256-cbc', passphrase: PASSPHRASE },
  });
  localBox = await startBox('--account', 'nora:client-token', '--password', 'nora:rose');
  await localBox.control('apps', { ...APP, public_keys: [{ kid: 'key', pem: keys.publicKey }] });
  userId = (await me('client-token')).id;
});

after(() => localBox.stop());

async function me(token) {
  const answer = await fetch(`${localBox.base}/2.0/users/me`, { headers: { Authorization: `Bearer ${token}` } });
  return answer.status === 200 ? answer.json() : { name: answer.status };
}

/** What a person does in the browser. Returns the code that the app gets. */
async function consent(address) {
  const page = await (await fetch(address)).text();
  assert.match(page, /id="grant"/);
  const form = new URLSearchParams({ login: 'nora', password: 'rose', consent: 'grant' });
  const answer = await fetch(address, { method: 'POST', body: form, redirect: 'manual' });
  const back = new URL(answer.headers.get('location'));
  assert.equal(back.origin + back.pathname, REDIRECT);
  assert.equal(back.searchParams.get('state'), 'a b&c');
  return back.searchParams.get('code');
}

/** One face for both libraries; each function gives an access token, `renew` the one after that of `signIn`. */
function tenClient() {
  const { BoxCcgAuth, BoxClient, BoxJwtAuth, BoxOAuth, CcgConfig, JwtConfig, OAuthConfig } = require('box-node-sdk');
  const urls = { baseUrl: localBox.base, uploadUrl: `${localBox.base}/api`, oauth2Url: `${localBox.base}/api/oauth2` };
  const client = { clientId: APP.client_id, clientSecret: APP.client_secret };
  const person = new BoxOAuth({ config: new OAuthConfig(client) });
  const session = (auth) => new BoxClient({ auth }).withCustomBaseUrls(urls).networkSession;
  const text = (token) => token.accessToken;
  const asUser = (auth) => auth.withUserSubject(userId).retrieveToken(session(auth)).then(text);
  return {
    signIn: async () => {
      const address = new URL(person.getAuthorizeUrl({ redirectUri: REDIRECT, state: 'a b&c' }));
      const code = await consent(`${urls.oauth2Url}/authorize${address.search}`);
      return text(await person.getTokensAuthorizationCodeGrant(code, session(person)));
    },
    renew: () => person.refreshToken(session(person)).then(text),
    revoke: () => person.revokeToken(session(person)),
    credentials: () => asUser(new BoxCcgAuth({ config: new CcgConfig({ ...client, enterpriseId: '77' }) })),
    jwt: (algorithm) => asUser(new BoxJwtAuth({
      config: new JwtConfig({
        ...client, enterpriseId: '77', jwtKeyId: 'key', privateKey: keys.privateKey, privateKeyPassphrase: PASSPHRASE, algorithm: algorithm.toLowerCase(),
      }),
    })),
  };
}

function threeClient() {
  const BoxSDK = require('box-node-sdk-3').default ?? require('box-node-sdk-3');
  const settings = {
    clientID: APP.client_id, clientSecret: APP.client_secret, apiRootURL: localBox.base, uploadAPIRootURL: `${localBox.base}/api`,
    authorizeRootURL: `${localBox.base}/api`, request: { agentClass: http.Agent }, retryIntervalMS: 1,
  };
  const sdk = new BoxSDK(settings);
  const appAuth = (algorithm) => ({ keyID: 'key', privateKey: keys.privateKey, passphrase: PASSPHRASE, algorithm });
  let pair;
  const text = (made) => made.accessToken;
  return {
    signIn: async () => {
      const code = await consent(sdk.getAuthorizeURL({ response_type: 'code', redirect_uri: REDIRECT, state: 'a b&c' }));
      pair = await sdk.getTokensAuthorizationCodeGrant(code);
      return text(pair);
    },
    renew: async () => {
      pair = await sdk.getTokensRefreshGrant(pair.refreshToken);
      return text(pair);
    },
    revoke: () => sdk.revokeTokens(pair.refreshToken),
    credentials: async () => {
      const asUser = new BoxSDK({ ...settings, boxSubjectType: 'user', boxSubjectId: userId });
      return text(await asUser.tokenManager.getTokensClientCredentialsGrant());
    },
    jwt: (algorithm) => new BoxSDK({ ...settings, appAuth: appAuth(algorithm) }).getAppUserTokens(userId).then(text),
  };
}

for (const [line, make] of [['10.x', tenClient], ['3.x', threeClient]]) {
  test(`a person with ${line}`, async () => {
    const box = make();
    const first = await box.signIn();
    assert.equal((await me(first)).name, 'nora');
    const second = await box.renew();
    for (const [token, name] of [[first, 'nora'], [second, 'nora'], [first, 401]]) assert.equal((await me(token)).name, name);
    await box.revoke();
    assert.equal((await me(second)).name, 401);
  });

  test(`an organisation with ${line}`, async () => {
    const box = make();
    const tokens = [await box.credentials()];
    for (const algorithm of ['RS256', 'RS384', 'RS512']) tokens.push(await box.jwt(algorithm));
    for (const token of tokens) assert.equal((await me(token)).name, 'nora');
    await localBox.control('settings', { clock_offset_s: 600 });
    try {
      // 3.x takes the clock from the refusal's Date and signs once more; 10.x gives up.
      if (line === '3.x') assert.equal((await me(await box.jwt('RS256'))).name, 'nora');
      else await assert.rejects(box.jwt('RS256'), /'exp'/);
    } finally {
      await localBox.control('settings', { clock_offset_s: 0 });
    }
  });
}
