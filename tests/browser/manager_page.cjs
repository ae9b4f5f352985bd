// Drives the Transaction Manager page in Debian's Chromium (headless) for the C++ test that
// runs the driver. Reads {url, shots, chromium} from the file named on the command line. At
// each step it prints {"id":"STEP",...} on standard output and, where the test acts on the
// driver, waits for a line on standard input before going on. Every request to anything but
// the server is refused and recorded. A screenshot of each step goes to `shots`.
'use strict';
const fs = require('fs');
const path = require('path');
const readline = require('readline');
const puppeteer = require('puppeteer-core');

const input = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
const lines = readline.createInterface({ input: process.stdin })[Symbol.asyncIterator]();
const kWait = { timeout: 15000 };

function say(id, more) { process.stdout.write(JSON.stringify({ id, ...more }) + '\n'); }
async function goOn() { await lines.next(); }

async function main() {
  const browser = await puppeteer.launch({ executablePath: input.chromium, headless: true,
                                           args: ['--no-sandbox', '--headless=new'] });
  const blocked = [];
  const failures = [];
  try {
    const page = await browser.newPage();
    await page.setViewport({ width: 1280, height: 900 });
    const origin = new URL(input.url).origin;
    await page.setRequestInterception(true);
    page.on('request', (request) => {
      if (request.url().startsWith(origin + '/') || request.url() === origin) return request.continue();
      blocked.push(request.url());
      return request.abort();
    });
    page.on('pageerror', (error) => failures.push(String(error)));
    const shot = (name) => page.screenshot({ path: path.join(input.shots, name + '.png'), fullPage: true });
    const row = (id) => `#transactions tr[data-transaction="${id}"]`;
    const cellText = (id, column) => page.$eval(`${row(id)} td:nth-child(${column})`, (td) => td.textContent);

    await page.goto(input.url + '/', { waitUntil: 'domcontentloaded' });
    await page.waitForSelector(row(1), kWait);
    await page.waitForFunction(() => document.getElementById('live').textContent === 'live', kWait);
    say('listed', { product: await cellText(1, 3), state: await cellText(1, 4), pending: await cellText(2, 4) });
    await shot('1-listed');

    // Approving the request makes the purchase; the app hears of it.
    await page.click(`${row(2)} button:nth-of-type(1)`);
    await page.waitForFunction((sel) => document.querySelector(sel + ' td:nth-child(4)').textContent === 'purchased', kWait, row(2));
    await shot('2-approved');
    say('approved', { state: await cellText(2, 4) });
    await goOn();

    // A refund, with its reason.
    await page.select(`${row(1)} select`, 'developerIssue');
    await page.click(`${row(1)} form button[type=submit]`);
    await page.waitForFunction((sel) => document.querySelector(sel + ' td.flags').textContent.includes('revoked'), kWait, row(1));
    await shot('3-refunded');
    say('refunded', { flags: await page.$eval(`${row(1)} td.flags`, (td) => td.textContent) });
    await goOn();

    // Time moves past the subscription's renewal: the renewal appears without a reload.
    const before = await page.$$eval('#transactions tr[data-transaction]', (rows) => rows.length);
    await page.$eval('#advance-amount', (node) => { node.value = '32'; });
    await page.click('#advance button[type=submit]');
    await page.waitForFunction((n) => document.querySelectorAll('#transactions tr[data-transaction]').length > n, kWait, before);
    await shot('4-renewed');
    say('renewed', { rows: await page.$$eval('#transactions tr[data-transaction]', (rows) => rows.map((r) => r.dataset.transaction)) });
    await goOn();  // the test buys from the driver meanwhile

    await page.waitForFunction(() => [...document.querySelectorAll('#transactions td:nth-child(3)')]
      .some((td) => td.textContent.endsWith('removeads')), kWait);
    await shot('5-bought-from-the-driver');
    say('driverPurchaseShown', { shown: true });

    // A control that fails says why, beside it.
    await page.$eval('#setting-storefront', (node) => { node.value = 'XXX'; });
    await page.click('#setting-storefront + button');
    await page.waitForFunction(() => {
      const box = document.querySelector('#setting-storefront').closest('form').querySelector('.error');
      return box && box.textContent.length > 0;
    }, kWait);
    const refusal = await page.$eval('#setting-storefront', (node) => node.closest('form').querySelector('.error').textContent);
    await shot('6-refused');

    // At a phone's width the page still lays out (tables scroll inside their sections).
    await page.setViewport({ width: 390, height: 844 });
    const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
    await shot('7-phone');
    say('result', { refusal, blocked, failures, overflow });
  } finally {
    await browser.close();
  }
}

main().catch((error) => {
  say('failed', { error: String(error && error.stack || error) });
  process.exit(1);
});
