// The page in headless Chromium: pick the recorded day, click a span, the video plays
// (frames decoded and currentTime both grow), the 4-channel grid plays, an export runs
// to 100 % and a second one is cancelled midway. Leaves a screenshot.
//
//   node browser_test.js URL EXPORT_DIR SHOT.png
//
// Every step waits for a state the page shows, with limits meant for a loaded machine,
// never for a fixed time. The cancelled export is held midway for certain: its second
// file is a FIFO, whose open does not return until this script opens it for reading,
// which it does only once the cancel has been answered.
const { chromium } = require('playwright-core');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { execFileSync } = require('child_process');

const [url, exportDir, shot] = process.argv.slice(2);
const LIMIT = 120000;  // per wait; the whole run stays within serve_test.py's limit
const failures = [];
const check = (ok, what) => { if (ok) console.log('ok   ' + what); else failures.push(what); };

async function videoState(page) {
  return page.evaluate(() => [...document.querySelectorAll('.tile video')].map((v) => ({
    frames: v.webkitDecodedFrameCount || 0, t: v.currentTime, err: v.error ? v.error.code : 0 })));
}

// Waits for fn(arg) to hold in the page; on a timeout says what was awaited and what
// the page showed.
async function until(page, what, fn, arg) {
  try {
    await page.waitForFunction(fn, arg, { timeout: LIMIT, polling: 100 });
  } catch (e) {
    const seen = await page.evaluate(() => ({
      state: document.querySelector('#ex-state').textContent,
      progress: document.querySelector('#progress').value,
      files: document.querySelectorAll('#files a').length, msg: document.querySelector('#msg').textContent,
      clock: document.querySelector('#clock').textContent, playing: window.ringrec.playing,
      loads: window.ringrec.stats.loads })).catch(() => ({}));
    const v = await videoState(page).catch(() => []);
    throw new Error(`waiting for ${what}: ${e.message.split('\n')[0]}; page: ${JSON.stringify(seen)} ` +
                    `videos: ${JSON.stringify(v)}`);
  }
}

// Reads a FIFO to its end. The open returns only once a writer has opened it too.
function drain(p) {
  return new Promise((ok, bad) => {
    let bytes = 0, opened = false;
    const s = fs.createReadStream(p);
    s.on('open', () => { opened = true; });
    s.on('data', (d) => { bytes += d.length; });
    s.on('end', () => ok({ opened, bytes }));
    s.on('error', bad);
  });
}

(async () => {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'ringrec-chromium-'));
  const ctx = await chromium.launchPersistentContext(profile, {
    executablePath: '/usr/bin/chromium', headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
           '--disable-background-networking', '--disable-component-update', '--disable-sync',
           '--autoplay-policy=no-user-gesture-required'],
    viewport: { width: 1280, height: 900 } });
  let fifo = null, drained = null;
  try {
    const page = await ctx.newPage();
    page.setDefaultTimeout(LIMIT);
    page.on('pageerror', (e) => failures.push('page error: ' + e.message));
    // Nothing beyond this server: the page works with no network.
    page.on('request', (r) => { if (!r.url().startsWith(url)) failures.push('outside request: ' + r.url()); });
    await page.goto(url);
    await until(page, 'the day list', () => document.querySelector('#day').options.length > 0);
    await page.selectOption('#day', { label: '2024-05-01' });
    await until(page, 'the spans of 4 channels', () => window.ringrec.spans.length === 4);
    check(true, 'the recorded day lists 4 channels');

    // Click lane 1 at 10:59:10 (inside its span): every tile loads and plays.
    const at = Date.UTC(2024, 4, 1, 10, 59, 10) / 1000;
    await page.evaluate(() => { window.ringrec.view = [Date.UTC(2024, 4, 1, 10, 57) / 1000, Date.UTC(2024, 4, 1, 11, 2) / 1000]; });
    const box = await page.locator('#timeline').boundingBox();
    const view = await page.evaluate(() => window.ringrec.view);
    await page.mouse.click(box.x + (at - view[0]) / (view[1] - view[0]) * box.width, box.y + 18 + 22 + 11);
    await until(page, 'the 4 tiles loaded and playing', () => window.ringrec.playing && window.ringrec.stats.loads >= 4);
    const a = await videoState(page);
    check(a.length === 4, 'the grid holds 4 tiles');
    await until(page, 'every tile to decode frames and advance 1 s', (a) => {
      const v = [...document.querySelectorAll('.tile video')];
      return v.some((x) => x.error) ||
             v.every((x, i) => (x.webkitDecodedFrameCount || 0) > a[i].frames && x.currentTime > a[i].t + 1);
    }, a);
    const b = await videoState(page);
    for (let i = 0; i < b.length; i++)
      check(b[i].frames > a[i].frames && b[i].t > a[i].t + 1 && !b[i].err,
            `tile ${i} plays: frames ${a[i].frames} -> ${b[i].frames}, time ${a[i].t.toFixed(2)} -> ${b[i].t.toFixed(2)}`);

    // Paused, the clock shows the recording's second of the first tile's frame: the
    // 25 fps recording has a key frame on every second, so its clip from 10:59:10 starts
    // on that second, and the frame at currentTime c was recorded at 10:59:10 + c.
    await page.click('#play');
    const want = await page.evaluate((at) => {
      const c = document.querySelector('.tile video').currentTime;
      return new Date((at + Math.floor(c + 1e-6)) * 1000).toISOString().slice(0, 19).replace('T', ' ') + ' UTC';
    }, at);
    await until(page, 'the clock to show ' + want, (w) => document.querySelector('#clock').textContent.startsWith(w), want)
      .catch((e) => failures.push(e.message));
    check((await page.textContent('#clock')).startsWith(want), 'the clock shows the recording\'s time: ' + await page.textContent('#clock'));

    // Export 10:58 to 11:01 of the shown channels to MP4: runs to 100 %.
    await page.fill('#ex-from', '2024-05-01 10:58:00');
    await page.fill('#ex-to', '2024-05-01 11:00:59');
    await page.click('#export');
    await until(page, 'export 1 to end', () => /^(done|failed|cancelled)/.test(document.querySelector('#ex-state').textContent));
    check(await page.textContent('#ex-state') === 'done 100%', 'export 1: ' + await page.textContent('#ex-state'));
    const names = await page.locator('#files a').allTextContents();
    check(names.length === 8, 'export 1 offers its 8 files');

    // Export 2, the same again, with a FIFO where the first file of its second hour goes
    // (the files of one hour are opened together, then written from one read of it).
    // Once the page lists the first hour's 4 files, the job stands in the FIFO's open
    // until this script reads: the cancel is answered while it is held there, and only
    // then is the FIFO read.
    fs.mkdirSync(path.join(exportDir, 'job-2'), { recursive: true });
    fifo = path.join(exportDir, 'job-2', names[4]);
    execFileSync('mkfifo', [fifo]);
    await page.click('#export');
    await until(page, 'export 2 running with its first file written', () =>
      /^running/.test(document.querySelector('#ex-state').textContent) && document.querySelectorAll('#files a').length === 4);
    const mid = await page.evaluate(() => document.querySelector('#progress').value);
    const [answer] = await Promise.all([
      page.waitForResponse((r) => r.request().method() === 'DELETE' && r.url().includes('/api/export/')),
      page.click('#cancel')]);
    const told = await answer.json();
    drained = drain(fifo);
    const got = await Promise.race([drained, new Promise((r) => setTimeout(r, LIMIT))]);
    if (!got) throw new Error('export 2 never opened its held file ' + names[4]);
    await until(page, 'export 2 to end', () => /^(done|failed|cancelled)/.test(document.querySelector('#ex-state').textContent));
    const state = await page.textContent('#ex-state');
    const kept = await page.locator('#files a').allTextContents();
    check(told.state === 'running' && got.opened && mid > 1 && mid < 100 && /^cancelled \d+%$/.test(state) &&
          !/100%/.test(state) && kept.join(' ') === names.slice(0, 4).join(' '),
          `export 2 cancelled midway at ${mid}% (${told.state} when cancelled): ${state}, ` +
          `keeps ${kept.join(' ')} (the held file ${got.opened ? 'opened' : 'never opened'}, ${got.bytes} bytes)`);

    // Reverse play moves the recording's time backwards.
    const t0 = await page.evaluate(() => window.ringrec.T);
    await page.click('#reverse');
    await until(page, 'reverse play to go back 1 s', (t0) => window.ringrec.reverse && window.ringrec.T < t0 - 1, t0)
      .catch((e) => failures.push(e.message));
    const t1 = await page.evaluate(() => window.ringrec.T);
    check(t1 < t0 - 1, `reverse play goes back: ${t0.toFixed(1)} -> ${t1.toFixed(1)}`);
    const loads = await page.evaluate(() => window.ringrec.stats.loads);
    await page.click('#play');  // forwards again for the picture
    await until(page, 'forward play again', (n) => window.ringrec.playing && !window.ringrec.reverse &&
      window.ringrec.stats.loads >= n + 4, loads);
    await page.evaluate(() => window.scrollTo(0, 0));
    await page.screenshot({ path: shot, fullPage: true });
  } catch (e) {
    failures.push(String(e && e.message || e));
  } finally {
    // A job still held in the FIFO would keep the server from stopping: read it out.
    if (fifo && !drained && fs.existsSync(fifo)) {
      const left = drain(fifo);
      await Promise.race([left, new Promise((r) => setTimeout(r, 5000))]);
    }
    await ctx.close();
    fs.rmSync(profile, { recursive: true, force: true });
  }
  for (const f of failures) console.log('FAIL ' + f);
  console.log('browser: ' + (failures.length ? failures.length + ' failed' : 'all passed'));
  process.exit(failures.length ? 1 : 0);
})();
