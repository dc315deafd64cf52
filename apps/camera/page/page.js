// The page of the camera: films, pictures, addresses, what the services send. It asks for /status.json once a second.
"use strict";

const mostLive = 4;          // films and pictures: browsers open six connections to a host; two are left for the rest
const snapshotEvery = 1500;  // milliseconds
const renewEvery = 60000;    // a live picture whose connection has ended does not say so
const patience = 10000;      // with a camera that does not answer
const mostPoints = 120;      // seconds that a plot shows

const plots = {
  viewers: { of: (now) => now.viewers, text: (v) => String(v) },
  rate: { of: (now) => now.bit_rate / 1e6, text: (v) => v.toFixed(1) + " Mbit/s" },
  frames: { of: (now) => now.frame_rate, text: (v) => v.toFixed(0) + " /s" },
};

const points = [];  // { time, services: { name: { viewers, rate, frames } } }
const cards = new Map();
let last = null;

const element = (id) => document.getElementById(id);

// What reads the page aloud is told of changes alone.
function setState(state, text) {
  if (element("state").textContent === text) return;
  element("state").dataset.state = state;
  element("state").textContent = text;
}

async function copyText(text, button) {
  let copied = false;
  try {
    await navigator.clipboard.writeText(text);
    copied = true;
  } catch {
    // Without HTTPS there is no clipboard: the text is selected and copied the old way.
    const range = document.createRange();
    range.selectNodeContents(button.previousElementSibling);
    const selection = getSelection();
    selection.removeAllRanges();
    selection.addRange(range);
    copied = document.execCommand("copy");
  }
  const say = (word) => {
    button.textContent = word;
    button.setAttribute("aria-label", `${word} ${text}`);
  };
  say(copied ? "Copied" : "Selected");
  setTimeout(say, 1500, "Copy");
}

function addressItem(address) {
  const item = element("address").content.firstElementChild.cloneNode(true);
  const button = item.querySelector("button");
  item.querySelector("code").append(...address.split(/(?<=\/)/).flatMap((part) => [part, document.createElement("wbr")]));
  button.setAttribute("aria-label", "Copy " + address);
  button.addEventListener("click", () => copyText(address, button));
  return item;
}

function makeCard(name) {
  const root = element("stream").content.firstElementChild.cloneNode(true);
  root.querySelector("h3").textContent = name;
  element("streams").append(root);
  const [image, note, why] = ["img", ".note", ".why"].map((each) => root.querySelector(each));
  return { root, image, note, why, shown: "", mode: "", wished: 0 };
}

const pathOf = (name) => "/" + encodeURIComponent(name).replaceAll("%2F", "/");
const isFilm = (stream) => stream.addresses.some((each) => each.endsWith("/manifest.mpd"));

const notes = {
  none: "Nothing that a browser shows. A player shows it by the addresses below.",
  waiting: "Waiting for the source.",
  hidden: "Waiting for a picture.",
  full: `${mostLive} streams are live at a time. `,
};

// What a card shows: a film; live pictures, which keep a connection; a snapshot, which asks again when the one before
// has come; or a note.
function showPicture(card, stream, mode) {
  if (card.mode === mode) {
    if (mode === "live" && Date.now() > card.renew) card.ask();
    return;
  }
  card.mode = mode;
  clearPicture(card);
  if (mode === "film") showFilm(card, stream);
  else if (mode === "live" || mode === "snapshot") showImage(card, stream, mode);
  else card.note.textContent = notes[mode];
  if (mode === "full") card.note.append(wishButton(card, stream.name));
}

function clearPicture(card) {
  const { image, note } = card;
  clearTimeout(card.timer);
  card.film?.stop();
  card.film = null;
  image.onload = image.onerror = null;
  image.removeAttribute("src");
  image.hidden = true;
  note.hidden = false;
}

function showFilm(card, stream) {
  const { note } = card;
  note.textContent = "Waiting for the film.";
  const shows = (yes) => {
    note.hidden = yes;
    note.textContent = notes.waiting;
  };
  const address = pathOf(stream.name) + "/manifest.mpd";
  card.film = new Film(note.parentElement, stream.name, address, last.player, shows, (why) => {
    card.reason = why;
    showStreams(last.streams);
  });
}

function showImage(card, stream, mode) {
  const { image, note } = card;
  note.textContent = "Waiting for a picture.";
  image.alt = "Picture of " + stream.name;
  const base = pathOf(isFilm(stream) ? stream.pictures : stream.name);
  const shows = (yes) => { image.hidden = !yes; note.hidden = yes; };
  const again = () => { card.timer = setTimeout(ask, snapshotEvery); };
  const ask = () => {
    card.renew = Date.now() + renewEvery;
    image.src = base + (mode === "live" ? ".mjpeg" : ".jpg") + "?" + Date.now();
  };
  card.ask = ask;
  image.onload = () => { shows(true); if (mode === "snapshot") again(); };
  image.onerror = () => { shows(false); again(); };
  ask();
}

// Films beyond those that are live: the one that is wished goes before them.
function wishButton(card, name) {
  const button = document.createElement("button");
  button.type = "button";
  button.textContent = "Play";
  button.setAttribute("aria-label", "Play " + name);
  button.addEventListener("click", () => {
    card.wished = Date.now();
    showStreams(last.streams);
  });
  return button;
}

// Why there is no film, beside what is shown in its place.
function showReason({ why, reason }, stream) {
  why.hidden = !reason;
  const instead = stream.pictures ? ` These are the JPEG pictures of ${stream.pictures}.` : "";
  const text = `No video by DASH: ${reason}.${instead}`;
  if (reason && why.textContent !== text) why.textContent = text;
}

// After the camera was away: what it sent has ended.
function renewPictures() {
  for (const card of cards.values()) {
    card.mode = "";
    card.reason = "";
  }
}

function formatText(formats) {
  const parts = [];
  const { video, audio, meta } = formats;
  if (video) parts.push(video.format + (video.width ? ` ${video.width}×${video.height}` : ""));
  if (audio) parts.push(audio.format + (audio.rate ? ` ${audio.rate / 1000} kHz` : ""));
  if (meta) parts.push("metadata");
  return parts.join(" · ") || "waiting for the source";
}

function showStreams(streams) {
  const names = new Set(streams.map((stream) => stream.name));
  for (const [name, card] of cards) {
    if (names.has(name)) continue;
    clearPicture(card);
    card.root.remove();
    cards.delete(name);
  }
  for (const stream of streams) {
    if (!cards.has(stream.name)) cards.set(stream.name, makeCard(stream.name));
    const card = cards.get(stream.name);
    const text = JSON.stringify([stream.formats, stream.addresses]);
    if (card.shown !== text) {
      card.shown = text;
      card.root.querySelector(".formats").textContent = formatText(stream.formats);
      card.root.querySelector(".addresses").replaceChildren(...stream.addresses.map(addressItem));
    }
  }
  const able = streams.filter((stream) => idleMode(stream) === "snapshot" || idleMode(stream) === "full");
  able.sort((a, b) => cards.get(b.name).wished - cards.get(a.name).wished);
  const live = able.slice(0, document.hidden ? 0 : mostLive);  // a hidden page leaves the connections to the others
  for (const stream of streams) {
    const card = cards.get(stream.name);
    const idle = idleMode(stream);
    const film = isFilm(stream) && !card.reason;
    showReason(card, stream);
    showPicture(card, stream, !live.includes(stream) ? idle : film ? "film" : "live");
  }
}

// What is shown of a stream that is not live.
function idleMode(stream) {
  if (isFilm(stream) && !cards.get(stream.name).reason) return document.hidden ? "hidden" : "full";
  if (isFilm(stream) ? stream.pictures : stream.formats.video?.format === "JPEG") return "snapshot";
  return stream.formats.audio || stream.formats.video ? "none" : "waiting";
}

function note(status) {
  const now = status;
  const was = last;
  last = now;
  if (was && now.started !== was.started) renewPictures();
  if (!was || now.time <= was.time) return;
  const services = {};
  for (const service of now.services)
    services[service.name] = Object.fromEntries(Object.entries(plots).map(([name, plot]) => [name, plot.of(service)]));
  points.push({ time: now.time, services });
  if (points.length > mostPoints) points.shift();
}

function drawPlot(figure, name, services) {
  const canvas = figure.querySelector("canvas");
  const scale = devicePixelRatio || 1;
  const width = canvas.clientWidth;
  const height = canvas.clientHeight;
  canvas.width = width * scale;
  canvas.height = height * scale;
  const style = getComputedStyle(document.documentElement);
  const em = parseFloat(style.fontSize);
  const pen = canvas.getContext("2d");
  pen.scale(scale, scale);
  const values = points.flatMap((point) => Object.values(point.services).map((service) => service[name]));
  const top = Math.max(1, ...values) * 1.1;
  const x = (i) => width - (points.length - 1 - i) * (width / (mostPoints - 1));
  const y = (value) => height - 2 - (value / top) * (height - em);
  pen.strokeStyle = pen.fillStyle = style.getPropertyValue("--line");
  pen.lineWidth = em / 16;
  for (const share of [0, 0.5, 1]) {
    pen.beginPath();
    pen.moveTo(0, y(top / 1.1 * share));
    pen.lineTo(width, y(top / 1.1 * share));
    pen.stroke();
  }
  pen.fillStyle = style.getPropertyValue("--quiet");
  pen.font = `${0.75 * em}px system-ui, sans-serif`;
  pen.fillText(plots[name].text(top / 1.1), 2, 0.7 * em);
  services.forEach((service, i) => {
    pen.strokeStyle = style.getPropertyValue(`--plot-${i % 5}`);
    pen.lineWidth = em / 8;
    pen.beginPath();
    points.forEach((point, at) => {
      if (point.services[service]) pen.lineTo(x(at), y(point.services[service][name]));
    });
    pen.stroke();
  });
  tellNewest(figure, name, services);
}

// The newest values stand beside the plot. A screen reader is told them and the highest ones in place of it.
function tellNewest(figure, name, services) {
  const { text } = plots[name];
  const title = figure.querySelector("figcaption").firstChild.data.trim();
  const all = (service) => points.map((point) => point.services[service]?.[name] ?? 0);
  const newest = services.map((service) => all(service).at(-1) ?? 0);
  figure.querySelector("figcaption span").textContent = text(newest.reduce((sum, value) => sum + value, 0));
  figure.querySelector(".legend").replaceChildren(...services.map((service, i) => {
    const item = document.createElement("span");
    item.textContent = `${service.toUpperCase()} ${text(newest[i])}`;
    item.style.setProperty("--line-color", `var(--plot-${i % 5})`);
    return item;
  }));
  figure.querySelector("canvas").ariaLabel = `${title} over the last two minutes. ` + services.map((service, i) =>
    `${service.toUpperCase()} ${text(newest[i])}, at most ${text(Math.max(0, ...all(service)))}.`).join(" ");
}

function drawPlots() {
  const services = last ? last.services.map((service) => service.name) : [];
  for (const figure of document.querySelectorAll("[data-plot]")) drawPlot(figure, figure.dataset.plot, services);
}

async function ask() {
  try {
    const answer = await fetch("/status.json", { cache: "no-store", signal: AbortSignal.timeout(patience) });
    if (!answer.ok) throw new Error(String(answer.status));
    const status = await answer.json();
    note(status);
    showStreams(status.streams);
    drawPlots();
    element("version").textContent = status.version;
    const viewers = status.services.reduce((all, service) => all + service.viewers, 0);
    setState("live", viewers === 1 ? "1 viewer" : `${viewers} viewers`);
  } catch {
    setState("lost", "camera not reached");
    renewPictures();
  }
  setTimeout(ask, 1000);
}

addEventListener("resize", drawPlots);
addEventListener("visibilitychange", () => showStreams(last?.streams ?? []));
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", drawPlots);
ask();
