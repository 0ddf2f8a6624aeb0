// Debian's chromium driven by playwright-core: no browser is downloaded.
import { chromium } from 'playwright-core';

export async function openBrowser() {
  return chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    // root in a container has no user namespaces for chromium's sandbox
    args: process.getuid?.() === 0 ? ['--no-sandbox'] : [],
  });
}

/** A page that records every console error and uncaught exception in errors. */
export async function openPage(browser, url, viewport) {
  const context = await browser.newContext({ viewport });
  const page = await context.newPage();
  const errors = [];
  page.on('console', (m) => { if (m.type() === 'error') errors.push(`console: ${m.text()}`); });
  page.on('pageerror', (e) => errors.push(`page: ${e.message}`));
  await page.goto(url);
  return { context, page, errors };
}
