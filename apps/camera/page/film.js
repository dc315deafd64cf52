// A stream as a film: DASH, played by dash.js, which is fetched when the first stream wants it.
"use strict";

const lookEvery = 500;       // milliseconds, at the manifest: as often as it can bring something new
const behind = 1.2;          // seconds behind the newest segment's start: to learn of it, fetch it and be late at times
const longestStill = 4000;   // milliseconds without a new picture: the source is away
const longestStart = 15000;
const mostAttempts = 3;      // without one picture, before it is told that it cannot be done
const askAgain = 1000;
const longestAsked = 8000;   // the camera holds the request for a manifest that is not there yet a little longer

const playerSettings = {
  debug: { logLevel: 0 },
  streaming: {
    liveCatchup: { enabled: true, playbackRate: { min: -0.05, max: 0.1 } },
    retryAttempts: { MPD: 0 },
    utcSynchronization: { backgroundAttempts: 0, enableBackgroundSyncAfterSegmentDownloadError: false },
  },
};

let playerScript = null;

function loadPlayer(address) {
  playerScript ??= new Promise((resolve, reject) => {
    const script = document.createElement("script");
    script.src = address;
    script.onload = () => (globalThis.dashjs ? resolve() : reject());
    script.onerror = reject;
    document.head.append(script);
  });
  return playerScript.catch(() => {
    playerScript = null;
    throw new Error("dash.js was not loaded");
  });
}

function readManifest(text) {
  const root = new DOMParser().parseFromString(text, "application/xml").documentElement;
  const segments = [...root.querySelectorAll("S")];
  return {
    id: root.id,
    codecs: root.querySelector("Representation").getAttribute("codecs"),
    newest: root.id + " " + segments.at(-1).getAttribute("t"),
    longest: Math.max(...segments.map((each) => each.getAttribute("d"))) / 1000,
  };
}

class Film {
  // playerAddress: none when the program was built without. shows(yes) is told whether there are pictures, cannot(why)
  // that there will be none, once.
  constructor(video, address, playerAddress, shows, cannot) {
    Object.assign(this, { video, address, playerAddress, shows, cannot, attempts: 0, error: "" });
    this.life = new AbortController();
    this.wait();
  }

  stop() {
    this.life.abort();
    this.end();
  }

  end() {
    clearInterval(this.looking);
    this.player?.destroy();
    this.player = null;
    this.video.hidden = true;
  }

  // Until there is a manifest with something new in it: pictures that did not go on do so then.
  async wait() {
    try {
      const media = globalThis.ManagedMediaSource ?? globalThis.MediaSource;
      if (!media) throw new Error("this browser takes no media from a page");
      if (!this.playerAddress) throw new Error("this build is without dash.js");
      await loadPlayer(this.playerAddress);
      if (this.attempts === mostAttempts) throw new Error(this.error || "the player shows nothing");
      let manifest = null;
      while (!manifest || manifest.newest === this.newest) {
        manifest = await this.ask();
        if (this.life.signal.aborted) return;
      }
      this.newest = manifest.newest;
      if (!media.isTypeSupported(`video/mp4; codecs="${manifest.codecs}"`))
        throw new Error("this browser does not play " + manifest.codecs);
      this.play(manifest);
    } catch (error) {
      if (!this.life.signal.aborted) this.cannot(error.message);
    }
  }

  async ask() {
    const began = Date.now();
    try {
      const signal = AbortSignal.any([this.life.signal, AbortSignal.timeout(longestAsked)]);
      const answer = await fetch(this.address, { cache: "no-store", signal });
      if (answer.ok) return readManifest(await answer.text());
    } catch {
      // Asked again.
    } finally {
      await new Promise((resolve) => { setTimeout(resolve, Math.max(0, askAgain - (Date.now() - began))); });
    }
    return null;
  }

  play({ id, longest }) {
    const player = this.player = dashjs.MediaPlayer().create();
    player.clearDefaultUTCTimingSources();  // they are on other hosts; the manifest has its own
    player.updateSettings(playerSettings);
    player.updateSettings({ streaming: { delay: { liveDelay: longest + behind } } });
    player.addRequestInterceptor(async (request) => {
      if (request.url.endsWith(".mpd")) request.headers = { ...request.headers, "Cache-Control": "no-cache" };
      return request;
    });
    player.on("error", ({ error }) => { this.error = error?.message ?? String(error); });
    player.initialize(this.video, this.address, true);
    ++this.attempts;
    let moved = Date.now() + longestStart - longestStill, time = 0;
    this.looking = setInterval(() => {
      if (this.video.currentTime !== time && this.video.readyState > 1) {
        this.attempts = time ? 0 : this.attempts;  // the first step is to where it begins
        if (time) this.shows(true);
        time = this.video.currentTime;
        moved = Math.max(moved, Date.now());
      } else if (Date.now() - moved > longestStill) {
        return this.again();
      }
      // Parameter sets have changed, or the camera has started anew: another manifest, whose time begins elsewhere.
      player.refreshManifest((manifest) => { if (manifest && manifest.id !== id && player === this.player) this.again(); });
    }, lookEvery);
  }

  again() {
    this.end();
    this.shows(false);
    this.wait();
  }
}
