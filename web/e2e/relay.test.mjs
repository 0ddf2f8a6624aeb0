// sfcloud serve's edges: files and the description over HTTP, the relay's
// bounds (clients, frame size) with their log lines, garbage, and the page's
// own MQTT login passed through to a broker that requires one.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { execFileSync } from 'node:child_process';
import { mkdirSync, readFileSync, rmSync } from 'node:fs';
import { freePort, until, startBroker, startServer, stopAll, sfcloud } from './processes.mjs';
import { rawConnection, upgradeRequest, frame, mqttConnect } from './raw_ws.mjs';

const web = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const top = resolve(web, '..');
const bin = resolve(process.env.SF_BIN_DIR ?? join(top, 'build/asan/apps'));
const dir = join(resolve(process.env.SF_WEB_E2E_DIR ?? join(top, 'build/web-e2e')), 'relay');
const description = join(web, 'e2e/gateway.json');
let url, http;

before(async () => {
  rmSync(dir, { recursive: true, force: true });
  mkdirSync(dir, { recursive: true });
  const port = await freePort();
  // a broker that admits only user "web" with its password: the relay must add no right of its own
  execFileSync('mosquitto_passwd', ['-b', '-c', join(dir, 'passwd'), 'web', 'letmein']);
  await startBroker(dir, port, [`password_file ${join(dir, 'passwd')}`], false);
  ({ url } = await startServer(dir, bin, join(web, 'dist'), description, port, ['--max-clients', '2', '--max-frame', '1024']));
  http = Number(new URL(url).port);
});

after(stopAll);

const serveLog = () => readFileSync(join(dir, 'serve.log'), 'utf8');

async function handshake(path, protocol) {
  const c = rawConnection(http);
  c.sock.write(upgradeRequest(path, protocol));
  await until(() => c.data.includes('\r\n\r\n') || c.closed, 5000, 'a handshake answer');
  return { c, status: c.data.toString().split('\r\n')[0] };
}

test('serves the page and a description without the LAN key or the connection', async () => {
  const page = await fetch(url);
  assert.equal(page.status, 200);
  assert.equal(page.headers.get('content-type'), 'text/html; charset=utf-8');
  const d = await (await fetch(new URL('description.json', url))).json();
  assert.equal(d.gateway.id, 'gw0001');
  assert.equal(d.topic_root, 'sf');
  assert.equal('local_key' in d.gateway, false);
  assert.equal('connection' in d, false);
  assert.equal((await fetch(new URL('no-such-file.js', url))).status, 404);
  assert.equal((await fetch(url, { method: 'POST', body: 'x' })).status, 405);
});

test('refuses WebSockets elsewhere than /mqtt or without the mqtt subprotocol', async () => {
  assert.equal((await handshake('/other', 'mqtt')).status, 'HTTP/1.1 404 Not Found');
  assert.equal((await handshake('/mqtt', '')).status, 'HTTP/1.1 400 Bad Request');
  const ok = await handshake('/mqtt', 'chat, mqtt');
  assert.equal(ok.status, 'HTTP/1.1 101 Switching Protocols');
  assert.match(ok.c.data.toString(), /\r\nSec-WebSocket-Protocol: mqtt\r\n/i);
  ok.c.sock.destroy();
});

test('passes the page own login through: refused without it, accepted with it', async () => {
  for (const [user, pass, code] of [[undefined, undefined, 5], ['web', 'wrong', 5], ['web', 'letmein', 0]]) {
    const { c } = await handshake('/mqtt', 'mqtt');
    const head = c.data.indexOf('\r\n\r\n') + 4;
    c.sock.write(frame([...mqttConnect(`t-${code}-${user}`, user, pass)]));
    // CONNACK: 0x20 0x02 <session present> <return code>, in a binary frame 0x82 0x04
    await until(() => c.data.length >= head + 6 || c.closed, 5000, 'the broker CONNACK through the relay');
    assert.deepEqual([...c.data.subarray(head, head + 6)], [0x82, 0x04, 0x20, 0x02, 0x00, code], `${user}/${pass}`);
    c.sock.destroy();
  }
});

test('refuses a client beyond --max-clients with a clear log line, and closes on a frame beyond --max-frame', async () => {
  const a = await handshake('/mqtt', 'mqtt');
  const b = await handshake('/mqtt', 'mqtt');
  await until(async () => (await handshake('/mqtt', 'mqtt')).status === 'HTTP/1.1 503 Service Unavailable', 5000, 'the third client refused');
  assert.match(serveLog(), /sfcloud serve: refused the WebSocket client 127\.0\.0\.1:\d+: 2 clients already \(--max-clients\)/);
  a.c.sock.write(frame(new Array(2000).fill(0x41)));
  await until(() => a.c.closed || a.c.data.includes(Buffer.from([0x88])), 5000, 'the oversize client closed');
  await until(() => /closing the WebSocket client 127\.0\.0\.1:\d+: a frame of more than 1024 bytes \(--max-frame\)/.test(serveLog()), 5000, 'the frame log line');
  a.c.sock.destroy();
  b.c.sock.destroy();
  // the places are free again
  await until(async () => { const h = await handshake('/mqtt', 'mqtt'); h.c.sock.destroy(); return h.status === 'HTTP/1.1 101 Switching Protocols'; }, 5000, 'a place for a new client');
});

test('survives garbage: bad requests, bytes that are not WebSocket frames, abrupt closes', async () => {
  for (const junk of ['\x00\x01\x02garbage\r\n\r\n', 'GET / HTTP/9.9\r\n\r\n', `GET /${'a'.repeat(70000)} HTTP/1.1\r\n\r\n`]) {
    const c = rawConnection(http);
    c.sock.write(junk);
    await until(() => c.closed || c.data.length > 0, 5000, 'an answer or a close');
    c.sock.destroy();
  }
  const { c } = await handshake('/mqtt', 'mqtt');
  c.sock.write(Buffer.from([0x82, 0x05, 1, 2])); // an unmasked, truncated frame
  c.sock.destroy();
  assert.equal((await fetch(url)).status, 200);
});

test('refuses a bad address or a folder without the page, with exit status 2', async () => {
  const bad = await sfcloud(bin, ['serve', '--http', 'nonsense', '--description', description]);
  assert.equal(bad.code, 2);
  assert.match(bad.out, /sfcloud: --http: expected HOST:PORT, got nonsense/);
  const empty = await sfcloud(bin, ['serve', '--http', '127.0.0.1:0', '--web-root', dir, '--description', description]);
  assert.equal(empty.code, 2);
  assert.match(empty.out, /--web-root: no index.html in .* \(build the page: make web\)/);
});
