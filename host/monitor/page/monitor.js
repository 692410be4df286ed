// The page of the monitor: one stream brings the state of all sources and their pictures, and requests change things.

const find = (selector, within = document) => within.querySelector(selector);
const wall = find("#wall"), dialog = find("#large"), log = find("#log");
const MostLines = 200, HoldTime = 1500, LeastLevel = -60, LeastWidth = 16, Retry = 1000;

const tiles = new Map();  // of the sources' names: views
let large = null;         // the enlarged view
let stream = null;        // what ends the present one

// ---- What is shown of a source ----

class View {
  constructor(root, source) {
    this.root = root;
    this.source = source;
    this.state = {};
    this.isSeen = false;
    this.meters = [...root.querySelectorAll(".meter")];
    this.holds = this.meters.map(() => ({level: 0, since: 0}));
    this.canvas = find("canvas", root);
    this.context = this.canvas.getContext("2d", {alpha: false});
    this.context.fillRect(0, 0, this.canvas.width, this.canvas.height);
  }

  /** Draws a JPEG file; one that comes while another is decoded is left out. */
  async draw(bytes) {
    if (this.isDecoding) return;
    this.isDecoding = true;
    try {
      const picture = await createImageBitmap(new Blob([bytes], {type: "image/jpeg"}));
      if (this.canvas.width !== picture.width) this.canvas.width = picture.width;
      if (this.canvas.height !== picture.height) this.canvas.height = picture.height;
      this.context.drawImage(picture, 0, 0);
      picture.close();
      if (!this.isSeen) find(".notice", this.root).textContent = "";
      this.isSeen = true;
    } catch {
      // the next one may be whole
    } finally {
      this.isDecoding = false;
    }
  }

  update(state) {
    this.state = state;
    const {root} = this;
    const put = (selector, text) => {
      const element = find(selector, root);
      if (element.textContent !== text) element.textContent = text;
      return element;
    };
    const isSlow = state.video && state.nominal > 0 && state.rate < 0.95 * state.nominal;
    put(".rate", state.video ? `${state.rate.toFixed(1)} fps` : "").classList.toggle("low", isSlow);
    put(".format", formatOf(state));
    const drops = dropsOf(state);
    put(".drops", drops || "no drops").classList.toggle("some", drops !== "");
    const waiting = state.video ? (this.isSeen ? "" : "waiting for a picture") : "sound only";
    put(".notice", state.error || waiting).classList.toggle("error", state.error !== "");
    this.#putBadges(state.signal);
    root.classList.toggle("recording", "recording" in state);
    root.classList.toggle("troubled", state.error !== "" || state.signal.some(name => name !== "silent"));
    root.classList.toggle("stopped", state.error !== "" || (state.video && state.rate === 0));
    root.classList.toggle("soundless", !state.audio);
    this.#meter(state);
  }

  /** What is wrong with picture or sound, in a word each. */
  #putBadges(names) {
    const badges = find(".badges", this.root);
    if (badges.textContent === names.join("")) return;
    badges.replaceChildren(...names.map(name => {
      const badge = document.createElement("span");
      badge.className = name;
      badge.textContent = name;
      return badge;
    }));
  }

  /** Peaks rise at once, and are held for a moment before they fall. */
  #meter(state) {
    const now = performance.now();
    this.meters.forEach((meter, channel) => {
      const [peak, rms] = state.levels[channel].map(decibels => Math.max(0, 1 - decibels / LeastLevel));
      const hold = this.holds[channel];
      if (peak >= hold.level) Object.assign(hold, {level: peak, since: now});
      else if (now - hold.since > HoldTime) hold.level = Math.max(peak, hold.level - 0.03);
      meter.style.setProperty("--level", Math.min(1, (peak + rms) / 2).toFixed(3));
      meter.style.setProperty("--hold", Math.min(1, hold.level).toFixed(3));
    });
  }
}

function formatOf(state) {
  const parts = [];
  if (state.width > 0) parts.push(`${state.width} × ${state.height}`);
  if (state.nominal > 0) parts.push(`of ${+state.nominal.toFixed(2)} fps`);
  if (state.audio) {
    const peak = Math.max(state.levels[0][0], state.levels[1][0]);
    parts.push(peak <= -96 ? "silent" : `${peak.toFixed(0)} dB`);
  }
  return parts.join(" · ");
}

function dropsOf(state) {
  const parts = [];
  for (const [medium, counts] of Object.entries(state.drops)) {
    const what = medium === "picture" ? "pictures" : "sound buffers";
    for (const [reason, count] of Object.entries(counts)) {
      if (reason !== "stopped") parts.push(`${count} ${what} ${reason.replaceAll("_", " ")}`);
    }
  }
  return parts.join(", ");
}

// ---- The wall ----

function showStates(states) {
  const present = new Set(states.map(state => state.id));
  for (const [source, view] of tiles) {
    if (present.has(source)) continue;
    if (large?.source === source) dialog.close();
    view.root.remove();
    tiles.delete(source);
  }
  states.forEach((state, position) => {
    const view = tiles.get(state.id) ?? addTile(state.id);
    if (wall.children[position] !== view.root) wall.insertBefore(view.root, wall.children[position] ?? null);
    view.update(state);
    if (large?.source === state.id) {
      large.update(state);
      showRecording(state);
    }
  });
  arrange();
  find("#empty").hidden = states.length > 0;
  const recordings = states.filter(state => state.recording).length;
  report(`${states.length} ${states.length === 1 ? "source" : "sources"}` + (recordings ? `, ${recordings} recording` : ""));
}

/** Tiles as large as lets all be seen at once, or as small as can be read. */
function arrange() {
  const em = parseFloat(getComputedStyle(document.documentElement).fontSize), gap = 0.8 * em;
  const width = wall.clientWidth - 2 * em, height = wall.clientHeight - 0.4 * em, count = wall.children.length;
  const beside = 4.5 * em, below = 5.1 * em;  // what a tile has besides its picture, of 16:9
  let best = {columns: Math.max(1, Math.floor(width / (LeastWidth * em + gap))), size: 0};
  best.size = (width + gap) / best.columns - gap;
  for (let columns = 1, most = 0; columns <= count; ++columns) {
    const rows = Math.ceil(count / columns);
    const size = Math.min((width + gap) / columns - gap, ((height + gap) / rows - gap - below) * 16 / 9 + beside);
    if (size < LeastWidth * em || size <= most) continue;
    best = {columns, size};
    most = size;
  }
  const layout = `repeat(${best.columns}, ${Math.floor(best.size)}px)`;
  if (wall.style.gridTemplateColumns !== layout) wall.style.gridTemplateColumns = layout;
}
addEventListener("resize", arrange);

function addTile(source) {
  const root = find("#tile").content.cloneNode(true).firstElementChild;
  find(".name", root).textContent = source;
  root.setAttribute("aria-label", `${source}: enlarge`);
  root.addEventListener("click", () => enlarge(source));
  const view = new View(root, source);
  tiles.set(source, view);
  return view;
}

function report(text, isLost = false) {
  const summary = find("#summary");
  if (summary.textContent !== text) summary.textContent = text;
  summary.classList.toggle("lost", isLost);
}

function showLines(lines) {
  const isAtEnd = log.scrollHeight - log.scrollTop - log.clientHeight < 40;
  for (const {time, kind, text} of lines) {
    const line = document.createElement("li");
    const stamp = document.createElement("time");
    stamp.textContent = time;
    line.className = kind;
    line.append(stamp, kind === "log" || kind === "refusal" ? text : `${kind}  ${text}`);
    log.append(line);
  }
  while (log.children.length > MostLines) log.firstElementChild.remove();
  if (isAtEnd) log.scrollTop = log.scrollHeight;
}

wall.addEventListener("keydown", event => {
  const buttons = [...wall.children], at = buttons.indexOf(document.activeElement);
  const columns = getComputedStyle(wall).gridTemplateColumns.split(" ").length;
  const step = {ArrowRight: 1, ArrowLeft: -1, ArrowDown: columns, ArrowUp: -columns}[event.key];
  if (step === undefined || at < 0) return;
  event.preventDefault();
  buttons[at + step]?.focus();
});

// ---- The enlarged source ----

function enlarge(source) {
  const query = `source=${encodeURIComponent(source)}`;
  const tile = tiles.get(source);
  large = new View(dialog, source);
  large.canvas.width = tile.canvas.width;
  large.canvas.height = tile.canvas.height;
  large.context.drawImage(tile.canvas, 0, 0);  // until a larger picture comes
  large.isSeen = tile.isSeen;
  find("#large-name").textContent = source;
  find("#png").href = `snapshot?${query}&format=png`;
  find("#jpg").href = `snapshot?${query}&format=jpg`;
  for (const link of ["#png", "#jpg"]) find(link).hidden = !tile.state.video;
  answer("");
  large.update(tile.state);
  showRecording(tile.state);
  showSettings([]);
  ask(`settings?${query}`).then(showSettings);
  dialog.showModal();
  connect();
}

dialog.addEventListener("close", () => {
  const source = large.source;
  large = null;
  connect();
  tiles.get(source)?.root.focus();
});
find("#close").addEventListener("click", () => dialog.close());

function showSettings(settings) {
  const fields = find("#settings");
  if (!Array.isArray(settings)) return;
  const shown = settings.map(({name, selected, choices}) => {
    const label = document.createElement("label"), select = document.createElement("select");
    for (const {index, title} of choices) select.add(new Option(title, index, false, index === selected));
    if (selected === null) select.selectedIndex = -1;
    select.disabled = choices.length < 2;
    select.addEventListener("change", () => set(name, Number(select.value)));
    label.append(name, select);
    return label;
  });
  const focused = [...fields.querySelectorAll("select")].indexOf(document.activeElement);
  fields.replaceChildren(fields.firstElementChild, ...shown);
  fields.querySelectorAll("select")[focused]?.focus();
}

async function set(name, index) {
  const {source} = large;
  answer(`${name} …`);
  const settings = await ask("settings", {source, name, index});
  if (settings) answer("");
  const current = settings ?? await ask(`settings?source=${encodeURIComponent(source)}`, undefined, true);
  if (large?.source === source) showSettings(current);
}

function showRecording({recording}) {
  find("#record").textContent = recording ? "Stop" : "Record";
  find("#ending").disabled = Boolean(recording);
  const {seconds, bytes, missing, file} = recording ?? {};
  const text = recording && `${clockOf(seconds)}  ${(bytes / 1e6).toFixed(1)} MB` + (missing ? `, ${missing} missing` : "");
  find("#progress").textContent = recording ? `${text}  ${file}` : "";
}

find("#record").addEventListener("click", async () => {
  const {source, state} = large;
  const done = state.recording ? await ask("stop", {source}) : await ask("record", {source, ending: find("#ending").value});
  if (done) answer(done.report ?? "");
});

function clockOf(seconds) {
  const two = number => String(Math.floor(number)).padStart(2, "0");
  return `${two(seconds / 3600)}:${two(seconds / 60 % 60)}:${two(seconds % 60)}`;
}

function answer(text, isFailed = false) {
  find("#answer").textContent = text;
  find("#answer").classList.toggle("failed", isFailed);
}

/** Null where it fails, of which the reason is shown. */
async function ask(path, body, isQuiet = false) {
  try {
    const headers = {"Content-Type": "application/json"};
    const response = await fetch(path, body ? {method: "POST", headers, body: JSON.stringify(body)} : {});
    const content = await response.json();
    if (response.ok) return content;
    if (!isQuiet) answer(content.error, true);
  } catch {
    if (!isQuiet) answer("There is no connection.", true);
  }
  return null;
}

// ---- The stream ----

const text = new TextDecoder();

function take(message) {
  const nameEnd = 3 + new DataView(message.buffer, message.byteOffset).getUint16(1);
  const source = text.decode(message.subarray(3, nameEnd)), content = message.subarray(nameEnd);
  switch (String.fromCharCode(message[0])) {
    case "s": return showStates(JSON.parse(text.decode(content)));
    case "l": return showLines(JSON.parse(text.decode(content)));
    case "t": return void tiles.get(source)?.draw(content);
    case "e": if (large?.source === source) large.draw(content);
  }
}

async function read(response) {
  const reader = response.body.getReader();
  let rest = new Uint8Array(0);
  for (;;) {
    const {done, value} = await reader.read();
    if (done) return;
    const bytes = new Uint8Array(rest.length + value.length);
    bytes.set(rest);
    bytes.set(value, rest.length);
    let at = 0;
    for (;;) {
      if (bytes.length - at < 4) break;
      const length = new DataView(bytes.buffer, at).getUint32(0);
      if (bytes.length - at - 4 < length) break;
      take(bytes.subarray(at + 4, at + 4 + length));
      at += 4 + length;
    }
    rest = bytes.subarray(at);
  }
}

/** In place of the stream before, and again whenever it breaks. */
async function connect() {
  stream?.abort();
  const mine = stream = new AbortController();
  while (stream === mine) {
    try {
      const query = large ? `?enlarged=${encodeURIComponent(large.source)}` : "";
      const response = await fetch(`stream${query}`, {signal: mine.signal});
      if (!response.ok) report((await response.text()).trim(), true);
      else {
        log.replaceChildren();
        await read(response);
      }
    } catch {
      // told below
    }
    if (stream !== mine) return;
    report("no connection", true);
    await new Promise(resolve => setTimeout(resolve, Retry));
  }
}

setInterval(() => { find("#clock").textContent = new Date().toTimeString().slice(0, 8); }, 250);
history.replaceState(null, "", location.pathname);  // the token stays out of sight
connect();
