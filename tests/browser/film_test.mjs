// A browser plays a stream by DASH, of a camera which fetches it from another one.
import assert from 'node:assert/strict';
import test from 'node:test';
import { browser, change, freePort, open, patience, start } from './browser.mjs';

const longest = 4;  // seconds behind the end of the last segment: two of them
let theirs = await start(await freePort(), '--rtsp', await freePort());
let ours = await start(await freePort(), '--source', 'live=' + theirs.live);
const page = await open(ours.web);

test('the film runs for 20 s without a stall, at most two segments behind', async () => {
  await change(page, ['video']);
  const worst = await page.evaluate(async ([longest, patience]) => {
    const video = document.querySelector('video'), late = Date.now() + patience;
    let stalls = 0, worst = [];
    for (const event of ['waiting', 'seeking', 'emptied']) video.addEventListener(event, () => { ++stalls; });
    // A stretch of 20 s; another one where the machine was too busy for this.
    for (let from = 0, fault = true; Date.now() < late; await new Promise((resolve) => { setTimeout(resolve, 250); })) {
      if (fault) [from, fault, stalls] = [video.currentTime, false, 0];
      const text = await (await fetch('/live/manifest.mpd', { cache: 'no-store' })).text();
      const behind = Math.max(...[...text.matchAll(/d="(\d+)" t="(\d+)"/g)].map(([, d, t]) => +d + +t)) / 1000 -
        video.currentTime;
      fault = stalls > 0 || behind > longest || video.hidden;
      if (fault) worst.push([stalls, behind, video.hidden]);
      if (!fault && video.currentTime > from + 20) return null;
    }
    return worst;
  }, [longest, patience]);
  assert.equal(worst, null);
  await page.screenshot({ path: process.env.INET_SCREENSHOTS + '/film.png', fullPage: true });
  assert.deepEqual([page.said, page.foreign], [[], []]);
});

test('it plays on when the source was away, and when the camera was', async () => {
  await theirs.kill();
  await page.locator('.note', { hasText: 'Waiting for the source.' }).waitFor();
  theirs = await theirs.again();
  await change(page, ['video']);
  await ours.kill();
  await page.locator('video').waitFor({ state: 'detached' });
  ours = await ours.again();
  await change(page, ['video']);
});

test('where there is no film the page says why, and shows the JPEG pictures', async () => {
  for (const [why, prepare] of [
    ['dash.js was not loaded', (it) => it.route('**/dash.*.js', (route) => route.abort())],
    ['this build is without dash.js', (it) => it.route('**/status.json', async (route) => {
      const response = await route.fetch();
      await route.fulfill({ response, json: { ...await response.json(), player: null } });
    })],
    ['this browser takes no media from a page', (it) => it.addInitScript('delete globalThis.MediaSource')],
  ]) {
    const other = await open(theirs.web, { prepare });
    const card = other.locator('article', { hasText: '/live' });
    await card.getByText(`No video by DASH: ${why}. These are the JPEG pictures of jpeg.`).waitFor();
    await change(other, ['img[alt="Picture of live"]']);
    await other.close();
  }
});

test('nothing is held in the end', () => browser.close().then(ours.stop).then(theirs.stop));
