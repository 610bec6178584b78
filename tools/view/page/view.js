// The page: from the stream to strips, and from the user to both.
import { decode, markRequest, EVENT } from "/stream.js";
import { Channel, Strips, BLANK } from "/strips.js";

const LEAST_STRIP = 15; // CSS pixels
const MOST_STRIP = 90;
const MANY_STRIPS = 64; // beyond, each picture shows every other headset's news: still 30 in a second
const MOST_EVENTS = 200;
const RECENT = 10; // seconds for which a loss counts as one of now
const SILENCE = 5000; // milliseconds without any message, of which one comes each second
const RETRY = [1000, 15000]; // milliseconds until the next try: the first time, and at most
const $ = (id) => document.getElementById(id);
const make = (tag, properties = {}, ...children) => {
    const element = Object.assign(document.createElement(tag), properties);
    element.append(...children);
    return element;
};

const page = {
    headsets: new Map(), // by number
    marks: [],
    markTimes: [], // {time, text}, newest last
    recording: false,
    goesOn: false,
    paused: false,
    trouble: null, // of the dongle
    troubleTime: null, // when the last one was
    link: "connecting", // connecting, open, closed, ended
    lostText: null, // why it is closed
    retry: RETRY[0],
    heard: 0, // when the last message came
    socket: null,
    offsets: [], // [second, greatest difference between the data's clock and this page's] of the last seconds
    time: null, // shown at the sweep's head
    newest: -Infinity, // when the last packet came
    delay: 0.15,
    skipped: 0,
    ready: false,
};
const seconds = () => Number($("seconds").value);
const gain = () => Number($("gain").value);

// ---------------------------------------------------------------------------------------------- headsets

class Headset {
    constructor(entry) {
        this.number = entry.number;
        this.name = entry.name || entry.address || `headset ${entry.number}`;
        this.address = entry.address;
        this.shown = true;
        this.channels = [];
        this.status = null;
        this.losses = []; // [time, packets sent, packets lost] of the last seconds
        this.build();
    }

    build() {
        this.dot = make("span", { className: "dot" });
        this.figures = {};
        for (const name of ["rate", "loss", "battery"]) {
            this.figures[name] = make("span", { className: name });
        }
        this.figures.battery.title = "Battery: its last report, 0 to 255";
        this.summary = make("summary", { title: "Choose channels" }, "channels");
        this.list = make("div");
        this.chooser = make("details", { className: "channels" }, this.summary, this.list);
        this.chooser.addEventListener("toggle", () => this.card.classList.toggle("open", this.chooser.open));
        this.chooser.addEventListener("keydown", (event) => {
            if (event.key === "Escape") {
                this.chooser.open = false;
                this.summary.focus();
            }
        });
        this.canvas = make("canvas");
        this.canvas.setAttribute("role", "img");
        this.canvas.setAttribute("aria-label", `Signals of ${this.name}`);
        this.names = make("ul", { className: "names" });
        this.head = make("div", { className: "head" });
        this.screen = make("div", { className: "screen" }, this.canvas, this.names, this.head);
        this.card = make("section", { className: "card" },
            make("div", { className: "title" }, this.dot, make("h2", { textContent: this.name, title: this.address }),
                make("span", { className: "address", textContent: this.name === this.address ? "" : this.address }),
                make("span", { className: "figures" }, ...Object.values(this.figures)), this.chooser), this.screen);
        this.strips = new Strips(this.canvas, this.channels);
        this.chipDot = make("span", { className: "dot" });
        this.chip = make("button", { title: "Hide or show it; double click: only this one" }, this.chipDot, this.name);
        this.chip.setAttribute("aria-pressed", "true");
        this.chip.addEventListener("click", () => show(this, !this.shown));
        this.chip.addEventListener("dblclick", () => only(this));
        this.card.headset = this;
        watcher.observe(this.card);
    }

    channel(number) {
        let channel = this.channels.find((one) => one.number === number);
        if (!channel) {
            channel = new Channel(number);
            this.channels.push(channel);
            this.channels.sort((a, b) => a.number - b.number);
            this.buildChannels();
            layOut();
        }
        return channel;
    }

    buildChannels() {
        this.list.replaceChildren(...this.channels.map((channel) => {
            const box = make("input", { type: "checkbox", checked: channel.shown });
            box.addEventListener("change", () => {
                channel.shown = box.checked;
                this.nameStrips();
                layOut();
            });
            return make("label", {}, box, `ch${channel.number}`);
        }), this.allButton());
        this.nameStrips();
    }

    allButton() {
        const button = make("button", { type: "button", textContent: "all, or none" });
        button.addEventListener("click", () => {
            const all = this.channels.every((channel) => channel.shown);
            this.channels.forEach((channel) => (channel.shown = !all));
            this.buildChannels();
            layOut();
        });
        return button;
    }

    nameStrips() {
        const shown = this.strips.shown();
        this.summary.textContent =
            shown.length === this.channels.length ? `${shown.length} ch` : `${shown.length} of ${this.channels.length} ch`;
        this.labels = shown.map(() => make("span"));
        this.names.replaceChildren(...shown.map((channel, i) =>
            make("li", {}, make("b", { textContent: `ch${channel.number}` }), this.labels[i])));
    }

    take(packet) {
        const multi = packet.channels > 1 || (packet.flags & 1) !== 0;
        let redraw = false;
        for (let i = 0; i < packet.channels; ++i) {
            redraw = this.channel(multi ? i : packet.channel).take(packet, i, packet.channels) || redraw;
        }
        this.strips.dirty ||= redraw && !page.paused;
    }

    leave() {
        this.channels.forEach((channel) => (channel.away = true));
    }

    update(status, time) {
        this.status = status;
        if (!status.connected) {
            this.leave(); // also when that was before this page came
        }
        if (status.fastest > 0 && status.fastest - status.slowest < status.fastest * 0.01) {
            this.channels.forEach((channel) => channel.rule((status.fastest + status.slowest) / 2, time));
        }
        this.losses.push([time, status.packets + status.lost, status.lost]);
        while (this.losses.length > 1 && time - this.losses[0][0] > RECENT) {
            this.losses.shift();
        }
        const sent = status.packets + status.lost;
        const share = sent > 0 ? (100 * status.lost) / sent : 0;
        const lately = status.lost - this.losses[0][2];
        const gone = !status.connected;
        const silent = status.silent > 1.5;
        const rate = status.fastest - status.slowest < status.fastest * 0.01 ? status.fastest.toFixed(0) :
            `${status.slowest.toFixed(0)}–${status.fastest.toFixed(0)}`;
        this.figures.rate.textContent = gone ? "away" : silent ? `no data ${Math.floor(status.silent)} s` :
            status.fastest > 0 ? `${rate}/s` : "…";
        this.figures.rate.className = gone || silent ? "rate bad" : "rate";
        this.figures.rate.title = "Samples a second of each channel";
        this.figures.loss.textContent = `lost ${share === 0 ? "0" : share < 0.1 ? "<0.1" : share.toFixed(1)} %`;
        this.figures.loss.className = lately === 0 ? "loss" : share > 5 ? "loss much" : "loss some";
        this.figures.loss.title = `${status.lost} of ${sent} packets; ${lately} in the last ${RECENT} seconds`;
        this.figures.battery.textContent = status.battery < 0 ? "" : `bat. ${status.battery}`;
        const state = gone || silent ? "bad" : lately > 0 ? "warn" : "good";
        this.dot.className = this.chipDot.className = `dot ${state}`;
        this.dot.title = { bad: "no data", warn: "packets are being lost", good: "all is well" }[state];
        this.chip.setAttribute("aria-label", `${this.name}: ${this.dot.title}`);
        this.card.classList.toggle("bad", state === "bad");
        this.strips.shown().forEach((channel, i) => {
            this.labels[i].textContent = channel.span > 0 ? `±${Math.round(channel.span).toLocaleString("en")}` : "";
        });
    }
}

const watcher = new IntersectionObserver((entries) => {
    for (const entry of entries) {
        entry.target.headset.visible = entry.isIntersecting;
        entry.target.headset.strips.dirty = true;
    }
}, { rootMargin: "100px" });

function show(headset, shown) {
    headset.shown = shown;
    headset.chip.setAttribute("aria-pressed", String(shown));
    headset.card.hidden = !shown;
    layOut();
}

function only(headset) {
    for (const one of page.headsets.values()) {
        show(one, one === headset);
    }
}

// ---------------------------------------------------------------------------------------------- layout

let laidOut = false;
/** Asks for the layout before the next picture. */
function layOut() {
    laidOut = false;
}

function arrange() {
    laidOut = true;
    const shown = [...page.headsets.values()].filter((headset) => headset.shown);
    const width = document.documentElement.clientWidth - 24;
    const most = Math.max(1, Math.min(shown.length, Math.floor(width / 380)));
    const strips = Math.max(1, ...shown.map((headset) => headset.strips.shown().length));
    const around = $("cards").getBoundingClientRect().top + window.scrollY +
        document.querySelector("footer").offsetHeight + 12;
    const room = window.innerHeight - around;
    let best = { columns: 1, strip: 0, area: 0 };
    for (let columns = 1; columns <= most; ++columns) {
        const rows = Math.ceil(shown.length / columns);
        const strip = Math.min(MOST_STRIP, (room / rows - 40) / strips);
        // What does not fit is scrolled: then the more there is beside each other, the better.
        const area = strip < LEAST_STRIP ? columns * 1e-3 : strip * Math.min(width / columns, 1400);
        if (area > best.area) {
            best = { columns, strip, area };
        }
    }
    $("cards").style.setProperty("--columns", best.columns);
    const height = Math.max(best.strip, LEAST_STRIP);
    const style = getComputedStyle(document.documentElement);
    const colours = {};
    for (const name of ["trace", "mark", "lost", "away", "waiting", "skipped"]) {
        colours[name] = style.getPropertyValue(`--${name}`).trim();
    }
    for (const headset of shown) {
        const count = headset.strips.shown().length;
        headset.screen.style.setProperty("--height", `${Math.max(Math.round(height * count), 24)}px`);
        headset.screen.style.setProperty("--second", `${100 / seconds()}%`);
        headset.names.classList.toggle("small", height < 20);
    }
    page.strips = shown.reduce((sum, headset) => sum + headset.strips.shown().length, 0);
    for (const headset of shown) {
        headset.size = headset.screen.clientWidth;
        headset.strips.resize(headset.screen.clientWidth, headset.screen.clientHeight, window.devicePixelRatio, colours);
        headset.strips.marks = page.markTimes;
    }
}

// ---------------------------------------------------------------------------------------------- drawing

const figures = { cost: new Float64Array(1200), pause: new Float64Array(1200), count: 0, last: 0 };

/** The data's time now, as far as this page can know. */
function clock(now) {
    let offset = -Infinity;
    for (const [, greatest] of page.offsets) {
        offset = Math.max(offset, greatest);
    }
    return now * 1e-3 + offset;
}

function frame(now) {
    requestAnimationFrame(frame);
    const begun = performance.now();
    const turns = page.strips > MANY_STRIPS ? 2 : 1;
    if (!laidOut) {
        arrange();
    }
    if (page.offsets.length > 0) {
        if (!page.paused && (page.link === "open" || page.time < page.newest)) { // all that came is drawn
            const time = clock(begun) - page.delay;
            // Never back: what is drawn is drawn.
            page.time = page.time === null || time - page.time > 0 || page.time - time > 2 ? time : page.time;
        }
        const part = page.time / seconds();
        for (const headset of page.headsets.values()) {
            const turn = headset.strips.dirty || (headset.number + figures.count) % turns === 0;
            if (headset.shown && headset.visible && page.time !== null && turn) {
                if (!page.paused || headset.strips.dirty || headset.strips.gain !== gain() ||
                    headset.strips.window !== seconds()) {
                    headset.strips.draw(page.time, seconds(), gain());
                }
                headset.head.style.transform = `translateX(${((part - Math.floor(part)) * headset.size).toFixed(1)}px)`;
            }
        }
    }
    const at = figures.count % figures.cost.length;
    figures.cost[at] = performance.now() - begun;
    figures.pause[at] = figures.last > 0 ? now - figures.last : 0;
    figures.last = now;
    ++figures.count;
}

function percentile(values, share) {
    const sorted = [...values].sort((a, b) => a - b);
    return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * share))] ?? 0;
}

/** How fast this page draws, and what it has drawn: for measurements. */
window.velmora = {
    figures() {
        const count = Math.min(figures.count, figures.cost.length);
        return {
            frames: figures.count,
            costP95: percentile(figures.cost.subarray(0, count), 0.95),
            pauseP95: percentile(figures.pause.subarray(0, count), 0.95),
        };
    },
    restartFigures() {
        figures.count = figures.last = 0;
    },
    channels() {
        return [...page.headsets.values()].flatMap((headset) => headset.channels.map((channel) => ({
            address: headset.address, channel: channel.number, packets: channel.packets, missing: channel.missing,
            drawn: channel.drawn, rate: channel.rate, gaps: channel.gaps.map((gap) => ({ ...gap })),
            centre: channel.centre, span: channel.span,
        })));
    },
    ends: (address) => [...page.headsets.values()].find((one) => one.address === address)
        .channels.map((channel) => channel.end),
    /** Where a sample is drawn, in the canvas's pixels. */
    place(address, number, sample) {
        const headset = [...page.headsets.values()].find((one) => one.address === address);
        const row = headset.strips.shown().findIndex((one) => one.number === number);
        const channel = headset.strips.shown()[row];
        const time = channel.timeOf(sample);
        return {
            x: headset.strips.x(time), top: row * headset.strips.pitch, height: headset.strips.pitch,
            onScreen: time <= page.time && time > page.time - seconds() * (1 - BLANK * 2) && sample < channel.end,
            value: channel.value(sample), centre: channel.centre, span: channel.span,
        };
    },
    state: () => ({ link: page.link, paused: page.paused, time: page.time, delay: page.delay, skipped: page.skipped }),
};

// ---------------------------------------------------------------------------------------------- stream

const handlers = {
    hello(message) {
        const known = page.headsets;
        const same = known.size === message.headsets.length &&
            message.headsets.every((entry) => known.get(entry.number)?.address === entry.address);
        if (!same || page.started?.getTime() !== message.started.getTime()) {
            watcher.disconnect();
            page.headsets = new Map(message.headsets.map((entry) => [entry.number, new Headset(entry)]));
            page.markTimes = [];
            page.offsets = [];
            page.time = null;
            page.newest = -Infinity;
        }
        page.started = message.started;
        page.recording = message.recording;
        page.goesOn = message.goesOn;
        page.marks = message.marks;
        page.ready = true;
        $("empty").hidden = page.headsets.size > 0;
        const all = make("button", { textContent: "all", title: "0" });
        all.addEventListener("click", toggleAll);
        $("chips").replaceChildren(...(page.headsets.size > 1 ? [all] : []),
            ...[...page.headsets.values()].map((headset) => headset.chip));
        $("cards").replaceChildren(...[...page.headsets.values()].map((headset) => headset.card));
        buildMarks();
        layOut();
        tell();
    },
    samples(message) {
        const now = performance.now() * 1e-3;
        let newest = -Infinity;
        let longest = 0;
        for (const packet of message.packets) {
            const headset = page.headsets.get(packet.headset);
            if (headset) {
                headset.take(packet);
                newest = Math.max(newest, packet.time);
            }
        }
        for (const headset of page.headsets.values()) {
            for (const channel of headset.channels) {
                longest = Math.max(longest, Math.min(channel.packetSeconds, 1.5));
            }
        }
        page.newest = Math.max(page.newest, newest);
        if (newest > -Infinity) {
            const bucket = page.offsets[page.offsets.length - 1];
            if (bucket && now - bucket[0] < 1) {
                bucket[1] = Math.max(bucket[1], newest - now);
            } else {
                page.offsets.push([now, newest - now]);
                if (page.offsets.length > 6) {
                    page.offsets.shift();
                }
            }
        }
        page.delay = Math.max(0.08 + longest, page.delay - 0.002);
        if (page.trouble) {
            page.trouble = null;
            tell();
        }
    },
    status(message) {
        for (const status of message.headsets) {
            page.headsets.get(status.number)?.update(status, message.time);
        }
        const time = Math.max(0, message.time);
        $("clock").textContent = clockText(time);
        page.skippedLately = Math.max(0, (page.skippedLately ?? 0) - 1);
        tell();
    },
    event(message) {
        const headset = page.headsets.get(message.headset);
        const name = headset ? headset.name : message.text;
        if (message.code === EVENT.connected) {
            note(message.time, `${name} is connected`);
            page.trouble = null;
        } else if (message.code === EVENT.disconnected) {
            headset?.leave();
            note(message.time, `${name} left`);
        } else if (message.code === EVENT.restarted) {
            page.trouble = "The dongle has restarted and forgotten its headsets." +
                (page.goesOn ? " They are being connected again." : " Start velmora again.");
            noteTrouble(message.time, "the dongle restarted");
        } else if (message.code === EVENT.gone) {
            page.trouble = "The dongle is gone: it was unplugged or its port hung up." +
                (page.goesOn ? " Plug it in again, and this goes on." : " Plug it in and start velmora again.");
            noteTrouble(message.time, "the dongle is gone");
        } else if (message.code === EVENT.overrun) {
            note(message.time, "this computer does not keep up; packets are being dropped");
        } else if (message.code === EVENT.mark) {
            page.markTimes.push({ time: message.time, text: message.text });
            if (page.time !== null && message.time <= page.time) {
                redraw(); // its place has been drawn already
            }
            if (page.markTimes.length > MOST_EVENTS) {
                page.markTimes.shift();
            }
            note(message.time, `mark: ${message.text}`);
        }
        tell();
    },
    skipped(message) {
        page.skipped += message.packets;
        page.skippedLately = 5;
        note(null, `this screen was too slow for ${message.packets} packets; a recording has them`);
    },
    ended(message) {
        page.link = "ended";
        page.lostText = `velmora has ended: ${message.text}.`;
        tell();
    },
};

/** It is told again to each connection that begins while it lasts. */
function noteTrouble(time, text) {
    if (time !== page.troubleTime) {
        page.troubleTime = time;
        note(time, text);
    }
}

/** Draws all headsets anew, unless what is on the screen is to stay. */
function redraw() {
    for (const headset of page.headsets.values()) {
        headset.strips.dirty ||= !page.paused;
    }
}

function connect() {
    const socket = new WebSocket(`ws://${location.host}/stream`);
    page.socket = socket;
    socket.binaryType = "arraybuffer";
    socket.addEventListener("open", () => {
        page.link = "open";
        page.heard = performance.now();
        tell();
    });
    socket.addEventListener("message", (event) => {
        if (page.socket === socket) {
            receive(event.data);
        }
    });
    socket.addEventListener("close", () => {
        if (page.socket === socket) {
            lose("The connection to velmora is lost. Trying again.");
        }
    });
}

function receive(data) {
    page.heard = performance.now();
    try {
        const message = decode(data);
        if (message) {
            handlers[message.kind](message);
        }
        page.retry = RETRY[0];
    } catch (problem) {
        lose(`This page and velmora do not understand each other: ${problem.message}.`);
        throw problem;
    }
}

/** No more comes from this connection. Tries another after a while, each time a longer one. */
async function lose(text) {
    const socket = page.socket;
    const wasOpen = page.link === "open";
    page.socket = null;
    socket.close();
    if (page.link !== "ended") {
        page.link = "closed";
        page.lostText = text;
    }
    tell();
    setTimeout(connect, page.retry);
    page.retry = Math.min(page.retry * 1.5, RETRY[1]);
    if (!wasOpen && page.link === "closed") {
        const why = await refusal();
        if (page.link === "closed" && page.lostText === text) { // nothing truer was said meanwhile
            page.lostText = why;
            tell();
        }
    }
}

/** Why there is no stream: a WebSocket does not tell what it was answered. */
async function refusal() {
    try {
        const answer = await fetch("/", { method: "HEAD" });
        return answer.ok ? "As many look on as may: close another page. Trying again." :
            answer.status === 403 ? "velmora does not know this page. Open the address that it has printed last." :
                "velmora is busy. Trying again.";
    } catch {
        return page.ready ? "velmora does not answer. Trying again." :
            "velmora does not answer here. Open the address that it has printed.";
    }
}

setInterval(() => {
    if (page.link === "open" && page.ready && performance.now() - page.heard > SILENCE) {
        lose("Nothing comes from velmora. Trying again.");
    }
}, 1000);

// ---------------------------------------------------------------------------------------------- telling

const clockText = (time) => {
    const whole = Math.floor(time);
    const two = (number) => String(number).padStart(2, "0");
    const hours = Math.floor(whole / 3600);
    return hours > 0 ? `${hours}:${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}` :
        `${Math.floor(whole / 60)}:${two(whole % 60)}`;
};

/** State and banner, from what is known now. */
function tell() {
    let text = null;
    let notice = false;
    if (page.link === "ended" || page.link === "closed") {
        text = page.lostText;
    } else if (page.trouble) {
        text = page.trouble;
    } else if (page.skippedLately > 0) {
        text = "This screen is too slow for all signals: hide some headsets or channels. A recording is not affected.";
        notice = true;
    }
    const banner = $("banner");
    if (banner.hidden === (text !== null) || banner.textContent !== (text ?? "")) {
        banner.hidden = text === null;
        banner.textContent = text ?? "";
        banner.classList.toggle("notice", notice);
        layOut();
    }
    const [name, label] = page.link === "ended" || page.link === "closed" ? ["lost", "not connected"] :
        page.paused ? ["paused", "paused"] : !page.ready ? ["", "waiting"] :
            page.recording ? ["recording", "● recording"] : ["live", "live"];
    const state = $("state");
    if (state.textContent !== label) {
        state.className = `state ${name}`;
        state.textContent = label;
        document.title = `${label.replace("● ", "")} – velmora`;
    }
}

let notes = 0;
function note(time, text) {
    const list = $("log-list");
    const when = time === null ? "" : clockText(Math.max(0, time));
    const line = make("li", {}, make("time", { textContent: when }), text);
    list.prepend(line);
    if (list.children.length > MOST_EVENTS) {
        list.lastChild.remove();
    }
    $("log-count").textContent = String(++notes);
    $("log-last").textContent = `${when} ${text}`;
    layOut(); // the text may be a longer one
}

// ---------------------------------------------------------------------------------------------- the user

function buildMarks() {
    $("marks").replaceChildren(...page.marks.map((mark, number) => {
        const button = make("button", { title: `Write the mark into the recording: ${mark.key}` }, `${mark.text} `,
            make("kbd", { textContent: mark.key }));
        button.addEventListener("click", () => setMark(number));
        return button;
    }));
    $("mark-keys").replaceChildren(...page.marks.flatMap((mark) =>
        [make("dt", { textContent: mark.key }), make("dd", { textContent: `mark: ${mark.text}` })]));
}

function setMark(number) {
    if (page.socket?.readyState === WebSocket.OPEN) {
        page.socket.send(markRequest(number));
        const button = $("marks").children[number];
        button.classList.add("sent");
        setTimeout(() => button.classList.remove("sent"), 250);
    }
}

function togglePause() {
    page.paused = !page.paused;
    $("pause").setAttribute("aria-pressed", String(page.paused));
    $("pause").textContent = page.paused ? "Go on" : "Pause";
    for (const headset of page.headsets.values()) {
        if (page.paused) {
            headset.strips.keep();
        } else {
            headset.strips.letGo();
            headset.nameStrips(); // with the channels that came meanwhile
        }
    }
    layOut();
    tell();
}

function toggleAll() {
    const all = [...page.headsets.values()];
    const shown = !all.every((headset) => headset.shown);
    all.forEach((headset) => show(headset, shown));
}

function step(select, by) {
    select.selectedIndex = Math.min(Math.max(select.selectedIndex + by, 0), select.options.length - 1);
    layOut();
}

/** A larger signal is a smaller number; from auto the steps begin in the middle. */
function stepGain(by) {
    const select = $("gain");
    select.selectedIndex = select.selectedIndex === 0 ? 6 :
        Math.min(Math.max(select.selectedIndex + by, 1), select.options.length - 1);
    layOut();
}

const keys = {
    " ": togglePause,
    "[": () => step($("seconds"), -1),
    "]": () => step($("seconds"), 1),
    "+": () => stepGain(-1),
    "=": () => stepGain(-1),
    "-": () => stepGain(1),
    a: () => { $("gain").selectedIndex = 0; layOut(); },
    e: () => { $("log").open = !$("log").open; },
    "?": () => $("help").showModal(),
    0: toggleAll,
};

document.addEventListener("keydown", (event) => {
    const typed = event.getModifierState("AltGraph"); // letters of some keyboards
    if (((event.ctrlKey || event.altKey) && !typed) || event.metaKey || event.repeat) {
        return;
    }
    // What has the focus takes some keys for itself. A mark is never lost to it.
    const taken = event.target.closest("select") ? /^[ 0-9]$/ : event.target.closest("button, input, summary") ? /^ $/ : null;
    const mark = page.marks.findIndex((one) => one.key === event.key);
    if (mark >= 0) {
        setMark(mark);
    } else if ($("help").open || taken?.test(event.key)) {
        return;
    } else if (/^[1-9]$/.test(event.key)) {
        const headset = [...page.headsets.values()][Number(event.key) - 1];
        if (headset) {
            show(headset, !headset.shown);
        }
    } else if (event.key.length === 1 && keys[event.key.toLowerCase()]) {
        keys[event.key.toLowerCase()]();
    } else {
        return;
    }
    event.preventDefault();
});
document.addEventListener("click", (event) => {
    for (const headset of page.headsets.values()) {
        if (headset.chooser.open && !headset.chooser.contains(event.target)) {
            headset.chooser.open = false;
        }
    }
});
$("pause").addEventListener("click", togglePause);
$("seconds").addEventListener("change", layOut);
$("gain").addEventListener("change", layOut);
$("keys").addEventListener("click", () => $("help").showModal());
$("log").addEventListener("toggle", layOut);
window.addEventListener("resize", layOut);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", layOut);
connect();
requestAnimationFrame(frame);
