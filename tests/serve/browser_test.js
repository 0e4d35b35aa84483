// The page in headless Chromium: pick the recorded day, click a span, the video plays
// (frames decoded and currentTime both grow), the 4-channel grid plays, an export runs
// to 100 % and a second one is cancelled midway. Leaves a screenshot.
//
//   node browser_test.js URL EXPORT_DIR SHOT.png
//
// The cancelled export writes its first file into a FIFO made where the job will put
// it, so it stands still in the middle until this script reads; it cancels once the
// page shows the file being written, then drains the FIFO so the job notices.
const { chromium } = require('playwright-core');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { execFileSync } = require('child_process');

const [url, exportDir, shot] = process.argv.slice(2);
const failures = [];
const check = (ok, what) => { if (ok) console.log('ok   ' + what); else failures.push(what); };
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

async function videoState(page) {
  return page.evaluate(() => [...document.querySelectorAll('.tile video')].map((v) => ({
    frames: v.webkitDecodedFrameCount || 0, t: v.currentTime, err: v.error ? v.error.code : 0 })));
}

(async () => {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'ringrec-chromium-'));
  const ctx = await chromium.launchPersistentContext(profile, {
    executablePath: '/usr/bin/chromium', headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
           '--disable-background-networking', '--disable-component-update', '--disable-sync',
           '--autoplay-policy=no-user-gesture-required'],
    viewport: { width: 1280, height: 900 } });
  try {
    const page = await ctx.newPage();
    page.on('pageerror', (e) => failures.push('page error: ' + e.message));
    // Nothing beyond this server: the page works with no network.
    page.on('request', (r) => { if (!r.url().startsWith(url)) failures.push('outside request: ' + r.url()); });
    await page.goto(url);
    await page.waitForFunction(() => document.querySelector('#day').options.length > 0);
    await page.selectOption('#day', { label: '2024-05-01' });
    await page.waitForFunction(() => window.ringrec.spans.length === 4);
    check(true, 'the recorded day lists 4 channels');

    // Click lane 1 at 10:59:10 (inside its span).
    const at = Date.UTC(2024, 4, 1, 10, 59, 10) / 1000;
    await page.evaluate(() => { window.ringrec.view = [Date.UTC(2024, 4, 1, 10, 57) / 1000, Date.UTC(2024, 4, 1, 11, 2) / 1000]; });
    const box = await page.locator('#timeline').boundingBox();
    const view = await page.evaluate(() => window.ringrec.view);
    await page.mouse.click(box.x + (at - view[0]) / (view[1] - view[0]) * box.width, box.y + 18 + 22 + 11);
    await page.waitForFunction(() => window.ringrec.playing && window.ringrec.stats.loads >= 4, null, { timeout: 20000 });
    const a = await videoState(page);
    await sleep(2500);
    const b = await videoState(page);
    check(a.length === 4, 'the grid holds 4 tiles');
    for (let i = 0; i < b.length; i++)
      check(b[i].frames > a[i].frames && b[i].t > a[i].t + 1 && !b[i].err,
            `tile ${i} plays: frames ${a[i].frames} -> ${b[i].frames}, time ${a[i].t.toFixed(2)} -> ${b[i].t.toFixed(2)}`);
    const clock = await page.textContent('#clock');
    check(/^2024-05-01 10:59:1\d UTC/.test(clock), 'the clock shows the recording\'s time: ' + clock);

    // Export 10:58 to 11:01 of the shown channels to MP4: runs to 100 %.
    await page.fill('#ex-from', '2024-05-01 10:58:00');
    await page.fill('#ex-to', '2024-05-01 11:00:59');
    await page.click('#export');
    await page.waitForFunction(() => /^(done|failed)/.test(document.querySelector('#ex-state').textContent), null, { timeout: 60000 });
    check(await page.textContent('#ex-state') === 'done 100%', 'export 1: ' + await page.textContent('#ex-state'));
    check(await page.locator('#files a').count() === 8, 'export 1 offers its 8 files');

    // Export 2, the same again, into a FIFO where its first file goes: it stands still
    // in that file until read, and is cancelled once the page shows it writing.
    const first = await page.locator('#files a').first().textContent();
    fs.mkdirSync(path.join(exportDir, 'job-2'), { recursive: true });
    execFileSync('mkfifo', [path.join(exportDir, 'job-2', first)]);
    await page.click('#export');
    const fifo = fs.createReadStream(path.join(exportDir, 'job-2', first), { highWaterMark: 65536 });
    let drained = 0;
    fifo.on('data', (d) => { drained += d.length; });
    for (let i = 0; i < 600 && drained === 0; i++) await sleep(50);
    await page.waitForFunction(() => /^running/.test(document.querySelector('#ex-state').textContent) &&
      document.querySelector('#progress').value > 1, null, { timeout: 60000 });
    fifo.pause();
    const mid = await page.evaluate(() => document.querySelector('#progress').value);
    await page.click('#cancel');
    await sleep(300);
    fifo.resume();
    await page.waitForFunction(() => /^(done|failed|cancelled)/.test(document.querySelector('#ex-state').textContent), null, { timeout: 60000 });
    const state = await page.textContent('#ex-state');
    // A writer that never came would leave the reader's open waiting: let it go.
    try { fs.closeSync(fs.openSync(path.join(exportDir, 'job-2', first), fs.constants.O_WRONLY | fs.constants.O_NONBLOCK)); } catch (e) {}
    check(drained > 0 && mid > 1 && mid < 100 && /^cancelled \d+%/.test(state) && !/100%/.test(state),
          `export 2 cancelled midway at ${mid}%: ${state} (${drained} bytes read)`);

    // Reverse play moves the recording's time backwards.
    const t0 = await page.evaluate(() => window.ringrec.T);
    await page.click('#reverse');
    await sleep(3000);
    const t1 = await page.evaluate(() => window.ringrec.T);
    check(t1 < t0 - 1, `reverse play goes back: ${t0.toFixed(1)} -> ${t1.toFixed(1)}`);
    await page.click('#play');  // forwards again for the picture
    await sleep(1500);
    await page.evaluate(() => window.scrollTo(0, 0));
    await page.screenshot({ path: shot, fullPage: true });
  } catch (e) {
    failures.push(String(e && e.stack || e));
  } finally {
    await ctx.close();
    fs.rmSync(profile, { recursive: true, force: true });
  }
  for (const f of failures) console.log('FAIL ' + f);
  console.log('browser: ' + (failures.length ? failures.length + ' failed' : 'all passed'));
  process.exit(failures.length ? 1 : 0);
})();
