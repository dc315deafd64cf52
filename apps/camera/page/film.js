// A stream as a film: DASH, played by dash.js, which is fetched when the first stream wants it.
"use strict";

const lookEvery = 250;       // milliseconds, at the manifest, when it is due to bring a new segment
const behind = 1.3;          // seconds behind the newest segment's start: to learn of it, fetch it and be late at times
const longestStill = 4000;   // milliseconds without a new picture: the source is away
const longestStart = 15000;
const mostAttempts = 3;      // without one picture, before it is told that it cannot be done
const askAgain = 1000;
const longestAsked = 8000;   // the camera holds the request for a manifest that is not there yet a little longer

const playerSettings = {
  debug: { logLevel: 0 },
  streaming: {
    buffer: { stallThreshold: 0.05, setStallState: false },  // it plays what it has
    scheduling: { defaultTimeout: 50 },                      // milliseconds until a listed segment is asked for
    liveCatchup: { enabled: true, playbackRate: { min: -0.05, max: 0.1 } },
    retryAttempts: { MPD: 0 },
    utcSynchronization: {
      timeBetweenSyncAttempts: 5,  // seconds; it takes longer by itself when the clocks agree
      backgroundAttempts: 0,
      enableBackgroundSyncAfterSegmentDownloadError: false,
    },
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

// What an outage has left behind it is not counted: `whole` seconds are listed without a gap.
function readManifest(text) {
  const root = new DOMParser().parseFromString(text, "application/xml").documentElement;
  const listed = [...root.querySelectorAll("S")].map((each) => ["t", "d"].map((name) => Number(each.getAttribute(name))));
  const gap = listed.findLastIndex(([t, d], i) => i + 1 < listed.length && listed[i + 1][0] !== t + d);
  const lengths = listed.slice(gap + 1).map(([, d]) => d / 1000);
  return {
    id: root.id,
    codecs: root.querySelector("Representation").getAttribute("codecs"),
    newest: listed.at(-1)[0],
    longest: Math.max(...lengths),
    whole: lengths.reduce((sum, each) => sum + each, 0),
  };
}

class Film {
  // place: where the video element goes. playerAddress: none when the program was built without. shows(yes) is told
  // whether there are pictures, cannot(why) that there will be none, once.
  constructor(place, name, address, playerAddress, shows, cannot) {
    Object.assign(this, { place, name, address, playerAddress, shows, cannot, attempts: 0, error: "" });
    this.life = new AbortController();
    this.wait();
  }

  stop() {
    this.life.abort();
    this.end();
  }

  end() {
    const { player, video } = this;
    this.player = this.video = null;
    if (!player) return;
    clearInterval(this.looking);
    player.reset();
    video.remove();
    setTimeout(() => player.destroy(), 5000);  // it is silent as long as it lives, and has promises to hear of
  }

  // Until the manifest lists something new, and enough to begin: pictures that did not go on do so then.
  async wait() {
    try {
      const media = globalThis.ManagedMediaSource ?? globalThis.MediaSource;
      if (!media) throw new Error("this browser takes no media from a page");
      if (!this.playerAddress) throw new Error("this build is without dash.js");
      await loadPlayer(this.playerAddress);
      if (this.attempts === mostAttempts) throw new Error(this.error || "the player shows nothing");
      let found = null;
      const fits = () => found.whole >= found.longest + behind && (found.id !== this.id || found.newest !== this.newest);
      do {
        found = await this.ask();
        if (this.life.signal.aborted) return;
      } while (!found || !fits());
      if (!media.isTypeSupported(`video/mp4; codecs="${found.codecs}"`))
        throw new Error("this browser does not play " + found.codecs);
      this.play(found);
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

  // Each time with an element of its own: a player goes on listening to the one it had.
  play({ id, newest, longest }) {
    const video = document.createElement("video");
    Object.assign(video, { muted: true, playsInline: true, disableRemotePlayback: true, hidden: true });
    video.ariaLabel = "Film of " + this.name;
    this.place.prepend(video);
    const player = dashjs.MediaPlayer().create();
    Object.assign(this, { video, player, id, newest });
    player.clearDefaultUTCTimingSources();  // they are on other hosts; the manifest has its own
    player.updateSettings(playerSettings);
    player.updateSettings({ streaming: { delay: { liveDelay: longest + behind } } });
    player.addRequestInterceptor(async (request) => {
      if (request.url.endsWith(".mpd")) request.headers = { ...request.headers, "Cache-Control": "no-cache" };
      return request;
    });
    player.on("error", ({ error }) => { this.error = error?.message ?? String(error); });
    player.initialize(video, this.address, true);
    ++this.attempts;
    this.watch(longest * 1000);
  }

  // Asks for the manifest when a new segment is due: dash.js itself does so too seldom to stay close behind. Before the
  // first one has come it cannot be asked.
  watch(length) {
    const { video, player } = this;
    let moved = Date.now() + longestStart - longestStill, time = 0, asked = 0, due = Infinity;
    player.on("manifestLoaded", ({ data }) => {
      if (player !== this.player || !data) return;
      // Parameter sets have changed, or the camera has started anew: the time of this manifest begins elsewhere.
      if (data.id !== this.id) return this.again();
      // dash.js reads the clock late, and in whole seconds.
      const [clock] = data.UTCTiming, ahead = new Date(clock.value) - Date.now();
      Object.defineProperty(clock, "value", { get: () => new Date(Date.now() + ahead).toISOString() });
      const newest = data.Period[0].AdaptationSet[0].SegmentTemplate.SegmentTimeline.S.at(-1).t;
      due = newest === this.newest ? 0 : asked + length - lookEvery;
      this.newest = newest;
    });
    this.looking = setInterval(() => {
      if (video.currentTime !== time && video.readyState > 1) {
        if (time) {  // the first step is to where it begins
          this.attempts = 0;
          video.hidden = false;
          this.shows(true);
        }
        time = video.currentTime;
        moved = Math.max(moved, Date.now());
      } else if (Date.now() - moved > longestStill) {
        return this.again();
      }
      if (Date.now() < due) return;
      asked = Date.now();
      due = asked + askAgain;  // when no answer comes
      player.refreshManifest();
    }, lookEvery);
  }

  again() {
    this.end();
    this.shows(false);
    this.wait();
  }
}
