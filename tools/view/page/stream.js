// The messages of the stream, from bytes to objects; the format is described in docs/view-protocol.md.
// Times are seconds since the start of the data.

export const VERSION = 1;
export const EVENT = { connected: 1, disconnected: 2, restarted: 3, gone: 4, overrun: 5, mark: 100 };

const KINDS = { 1: hello, 2: samples, 3: status, 4: event, 6: skipped, 7: ended };
const HEADER = 16;
const letters = new TextDecoder();
let start = 0n;

function text(view, at, size) {
    const bytes = new Uint8Array(view.buffer, at, size);
    const end = bytes.indexOf(0);
    return letters.decode(bytes.subarray(0, end < 0 ? size : end));
}

const seconds = (view, at) => Number(view.getBigInt64(at, true) - start) * 1e-9;
const count = (view, at) => Number(view.getBigUint64(at, true));

function hello(view, entries) {
    start = view.getBigInt64(8, true);
    const message = {
        kind: "hello",
        started: new Date(Number(view.getBigInt64(16, true) / 1000000n)),
        recording: (view.getUint16(24, true) & 1) !== 0,
        goesOn: (view.getUint16(24, true) & 2) !== 0,
        headsets: [],
        marks: [],
    };
    let at = HEADER + 16;
    for (let i = 0; i < entries; ++i, at += 80) {
        message.headsets.push({
            number: view.getInt16(at, true),
            index: view.getInt16(at + 2, true),
            connected: view.getUint8(at + 4) === 1,
            address: text(view, at + 8, 16),
            name: text(view, at + 24, 56),
        });
    }
    for (let i = view.getUint16(26, true); i > 0; --i, at += 72) {
        message.marks.push({ key: String.fromCharCode(view.getUint8(at)), text: text(view, at + 8, 64) });
    }
    return message;
}

function samples(view, entries) {
    const packets = [];
    let at = HEADER;
    for (let i = 0; i < entries; ++i) {
        const channels = view.getUint8(at + 27);
        const size = view.getUint16(at + 28, true);
        packets.push({
            sample: Number(view.getBigInt64(at, true)),
            time: seconds(view, at + 8),
            lost: view.getUint32(at + 16, true),
            dropped: view.getUint32(at + 20, true),
            headset: view.getInt16(at + 24, true),
            channel: view.getUint8(at + 26),
            channels,
            count: size,
            flags: view.getUint16(at + 30, true),
            values: values(view, at + 32, size * channels),
        });
        at += 32 + 2 * size * channels;
    }
    return { kind: "samples", packets };
}

const littleEndian = new Uint8Array(new Uint16Array([1]).buffer)[0] === 1;
function values(view, at, size) {
    if (littleEndian) {
        return new Int16Array(view.buffer, at, size);
    }
    return Int16Array.from({ length: size }, (_, i) => view.getInt16(at + 2 * i, true));
}

function status(view, entries) {
    const headsets = [];
    for (let i = 0, at = HEADER; i < entries; ++i, at += 64) {
        headsets.push({
            number: view.getInt16(at, true),
            index: view.getInt16(at + 2, true),
            connected: view.getUint8(at + 4) === 1,
            channels: view.getUint8(at + 5),
            battery: view.getInt16(at + 6, true),
            slowest: view.getFloat32(at + 8, true),
            fastest: view.getFloat32(at + 12, true),
            silent: view.getUint32(at + 16, true) / 1000,
            packets: count(view, at + 24),
            lost: count(view, at + 32) + count(view, at + 40),
            repeated: count(view, at + 48),
        });
    }
    return { kind: "status", time: seconds(view, 8), headsets };
}

function event(view) {
    return {
        kind: "event",
        time: seconds(view, 8),
        headset: view.getInt16(HEADER, true),
        code: view.getUint8(HEADER + 2),
        text: text(view, HEADER + 8, 72),
    };
}

function skipped(view) {
    return { kind: "skipped", messages: count(view, HEADER), packets: count(view, HEADER + 8) };
}

function ended(view) {
    return { kind: "ended", text: text(view, HEADER, 240) };
}

/** One message; null for one of a kind that is not known here. */
export function decode(buffer) {
    const view = new DataView(buffer);
    if (view.getUint8(0) !== VERSION) {
        throw new Error("another version of the stream; load this page again");
    }
    const read = KINDS[view.getUint8(1)];
    return read ? read(view, view.getUint16(2, true)) : null;
}

/** The request to write mark `number` of hello into the recording. */
export function markRequest(number) {
    return new Uint8Array([VERSION, 1, number & 0xff, number >> 8]);
}
