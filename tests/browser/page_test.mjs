// A browser looks at the page of a camera, which fetches from another one. Screenshots stay in INET_SCREENSHOTS.
import assert from 'node:assert/strict';
import test from 'node:test';
import { browser, change, freePort, often, open, start } from './browser.mjs';

const { INET_SCREENSHOTS } = process.env;
const yards = [1, 2, 3, 4, 5].map((i) => `yard${i}`);
const pictures = yards.map((name) => `img[alt="Picture of ${name}"]`);
const plots = ['viewers', 'rate', 'frames'].map((name) => `[data-plot=${name}] canvas`);

/** Waits until a screen reader is told this of a plot. */
const tells = async (plot, what) => page.waitForFunction(
  ([plot, what]) => new RegExp(what).test(plot.ariaLabel), [await page.$(plot), what], often);

const theirs = await start(await freePort(), '--user', 'admin', '--password', 'right');
const options = [`live=${theirs.live}`, ...yards.map((name) => `${name}=${theirs.web}jpeg.mjpeg`)]
  .flatMap((each) => ['--source', each.replace('//', '//admin:right@')]);
let ours = await start(await freePort(), ...options);
const page = await open(ours.web, { permissions: ['clipboard-read', 'clipboard-write'] });

test('pictures change, at most four of them live with the film, and the plots move', async () => {
  await change(page, [...pictures, ...plots, 'video']);
  assert.equal(await page.locator('img[src*=".mjpeg"]').count(), 3);
  await Promise.all(['HTTP 4', 'HTTP (?!0\\.0)', 'HTTP (?!0)'].map((what, i) => tells(plots[i], what)));
  const viewer = new AbortController();
  await fetch(ours.web + 'yard1.mjpeg', { signal: viewer.signal });
  await tells(plots[0], 'HTTP 5');
  viewer.abort();
  for (const [hidden, viewers] of [[false, 4], [true, 0], [false, 4]]) {
    await page.evaluate((value) => Object.defineProperty(document, 'hidden', { value, configurable: true })
      .dispatchEvent(new Event('visibilitychange', { bubbles: true })), hidden);
    await tells(plots[0], `RTSP 0, at most 0\\. HTTP ${viewers}`);
  }
});

test('each address is copied, by keyboard and without HTTPS, too', async () => {
  for (let i = 0; i < await page.locator('a, button').count(); ++i) {
    await page.keyboard.press('Tab');
    assert.ok(await page.evaluate((i) => document.activeElement === document.querySelectorAll('a, button')[i] &&
      getComputedStyle(document.activeElement).outlineStyle === 'solid', i), 'control ' + i);
  }
  const plain = await open(ours.web.replace('127.0.0.1', 'camera.test'));
  const addresses = (await (await fetch(ours.web + 'status.json')).json()).streams.flatMap((each) => each.addresses);
  for (const shown of [page, plain]) for (const [i, address] of addresses.entries()) {
    await shown.locator('button').nth(i).press('Enter');
    await shown.getByRole('button', { name: 'Copied ' + address, exact: true }).waitFor();
    assert.equal(await page.evaluate(() => navigator.clipboard.readText()), address);
  }
  await plain.close();
});

test('it fits a phone and a wall, in light and dark; nothing is said in the console, no other host asked', async () => {
  for (const [name, width, colorScheme = name] of
    [['light', 1440], ['dark', 1440], ['phone', 390, 'dark'], ['wall', 2560, 'light']]) {
    await Promise.all([page.emulateMedia({ colorScheme }), page.setViewportSize({ width, height: 900 })]);
    const [cut, ground] = await page.evaluate(() => [[...document.querySelectorAll('body, body *')].filter((each) =>
      each.getBoundingClientRect().right > innerWidth || (each.clientWidth && each.scrollWidth > each.clientWidth)
    ).map((each) => each.outerHTML), parseInt(getComputedStyle(document.body).backgroundColor.slice(4))]);
    assert.deepEqual([cut, ground < 128], [[], colorScheme === 'dark']);
    await page.screenshot({ path: `${INET_SCREENSHOTS}/${name}.png`, fullPage: true });
  }
  assert.deepEqual([page.said, page.foreign], [[], []], 'until now, when all is well');
});

test('the pictures come back with the camera, before they are renewed anyhow', async () => {
  let asked = 0;
  page.on('request', (request) => { asked += request.url().endsWith('status.json'); });
  for (const noticed of [true, false]) {
    await ours.stop();
    if (noticed) await page.getByText('camera not reached').waitFor();
    const wanted = page.waitForRequest(/yard1\.mjpeg/);
    ours = await ours.again();
    asked = 0;
    await wanted;
    assert.ok(asked < 15);
    await change(page, [...pictures, 'video']);
  }
});

test('the page is behind the password', async () => {
  for (const [password, status] of [[undefined, 401], ['wrong', 401], ['right', 200]]) {
    const gate = await open(theirs.web, { httpCredentials: password && { username: 'admin', password } });
    assert.equal(gate.status, status);
    if (status === 200) await change(gate, ['img[alt="Picture of jpeg"]', 'video']);
  }
});

test('nothing is held in the end', () => browser.close().then(ours.stop).then(theirs.stop));
