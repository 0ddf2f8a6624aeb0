// make bench: the web console under a busy fleet. 100 gateways x 10 devices
// publish DP reports through a private mosquitto; the page, in Debian's
// chromium through sfcloud serve's relay, shows the fleet and one gateway.
// Measured: the time from an uplink's arrival in the page to the paint of the
// frame that drew it (p50, p99), and the page's JS heap after the run.
// The run is short (BENCH_SECONDS, default 60 s after a 10 s warm-up) to
// keep make bench quick; the heap is compared with its value after the
// warm-up, so a leak shows as growth even in one minute.
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { mkdirSync, writeFileSync } from 'node:fs';
import { freePort, startBroker, startServer, stopAll } from '../e2e/processes.mjs';
import { openBrowser, openPage } from '../e2e/browser.mjs';
import { simulate } from './uplinks.mjs';

const web = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const top = resolve(web, '..');
const bin = resolve(process.env.SF_BIN_DIR ?? join(top, 'build/release/apps'));
const out = resolve(process.env.SF_WEB_BENCH_DIR ?? join(top, 'build/web-bench'));
const seconds = Number(process.env.BENCH_SECONDS ?? 60);
const rate = Number(process.env.BENCH_RATE ?? 200);
const wait = (ms) => new Promise((r) => setTimeout(r, ms));

const quantile = (xs, q) => {
  const s = [...xs].sort((a, b) => a - b);
  return s.length ? s[Math.min(s.length - 1, Math.floor(q * s.length))] : NaN;
};

async function heap(cdp) {
  await cdp.send('HeapProfiler.collectGarbage');
  const { metrics } = await cdp.send('Performance.getMetrics');
  return metrics.find((m) => m.name === 'JSHeapUsedSize').value;
}

mkdirSync(out, { recursive: true });
let browser;
try {
  const port = await freePort();
  await startBroker(join(out, 'run'), port);
  const { url } = await startServer(join(out, 'run'), bin, join(web, 'dist'), join(top, 'examples/gateway.json'), port);
  const sim = await simulate({ port, rate });
  browser = await openBrowser();
  const { page, context, errors } = await openPage(browser, `${url}?gw=gwb000`, { width: 1920, height: 1080 });
  const cdp = await context.newCDPSession(page);
  await cdp.send('Performance.enable');
  await wait(10000);
  const heapStart = await heap(cdp);
  await page.evaluate(() => window.sfConsole.meter.reset());
  const sentStart = sim.sent();
  await wait(seconds * 1000);
  const { samples, messages } = await page.evaluate(() => ({ samples: window.sfConsole.meter.samples, messages: window.sfConsole.meter.messages }));
  const heapEnd = await heap(cdp);
  const sent = sim.sent() - sentStart;
  await page.screenshot({ path: join(out, 'fleet.png') });
  await sim.stop();
  const result = {
    gateways: 100, devices_per_gateway: 10, rate_per_s: rate, seconds,
    sent, received: messages,
    draw_ms: { p50: quantile(samples, 0.5), p99: quantile(samples, 0.99), max: Math.max(...samples), samples: samples.length },
    heap_mb: { after_warmup: heapStart / 1e6, end: heapEnd / 1e6 },
    console_errors: errors.length,
  };
  writeFileSync(join(out, 'result.json'), JSON.stringify(result, null, 2) + '\n');
  console.log(`web console, 100 gateways x 10 devices, ${rate} uplinks/s for ${seconds} s: ` +
    `${messages} of ${sent} uplinks received, arrival to paint p50 ${result.draw_ms.p50.toFixed(1)} ms, ` +
    `p99 ${result.draw_ms.p99.toFixed(1)} ms (max ${result.draw_ms.max.toFixed(1)}), JS heap ${result.heap_mb.after_warmup.toFixed(1)} MB ` +
    `after warm-up, ${result.heap_mb.end.toFixed(1)} MB at the end (${join(out, 'result.json')})`);
} finally {
  await browser?.close();
  await stopAll();
}
