// The console end to end in a real browser: Debian's chromium, a private
// mosquitto, the real relay (sfcloud serve) and a real sfgw. Each step keeps a
// screenshot under build/web-e2e/; a failing step names its screenshot.
// Steps wait on polled conditions with generous bounds, never on sleeps.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { mkdirSync, rmSync } from 'node:fs';
import { freePort, until, startBroker, startGateway, startServer, stop, stopAll, sfcloud } from './processes.mjs';
import { openBrowser, openPage } from './browser.mjs';

const web = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const top = resolve(web, '..');
const bin = resolve(process.env.SF_BIN_DIR ?? join(top, 'build/asan/apps'));
const shots = resolve(process.env.SF_WEB_E2E_DIR ?? join(top, 'build/web-e2e'));
const description = join(web, 'e2e/gateway.json');

let port, broker, server, browser, page, errors;
const cloud = (...args) => sfcloud(bin, ['--description', description, '--port', String(port), '--json', ...args]);

/** Run one step; its screenshot is kept whatever happens, and a failure names it. */
async function step(name, body) {
  const shot = join(shots, `${name}.png`);
  try {
    await body();
  } catch (e) {
    await page?.screenshot({ path: shot, fullPage: true }).catch(() => {});
    throw new Error(`${e.message}\n  screenshot: ${shot}`);
  }
  await page.screenshot({ path: shot, fullPage: true });
}

const text = (selector) => page.locator(selector).first().textContent({ timeout: 1000 });

before(async () => {
  rmSync(join(shots, 'run'), { recursive: true, force: true }); // the relay test keeps its own folder beside it
  mkdirSync(shots, { recursive: true });
  port = await freePort();
  broker = await startBroker(join(shots, 'run'), port);
  await startGateway(join(shots, 'run'), bin, description, port, ['--metrics-mqtt', '2']);
  server = await startServer(join(shots, 'run'), bin, join(web, 'dist'), description, port);
  browser = await openBrowser();
  ({ page, errors } = await openPage(browser, server.url, { width: 1280, height: 900 }));
});

after(async () => {
  await browser?.close();
  await stopAll();
});

test('the fleet shows the gateway online, with its devices and values', async () => {
  await step('01-fleet', async () => {
    await until(async () => (await text('#gw-gw0001 td:nth-of-type(1)')) === 'online', 20000, 'gw0001 online in the fleet');
    await until(async () => (await text('#gw-gw0001 td:nth-of-type(3)'))?.startsWith('connected'), 20000, 'the health document');
    await until(async () => (await text('#dev-plug01 .presence')) === 'online', 20000, 'plug01 online');
    await until(async () => (await text('#dev-thermo01 tr[data-dp="2"] .value')) === '21.0', 20000, 'thermo01 temp_set 21.0 (210, scale 1)');
    assert.equal(await text('#dev-thermo01 tr[data-dp="2"] th'), 'temp_set (2)');
  });
});

test('switching plug01 on by keyboard changes the device, and its report is shown on the row', async () => {
  await step('02-switch-on', async () => {
    const row = '#dev-plug01 tr[data-dp="1"]';
    await until(async () => (await text(`${row} .value`)) === 'false', 20000, 'plug01 switch known as false');
    await page.focus(`${row} input[role=switch]`);
    await page.keyboard.press('Space');
    await until(async () => (await text(`${row} .answer`)) === 'reported: 1=true', 15000, 'the report as the answer');
    assert.equal(await text(`${row} .value`), 'true');
    assert.equal(await page.locator(`${row} input[role=switch]`).isChecked(), true);
    const q = await cloud('query', 'plug01', 'switch');
    assert.match(q.out, /"cid":"plug01","dps":\{"switch":true\}/, q.out);
  });
});

test('the same value again is echoed, an out-of-range value is refused with its reason in words, on the row and in the events', async () => {
  await step('03-echo-refusal', async () => {
    const row = '#dev-plug01 tr[data-dp="9"]';
    assert.equal(await text(`${row} .value`), '0');
    await page.fill(`${row} input[type=number]`, '0');
    await page.press(`${row} input[type=number]`, 'Enter');
    await until(async () => (await text(`${row} .answer`)) === 'unchanged, echoed: 9=0', 15000, 'the echo on the row');
    assert.equal(await page.locator(`${row} .answer`).getAttribute('data-state'), 'echo');
    await page.fill(`${row} input[type=number]`, '100000');
    await page.click(`${row} button[type=submit]`);
    await until(async () => (await text(`${row} .answer`))?.startsWith('refused: value out of range (DP 9): '), 15000, 'the refusal on the row');
    assert.equal(await page.locator(`${row} .answer`).getAttribute('data-state'), 'refused');
    await page.selectOption('#events-kind', 'refusal');
    const first = await text('#events li');
    assert.match(first, /gw0001: dp command web\w+-\d+ refused "plug01" DP 9: value out of range \(.+\)/);
    await page.selectOption('#events-kind', 'all');
  });
  // the picture of docs/images/web-console.png: a report, a refusal, plots and events at once
  await until(async () => (await page.locator('figure.plot').count()) >= 5, 10000, 'the plots drawn');
  await page.screenshot({ path: join(shots, 'console-1280.png') });
});

test('a query, a group and a scene from the page show their answers where they were asked', async () => {
  await step('04-query-group-scene', async () => {
    await page.click('#dev-thermo01 header button');
    await until(async () => (await text('#dev-thermo01 header .answer')) === 'answered by thermo01', 15000, 'the query answer');
    await page.check('.members input[value=plug01]');
    await page.check('.members input[value=bulb01]');
    await page.click('#ops-group');
    await until(async () => (await text('#ops-answer')) === 'group 5: bulb01: done, plug01: done', 15000, 'the group answer');
    await page.click('#ops-scene');
    await until(async () => (await text('#ops-answer')) === 'scene 01 of group 5: bulb01: done, plug01: done', 15000, 'the scene answer');
  });
});

test('silencing sensor01 shows it silent, then offline within its time-out', async () => {
  await step('05-silent-offline', async () => {
    const silenced = await cloud('silence', 'sensor01');
    assert.equal(silenced.code, 0, silenced.out);
    // 60 s without a heartbeat (the least a description allows), one probe, then the batch
    await until(async () => (await text('#dev-sensor01 .presence')) === 'silent', 100000, 'sensor01 silent after an unanswered probe');
    await until(async () => (await text('#dev-sensor01 .presence')) === 'offline', 30000, 'sensor01 offline');
    await page.fill('#events-filter', 'sensor01');
    assert.equal(await text('#events li[data-kind=presence]'), `${await text('#events li[data-kind=presence] time')} presence gw0001: offline: sensor01`);
    assert.match(await text('#events li[data-kind=probe]'), /probe gw0001: sensor01 did not answer the heartbeat probe \(silent\)$/);
    await page.fill('#events-filter', '');
    const woken = await cloud('wake', 'sensor01');
    assert.equal(woken.code, 0, woken.out);
    await until(async () => (await text('#dev-sensor01 .presence')) === 'online', 30000, 'sensor01 online again');
  });
});

test('a broker restart reconnects the page by itself', async () => {
  await step('06-broker-restart', async () => {
    await stop(broker);
    await until(async () => (await page.locator('#link').getAttribute('data-state')) !== 'connected', 20000, 'the page sees the broker gone');
    broker = await startBroker(join(shots, 'run'), port);
    await until(async () => (await page.locator('#link').getAttribute('data-state')) === 'connected', 30000, 'the page connected again');
    // the gateway's second session shows in its health document, published at each connect
    await until(async () => (await text('#gw-gw0001 td:nth-of-type(3)')) === 'connected (2 sessions)', 30000, 'gw0001 back on the broker');
    assert.equal(await text('#gw-gw0001 td:nth-of-type(1)'), 'online');
    // commands work again: switch plug01 off from the page
    const row = '#dev-plug01 tr[data-dp="1"]';
    await page.locator(`${row} input[role=switch]`).setChecked(false);
    await until(async () => (await text(`${row} .answer`)) === 'reported: 1=false', 15000, 'plug01 switched off after the restart');
  });
});

test('a phone-sized screen shows the console without sideways scrolling', async () => {
  await step('07-phone', async () => {
    await page.setViewportSize({ width: 390, height: 844 });
    await until(async () => page.evaluate(() => document.documentElement.scrollWidth <= window.innerWidth), 5000, 'no horizontal overflow');
  });
  await page.setViewportSize({ width: 1920, height: 1080 });
  await step('08-wide', async () => {
    await until(async () => page.evaluate(() => document.documentElement.scrollWidth <= window.innerWidth), 5000, 'no horizontal overflow at 1920');
  });
});

test('the browser console showed no error', () => {
  assert.deepEqual(errors, []);
});
