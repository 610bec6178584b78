// view_client.mjs: shows what a running `velmora view` or `velmora record --view` streams.
// Usage: node view_client.mjs ADDRESS, the one that velmora has printed. Needs Node.js 22, or 20 with
// --experimental-websocket.
const [HELLO, SAMPLES, EVENT, SKIPPED, ENDED] = [1, 2, 4, 6, 7];
const text = (view, at, size) => new TextDecoder().decode(new Uint8Array(view.buffer, at, size)).replace(/\0.*$/s, "");
const stream = new WebSocket(process.argv[2].replace("http://", "ws://").replace("/?", "/stream?"));
stream.binaryType = "arraybuffer";
let packets = 0;
let lost = 0;
stream.onmessage = ({ data }) => {
    const view = new DataView(data);
    const [version, kind, entries] = [view.getUint8(0), view.getUint8(1), view.getUint16(2, true)];
    if (version !== 1) throw new Error("another version of the stream");
    if (kind === HELLO) {
        for (let i = 0, at = 32; i < entries; ++i, at += 80) {
            console.log(`headset ${view.getInt16(at, true)}: ${text(view, at + 8, 16)} ${text(view, at + 24, 56)}`);
        }
    } else if (kind === SAMPLES) {
        for (let i = 0, at = 16; i < entries; ++i) {
            const [channels, count] = [view.getUint8(at + 27), view.getUint16(at + 28, true)];
            const values = Array.from({ length: channels * count }, (_, k) => view.getInt16(at + 32 + 2 * k, true));
            lost += view.getUint32(at + 16, true) + view.getUint32(at + 20, true);
            if (++packets % 100 === 0) {
                console.log(`headset ${view.getInt16(at + 24, true)}, channel ${view.getUint8(at + 26)}, ` +
                    `sample ${view.getBigInt64(at, true)}: ${values[0]} ...`);
            }
            at += 32 + 2 * values.length;
        }
    } else if (kind === EVENT) {
        console.log("event", view.getUint8(18), text(view, 24, 72));
    } else if (kind === SKIPPED) {
        console.log(`too slow for ${view.getBigUint64(24, true)} packets`);
    } else if (kind === ENDED) {
        console.log(text(view, 16, 240));
    }
};
stream.onclose = () => console.log(`${packets} packets, ${lost} lost`);
stream.onerror = (event) => console.error(event.message || "the address has been used, or nobody is there");
