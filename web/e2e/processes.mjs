// The real processes of the browser tests and the benchmark: a private
// mosquitto on a free loopback port, the gateway daemon, and the console's
// server (sfcloud serve) with its relay. Everything started here is stopped
// by stopAll(), by process id.
import { spawn } from 'node:child_process';
import { createServer, connect } from 'node:net';
import { mkdirSync, writeFileSync, openSync } from 'node:fs';
import { join } from 'node:path';

const started = new Set();

/** A loopback port no one listens on now, below Linux's ephemeral range (as scripts/lib/demo_lib.sh). */
export async function freePort() {
  for (let i = 0; i < 200; i++) {
    const port = 20000 + Math.floor(Math.random() * 12000);
    const ok = await new Promise((resolve) => {
      const s = createServer();
      s.once('error', () => resolve(false));
      s.listen(port, '127.0.0.1', () => s.close(() => resolve(true)));
    });
    if (ok) return port;
  }
  throw new Error('no free port');
}

/** Poll until check() is truthy; throws with what() after timeoutMs. */
export async function until(check, timeoutMs, what) {
  const deadline = Date.now() + timeoutMs;
  let last;
  while (Date.now() < deadline) {
    try {
      last = await check();
      if (last) return last;
    } catch (e) {
      last = e;
    }
    await new Promise((r) => setTimeout(r, 100));
  }
  throw new Error(`${what} not within ${timeoutMs / 1000} s${last instanceof Error ? ` (${last.message})` : ''}`);
}

const accepts = (port) =>
  new Promise((resolve) => {
    const s = connect(port, '127.0.0.1');
    s.once('connect', () => { s.destroy(); resolve(true); });
    s.once('error', () => resolve(false));
  });

function launch(name, dir, cmd, args, opts = {}) {
  const out = openSync(join(dir, `${name}.log`), 'a');
  const child = spawn(cmd, args, { stdio: ['ignore', opts.pipe ? 'pipe' : out, out], ...opts.spawn });
  started.add(child);
  child.on('exit', () => started.delete(child));
  return child;
}

export async function stop(child, signal = 'SIGTERM') {
  if (!child || child.exitCode !== null || child.signalCode !== null) return;
  const gone = new Promise((r) => child.once('exit', r));
  child.kill(signal);
  await Promise.race([gone, new Promise((r) => setTimeout(r, 5000))]);
  if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
}

export async function stopAll() {
  await Promise.all([...started].map((c) => stop(c)));
}

/** mosquitto on 127.0.0.1:port; extra lines go to its configuration. */
export async function startBroker(dir, port, extra = [], anonymous = true) {
  mkdirSync(dir, { recursive: true });
  const conf = join(dir, 'mosquitto.conf');
  const lines = [`listener ${port} 127.0.0.1`, `allow_anonymous ${anonymous}`, 'persistence false', ...extra];
  if (process.getuid?.() === 0) lines.push('user root'); // as root it would switch to a user who cannot write here
  writeFileSync(conf, lines.join('\n') + '\n');
  const child = launch('mosquitto', dir, process.env.MOSQUITTO ?? '/usr/sbin/mosquitto', ['-c', conf]);
  await until(() => accepts(port), 10000, `mosquitto on port ${port}`);
  return child;
}

/** The gateway daemon; resolves once it printed that it is up. */
export async function startGateway(dir, bin, description, port, extra = []) {
  const child = launch('sfgw', dir, join(bin, 'sfgw'),
    [description, '--mqtt-port', String(port), '--lan-port', '0', '--no-state', '--log-level', 'info', ...extra], { pipe: true });
  let text = '';
  child.stdout.on('data', (b) => { text += b; });
  await until(() => text.includes(' is up ') || child.exitCode !== null, 30000, 'sfgw up');
  if (child.exitCode !== null) throw new Error(`sfgw stopped at start (see ${dir}/sfgw.log)`);
  return child;
}

/** sfcloud serve on a free port; resolves with the address it printed. */
export async function startServer(dir, bin, webRoot, description, brokerPort, extra = []) {
  const child = launch('serve', dir, join(bin, 'sfcloud'),
    ['serve', '--http', '127.0.0.1:0', '--port', String(brokerPort), '--web-root', webRoot, '--description', description, ...extra],
    { pipe: true });
  let text = '';
  child.stdout.on('data', (b) => { text += b; });
  const url = await until(() => (child.exitCode !== null ? Promise.reject(new Error('sfcloud serve stopped')) : /http:\/\/[0-9.:]+\//.exec(text)?.[0]), 15000, 'sfcloud serve address');
  return { child, url };
}

/** Run sfcloud to completion; resolves with its exit code and output. */
export function sfcloud(bin, args) {
  return new Promise((resolve) => {
    const child = spawn(join(bin, 'sfcloud'), args, { stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    child.stdout.on('data', (b) => { out += b; });
    child.stderr.on('data', (b) => { out += b; });
    child.on('exit', (code) => resolve({ code, out }));
  });
}
