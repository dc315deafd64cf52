// A browser plays a stream by DASH, of a camera which fetches it from another one.
import assert from 'node:assert/strict';
import { readdirSync } from 'node:fs';
import test from 'node:test';
import { browser, change, folder, freePort, open, patience, start } from './browser.mjs';

const longest = 4;  // seconds behind the end of the last segment: two of them
let theirs = await start(await freePort(), '--rtsp', await freePort());
let ours = await start(await freePort(), '--source', 'live=' + theirs.live);
const page = await open(ours.web);

test('the film runs for 20 s without a stall, at most two segments behind', async () => {
  await change(page, ['video']);
  const worst = await page.evaluate(async ([longest, patience]) => {
    const late = Date.now() + 2 * patience, worst = [];
    let video = null, stalls = 0;
    // A decoder that the machine keeps waiting has something to decode.
    const wait = ({ target }) => {
      stalls += !target.buffered.length || target.buffered.end(0) < target.currentTime + 0.2;
    };
    // A stretch of 20 s; another one where the machine was too busy for this.
    for (let from = 0, time = 0, moved = 0, fault = true; Date.now() < late;) {
      const shown = document.querySelector('video');
      if (shown && shown !== video) {  // the page begins anew after a standstill
        shown.addEventListener('waiting', wait);
        [video, time, fault] = [shown, 0, true];
      }
      if (fault) [from, moved, stalls] = [video.currentTime, Date.now(), 0];
      const text = await (await fetch('/live/manifest.mpd', { cache: 'no-store' })).text();
      const ends = [...text.matchAll(/d="(\d+)" t="(\d+)"/g)].map(([, d, t]) => +d + +t);
      const behind = ends.at(-1) / 1000 - video.currentTime;
      if (video.currentTime > time) [time, moved] = [video.currentTime, Date.now()];
      fault = stalls > 0 || behind > longest || Date.now() > moved + 1000 || video.hidden;
      if (fault) worst.push([stalls, behind, time, video.hidden]);
      if (!fault && time > from + 20) return null;
      await new Promise((resolve) => { setTimeout(resolve, 100); });
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
  // What those that were killed have left is gone, and only that.
  const runs = readdirSync(folder + '/temp').map((each) => each.split('-').slice(0, 4).join());
  assert.equal(new Set(runs).size, 2, runs);
});

test('a source that is fetched on demand is fetched for the film', async () => {
  const asks = await start(await freePort(), '--on-demand', '--source', 'live=' + theirs.live);
  const other = await open(asks.web);
  await change(other, ['video']);
  await other.close();
  await asks.stop();
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
    await other.unrouteAll({ behavior: 'wait' });  // one that is half answered would complain of the end
    await other.close();
  }
});

test('nothing is held in the end', () => browser.close().then(ours.stop).then(theirs.stop));
