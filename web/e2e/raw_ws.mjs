// A bare WebSocket client on a TCP socket, for testing the relay's edges
// (handshake answers, oversize frames, garbage) that a browser will not send.
import { connect } from 'node:net';
import { randomBytes } from 'node:crypto';

/** Sends raw bytes and collects what comes back; closed says when the server closed. */
export function rawConnection(port) {
  const sock = connect(port, '127.0.0.1');
  const c = { sock, data: Buffer.alloc(0), closed: false };
  sock.on('data', (b) => { c.data = Buffer.concat([c.data, b]); });
  sock.on('close', () => { c.closed = true; });
  sock.on('error', () => { c.closed = true; });
  return c;
}

export function upgradeRequest(path, protocol = 'mqtt') {
  return [
    `GET ${path} HTTP/1.1`, 'Host: 127.0.0.1', 'Upgrade: websocket', 'Connection: Upgrade',
    `Sec-WebSocket-Key: ${randomBytes(16).toString('base64')}`, 'Sec-WebSocket-Version: 13',
    ...(protocol ? [`Sec-WebSocket-Protocol: ${protocol}`] : []), '', '',
  ].join('\r\n');
}

/** One masked binary frame, as a client must send it. */
export function frame(payload) {
  const mask = randomBytes(4);
  const len = payload.length;
  const head = len < 126 ? Buffer.from([0x82, 0x80 | len])
    : len < 65536 ? Buffer.from([0x82, 0x80 | 126, len >> 8, len & 255])
      : Buffer.concat([Buffer.from([0x82, 0x80 | 127]), (() => { const b = Buffer.alloc(8); b.writeBigUInt64BE(BigInt(len)); return b; })()]);
  const body = Buffer.from(payload.map((x, i) => x ^ mask[i % 4]));
  return Buffer.concat([head, mask, body]);
}

/** An MQTT 3.1.1 CONNECT, with a user name and password when given. */
export function mqttConnect(clientId, username, password) {
  const str = (s) => { const b = Buffer.from(s); return Buffer.concat([Buffer.from([b.length >> 8, b.length & 255]), b]); };
  const flags = 0x02 | (username ? 0x80 : 0) | (password ? 0x40 : 0);
  const vh = Buffer.concat([str('MQTT'), Buffer.from([4, flags, 0, 30])]);
  const pl = Buffer.concat([str(clientId), ...(username ? [str(username)] : []), ...(password ? [str(password)] : [])]);
  const rest = Buffer.concat([vh, pl]);
  return Buffer.concat([Buffer.from([0x10, rest.length]), rest]);
}
