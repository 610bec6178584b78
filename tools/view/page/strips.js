// Signals and how they are drawn: a sweep, which overwrites what is a screen old.

const CAPACITY = 1 << 17; // samples that are kept of a channel: a minute at 2,000 a second
const JUMP = 0.02; // seconds by which signals may be moved without being drawn anew
const LATE = 0.4; // seconds without data after which the strip says so
export const BLANK = 0.02; // of the width, in front of the sweep

/** One channel: its samples, what is missing between them, and where they belong in time. */
export class Channel {
    constructor(number) {
        this.number = number;
        this.shown = true;
        this.away = false; // its headset left, and nothing of it has come since
        this.packets = 0;
        this.missing = 0; // packets
        this.drawn = 0; // samples that the sweep has put on the screen
        this.samples = new Int16Array(CAPACITY);
        this.rate = 0;
        this.packetSeconds = 0;
        this.gaps = []; // {from, to, kind}, in order
        this.centre = 0;
        this.span = 0; // half of what the strip's height shows; 0: not known yet
        this.forget();
    }

    forget() {
        this.end = null; // behind the newest sample
        this.first = null; // oldest of an unbroken time line
        this.points = []; // [time, end] of some packets, for the rate
        this.anchorTime = 0;
        this.anchorSample = 0;
        this.drawnTo = null;
        this.penX = null;
        this.shadedTo = null;
        this.seen = null; // behind the last sample that counts as drawn
        this.gaps = [];
    }

    /** As it is now, for a picture that stays. */
    copy() {
        return Object.assign(Object.create(Channel.prototype), this,
            { samples: this.samples.slice(), gaps: this.gaps.map((gap) => ({ ...gap })) });
    }

    value(sample) {
        return this.samples[sample & (CAPACITY - 1)];
    }

    /** Samples from `values`, one in `step`, beginning at `at`. */
    take(packet, at, step) {
        const { sample, time, count } = packet;
        if (this.end !== null && Math.abs(sample - this.end) > CAPACITY / 2) {
            this.forget(); // a screen ago and more: nothing of it is to be seen
        }
        let redraw = false;
        if (this.end === null) {
            this.first = sample;
            this.end = sample;
        } else if (sample > this.end) {
            // What this screen was left out of comes before what nobody got.
            const lostFrom = this.away ? sample : Math.max(this.end, sample - (packet.lost + packet.dropped) * count);
            if (lostFrom > this.end) {
                this.gaps.push({ from: this.end, to: lostFrom, kind: this.away ? "away" : "skipped" });
            }
            if (lostFrom < sample) {
                this.gaps.push({ from: lostFrom, to: sample, kind: "lost" });
            }
            redraw = this.shadedTo !== null;
        } else if (sample < this.end) {
            // A packet that was put too far ahead: what follows it belongs in front.
            this.gaps = this.gaps.filter((gap) => gap.from < sample);
            this.drawnTo = this.drawnTo === null ? null : Math.min(this.drawnTo, sample);
            this.penX = null;
        } else {
            redraw = this.shadedTo !== null;
        }
        for (let i = 0; i < count; ++i) {
            this.samples[(sample + i) & (CAPACITY - 1)] = packet.values[at + i * step];
        }
        this.end = sample + count;
        this.first = Math.max(this.first, this.end - CAPACITY);
        while (this.gaps.length > 0 && this.gaps[0].to < this.first) {
            this.gaps.shift();
        }
        this.away = false;
        this.packets += 1;
        this.missing += packet.lost + packet.dropped;
        redraw = this.follow(time, count) || redraw;
        if (redraw) {
            this.shadedTo = null;
        }
        return redraw;
    }

    /** Keeps the straight line that leads from time to sample. True when it has jumped. */
    follow(time, count) {
        const points = this.points;
        if (points.length === 0 || time - points[points.length - 1][0] > 0.25) {
            points.push([time, this.end]);
            if (points.length > 64) {
                points.splice(1, 1); // the oldest one stays as long as it can: the longer, the more exact
            }
        }
        const [firstTime, firstEnd] = points[0];
        if (!this.ruled && time - firstTime > 0.2) {
            this.setRate((this.end - firstEnd) / (time - firstTime), time);
        }
        if (this.rate > 0) {
            this.packetSeconds = count / this.rate;
            const error = this.end - this.at(time);
            if (Math.abs(error) > this.rate * 0.5 || this.points.length < 3) {
                this.anchorTime = time;
                this.anchorSample = this.end;
                return Math.abs(error) > this.rate * JUMP;
            }
            this.anchorSample += error * 0.05;
        }
        return false;
    }

    /** The rate as velmora measures it, over a minute. */
    rule(rate, time) {
        this.ruled = true;
        this.setRate(rate, time);
    }

    setRate(rate, time) {
        if (rate > 0) {
            if (this.rate > 0) {
                this.anchorSample = this.at(time);
                this.anchorTime = time;
            } else {
                this.anchorSample = this.end ?? 0;
                this.anchorTime = time;
            }
            this.rate = rate;
        }
    }

    at(time) {
        return this.anchorSample + (time - this.anchorTime) * this.rate;
    }
    timeOf(sample) {
        return this.anchorTime + (sample - this.anchorSample) / this.rate;
    }

    /** Least and greatest value of a stretch, without what is missing in it. */
    range(from, to) {
        let least = Infinity;
        let greatest = -Infinity;
        const step = Math.max(1, Math.floor((to - from) / 2000));
        let gap = 0;
        for (let s = from; s < to; s += step) {
            while (gap < this.gaps.length && this.gaps[gap].to <= s) {
                ++gap;
            }
            if (gap < this.gaps.length && s >= this.gaps[gap].from) {
                continue;
            }
            const value = this.value(s);
            least = value < least ? value : least;
            greatest = value > greatest ? value : greatest;
        }
        return least <= greatest ? [least, greatest] : null;
    }
}

/** The strips of one headset on a canvas. */
export class Strips {
    constructor(canvas, channels) {
        this.canvas = canvas;
        this.context = canvas.getContext("2d");
        this.channels = channels; // in order; those shown have a strip
        this.time = null; // drawn up to there
        this.dirty = true;
        this.kept = null; // while the picture stays: its channels, by number
        this.marks = [];
    }

    /** What is on the screen stays, whatever comes, until it is let go. */
    keep() {
        this.kept = new Map(this.channels.map((channel) => [channel.number, channel.copy()]));
    }
    letGo() {
        this.kept = null;
        this.dirty = true;
    }

    /** The channels as they are drawn. */
    shown() {
        const shown = this.channels.filter((channel) => channel.shown);
        return this.kept ? shown.map((channel) => this.kept.get(channel.number)).filter(Boolean) : shown;
    }

    resize(width, height, ratio, colours) {
        const w = Math.round(width * ratio);
        const h = Math.round(height * ratio);
        if (this.canvas.width !== w || this.canvas.height !== h || this.ratio !== ratio) {
            this.canvas.width = w;
            this.canvas.height = h;
        }
        this.ratio = ratio;
        this.colours = colours;
        this.dirty = true;
    }

    /** Brings the picture to `time`, with `window` seconds on the screen and half a strip's height being `gain`, or
        what each channel needs when that is 0. */
    draw(time, window, gain) {
        const whole = this.dirty || this.time === null || time < this.time || time - this.time > window / 2 ||
            window !== this.window || gain !== this.gain;
        const strips = this.shown();
        const { width, height } = this.canvas;
        const ctx = this.context;
        this.window = window;
        this.gain = gain;
        this.scale = width / window;
        const blank = Math.max(width * BLANK, 10 * this.ratio);
        if (whole) {
            ctx.clearRect(0, 0, width, height);
            this.dirty = false;
        } else {
            this.clear(this.x(this.time) + blank, (time - this.time) * this.scale + 1);
        }
        const wrapped = !whole && Math.floor(time / window) !== Math.floor(this.time / window);
        const from = whole ? time - window + blank / this.scale : this.time;
        this.time = time;
        ctx.lineWidth = Math.max(1, this.ratio);
        ctx.lineJoin = "bevel";
        ctx.lineCap = "round"; // or the seams between two pictures would be seen
        this.pitch = height / Math.max(1, strips.length);
        let rescaled = false;
        ctx.beginPath();
        strips.forEach((channel, row) => {
            if (channel.rate > 0) {
                rescaled = this.fit(channel, time, window, gain, wrapped || whole) && !whole || rescaled;
                this.strip(channel, row, from, time, whole);
            }
        });
        ctx.strokeStyle = this.colours.trace;
        ctx.stroke();
        for (const mark of this.marks) {
            if (mark.time > from && mark.time <= time) {
                this.mark(mark);
            }
        }
        this.dirty = rescaled; // the next picture is a whole one, in the new scale
    }

    x(time) {
        const part = time / this.window;
        return (part - Math.floor(part)) * this.canvas.width;
    }

    /** Empties so much behind x, at the left again where the right end comes. */
    clear(x, size) {
        const { width, height } = this.canvas;
        const left = Math.floor(x >= width ? x - width : x);
        const cut = Math.min(Math.ceil(size) + 1, width - left);
        this.context.clearRect(left, 0, cut, height);
        if (cut < size) {
            this.context.clearRect(0, 0, Math.ceil(size - cut) + 1, height);
        }
    }

    /** Once a screen, or when the signal leaves its strip, the scale is chosen anew. True when it has changed. */
    fit(channel, time, window, gain, due) {
        const to = Math.min(channel.end, Math.floor(channel.at(time)));
        const known = channel.span > 0;
        const since = known && !due ? Math.max(channel.first, to - Math.ceil(channel.rate * 0.25)) :
            Math.max(channel.first, Math.ceil(channel.at(time - window)));
        const range = to > since ? channel.range(since, to) : null;
        if (!range) {
            return false;
        }
        const [least, greatest] = range;
        const outside = !known || greatest > channel.centre + channel.span || least < channel.centre - channel.span;
        if (!due && !outside) {
            return false;
        }
        const half = Math.max((greatest - least) / 2, 1);
        const centre = (greatest + least) / 2;
        if (gain > 0) {
            const moved = !known || Math.abs(centre - channel.centre) > gain * 0.25 || channel.span !== gain;
            if (moved) {
                channel.centre = centre;
                channel.span = gain;
            }
            return moved && known;
        }
        const wanted = half * 1.15;
        if (known && !outside && wanted > channel.span * 0.6 && Math.abs(centre - channel.centre) < channel.span * 0.2) {
            return false;
        }
        // What is outside now goes on further: leave it room, or each picture would be a whole one.
        channel.span = outside && known ? Math.max(wanted, channel.span) * 1.3 : wanted;
        channel.centre = centre;
        return known;
    }

    strip(channel, row, from, time, whole) {
        const top = row * this.pitch;
        const middle = top + this.pitch / 2;
        const oldest = whole ? from : time - this.window * (1 - 2 * BLANK);
        if (whole || channel.drawnTo === null) {
            // A channel that is new begins on the screen with all that has come of it.
            channel.drawnTo = Math.max(channel.first, Math.ceil(channel.at(oldest)));
            channel.penX = null;
            channel.shadedTo = null;
        }
        const to = Math.min(channel.end, Math.floor(channel.at(time)));
        let sample = Math.max(channel.drawnTo, channel.first);
        for (const gap of channel.gaps) {
            if (gap.to <= sample || gap.from >= to) {
                continue;
            }
            this.line(channel, sample, gap.from, middle);
            const end = Math.min(gap.to, to);
            this.shade(channel.timeOf(Math.max(gap.from, sample)), channel.timeOf(end), top, gap.kind);
            channel.penX = null;
            sample = end;
        }
        this.line(channel, sample, to, middle);
        channel.drawnTo = Math.max(to, sample);
        // Nothing has come for a while.
        const dataEnd = channel.timeOf(channel.end);
        if (time - dataEnd > LATE) {
            const start = Math.max(channel.shadedTo ?? dataEnd, oldest);
            this.shade(start, time, top, channel.away ? "away" : "waiting");
            channel.shadedTo = time;
            channel.penX = null;
        }
    }

    /** The signal from one sample to another, at most four points in each column of pixels. */
    line(channel, from, to, middle) {
        if (to <= from) {
            return;
        }
        const ctx = this.context;
        const width = this.canvas.width;
        let step = this.scale / channel.rate;
        const most = this.pitch / 2 - 0.5 * this.ratio;
        const scale = most / channel.span;
        const samples = channel.samples;
        const centre = channel.centre;
        let x = this.x(channel.timeOf(from));
        let column = -1;
        let low = 0;
        let high = 0;
        let last = 0;
        let pen = channel.penX !== null;
        if (pen) {
            // From where the line ended to where it has to end now: packets that come unevenly stretch it a little.
            const last = this.x(channel.timeOf(to - 1));
            const way = last - channel.penX + (last < channel.penX - width / 2 ? width : 0);
            step = Math.max(way, 0) / (to - from);
            x = channel.penX + step;
            ctx.moveTo(channel.penX, channel.penY);
        }
        const dense = step < 0.5;
        for (let s = from; s < to; ++s, x += step) {
            let y = (centre - samples[s & (CAPACITY - 1)]) * scale;
            y = middle + (y > most ? most : y < -most ? -most : y);
            if (x >= width) {
                if (column >= 0) {
                    ctx.lineTo(column, low);
                    ctx.lineTo(column, high);
                    column = -1;
                }
                x -= width;
                pen = false;
            }
            if (!dense) {
                if (pen) {
                    ctx.lineTo(x, y);
                } else {
                    ctx.moveTo(x, y);
                    pen = true;
                }
            } else if ((x | 0) === column) {
                low = y < low ? y : low;
                high = y > high ? y : high;
            } else {
                if (column >= 0) {
                    ctx.lineTo(column, low);
                    ctx.lineTo(column, high);
                    ctx.lineTo(column, last);
                }
                column = x | 0;
                if (pen) {
                    ctx.lineTo(column, y);
                } else {
                    ctx.moveTo(column, y);
                    pen = true;
                }
                low = high = y;
            }
            last = y;
        }
        if (column >= 0) {
            ctx.lineTo(column, low);
            ctx.lineTo(column, high);
            ctx.lineTo(column, last);
        }
        channel.penX = x - step;
        channel.penY = last;
        const fresh = Math.max(from, channel.seen ?? from);
        if (to > fresh) {
            channel.drawn += to - fresh;
            channel.seen = to;
        }
    }

    /** Colours a stretch of a strip in which there is no signal. */
    shade(from, to, top, kind) {
        const width = this.canvas.width;
        const ctx = this.context;
        // Whole pixels: where two pieces met, half covered ones would be seen.
        let x = Math.round(this.x(from));
        let rest = Math.min(Math.round(this.x(from) + (to - from) * this.scale) - x, width);
        ctx.fillStyle = this.colours[kind];
        while (rest > 0) {
            const part = Math.min(rest, width - x);
            ctx.fillRect(x, top, part, this.pitch);
            rest -= part;
            x = 0;
        }
    }

    mark(mark) {
        const ctx = this.context;
        const x = Math.round(this.x(mark.time));
        ctx.fillStyle = this.colours.mark;
        ctx.fillRect(x, 0, Math.max(1, this.ratio), this.canvas.height);
        ctx.font = `${11 * this.ratio}px system-ui, sans-serif`;
        ctx.textBaseline = "top";
        const size = ctx.measureText(mark.text).width;
        // On its left where there is room: the sweep is about to empty what is on its right.
        const room = x > size + 6 * this.ratio;
        ctx.fillText(mark.text, room ? x - size - 3 * this.ratio : x + 3 * this.ratio, 2 * this.ratio);
    }
}
