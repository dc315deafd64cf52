// What the tests of the page share: cameras, and pages in a browser that no name leads out of this host.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { createRequire } from 'node:module';
import { mkdtempSync, rmSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';

const { INET_CAMERA, INET_NPM } = process.env;
const { chromium } = createRequire(INET_NPM + '/')('playwright-core');
export const patience = 90_000, often = { polling: 100 };

// Where the segments of the cameras stand.
export const folder = mkdtempSync(join(tmpdir(), 'browser-'));
process.on('exit', () => rmSync(folder, { recursive: true, force: true, maxRetries: 3 }));

/** A camera. It ends with nothing held and nothing to complain of. */
export async function start(port, ...options) {
  const program = spawn(INET_CAMERA, ['--rtsp', '0', '--http', port, ...options], { cwd: folder });
  process.on('exit', () => program.kill());
  const camera = { web: `http://127.0.0.1:${port}/`, again: () => start(port, ...options), said: '' };
  program.stderr.on('data', (text) => { camera.said += text; });
  camera.kill = () => program.kill('SIGKILL') && once(program, 'close');
  camera.stop = async () => {
    program.kill('SIGINT');
    assert.deepEqual([...await once(program, 'close'), camera.said], [0, null, '']);
  };
  for await (const line of createInterface(program.stdout)) {
    if (line.startsWith('rtsp:') && line.endsWith('/live')) camera.live = line;
    if (line.startsWith('ready')) return camera;
  }
  throw new Error('no camera: ' + camera.said);
}

/** One below those that the system hands out itself: it must still be free for a second start. */
export async function freePort() {
  const probe = createServer().listen(10000 + Math.floor(Math.random() * 20000), '127.0.0.1');
  const port = await once(probe, 'listening').then(() => probe.address().port, () => 0);
  return port ? once(probe.close(), 'close').then(() => String(port)) : freePort();
}

// One name is the camera's: without HTTPS browsers give it no clipboard.
const rules = '--host-resolver-rules=MAP camera.test 127.0.0.1, MAP * ~NOTFOUND, EXCLUDE 127.0.0.1';
export const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: [rules], timeout: patience });

/** Opens a page, which keeps what it says in the console and what it asks of others. */
export async function open(url, { prepare, ...options } = {}) {
  const page = Object.assign(await browser.newPage(options), { said: [], foreign: [] });
  page.setDefaultTimeout(patience);
  for (const event of ['console', 'pageerror']) page.on(event, (it) => page.said.push(it.stack ?? it.text()));
  page.on('request', (request) => { if (!request.url().startsWith(url)) page.foreign.push(request.url()); });
  page.on('response', (response) => { page.status ??= response.status(); });
  await prepare?.(page);
  await page.goto(url).catch((error) => assert.match(error.message, /INVALID_AUTH/));
  return page;
}

/** Waits until in the place of each four different pictures were shown from now on: each try of a film has an element of
 * its own. */
export const change = (page, which) => Promise.all(which.map(async (selector) => page.waitForFunction(([place, all]) => {
  const shown = document.querySelector(place);
  if (!shown) return false;
  const width = shown.naturalWidth ?? shown.videoWidth ?? shown.width;
  const height = shown.naturalHeight ?? shown.videoHeight ?? shown.height;
  if (!width || shown.hidden) return false;
  const pen = new OffscreenCanvas(width, height).getContext('2d');
  pen.drawImage(shown, 0, 0);
  return all.add(pen.getImageData(0, 0, width, height).data.join()).size > 3;
}, [selector, await page.evaluateHandle('new Set()')], often)));
