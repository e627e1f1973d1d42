// The course of the live bytes or blocks over the run, drawn as SVG, with the peak marked. A comparison has a line for
// the earlier run.
"use strict";

class Timeline {
    // say(text): tells what the cursor is at.
    constructor(svg, recording, format, say) {
        Object.assign(this, {svg, recording, format, say, unit: 0, at: -1});
        this.hasTimes = recording.head.runs.every(run => run.hasTimes);
        svg.addEventListener("mousemove", event => this.point(this.nearest(event.offsetX)));
        svg.addEventListener("mouseleave", () => this.point(-1));
        svg.addEventListener("blur", () => this.point(-1));
        svg.addEventListener("keydown", event => {
            const last = recording.moments[0].time.length - 1;
            const peak = recording.head.runs[0].peakMoment;
            const page = Math.max(1, Math.round(last / 20));
            const to = {
                ArrowLeft: this.at - 1, ArrowRight: this.at + 1, PageUp: this.at - page, PageDown: this.at + page,
                Home: 0, End: last, p: peak,
            }[event.key];
            if (to === undefined)
                return;
            this.point(Math.max(0, Math.min(last, to)));
            event.preventDefault();
        });
        new ResizeObserver(() => this.draw()).observe(svg.parentElement);
    }

    show(unit) {
        this.unit = unit;
        this.draw();
    }

    add(name, attributes, text) {
        const element = document.createElementNS("http://www.w3.org/2000/svg", name);
        for (const [key, value] of Object.entries(attributes))
            element.setAttribute(key, value);
        if (text !== undefined)
            element.textContent = text;
        this.svg.append(element);
        return element;
    }

    // Round values for about `count` lines: 1, 2 or 5 times a power of ten, of bytes times a power of 1,024.
    static ticks(most, count, isBinary) {
        const base = isBinary ? 1024 ** Math.max(0, Math.floor(Math.log2(Math.max(most, 1)) / 10)) : 1;
        const rough = most / base / count;
        const power = 10 ** Math.floor(Math.log10(rough));
        let step = base * power * ([1, 2, 5].find(each => each * power >= rough) || 10);
        step = isBinary ? Math.max(step, 1) : step;
        const ticks = [];
        for (let i = 0; i * step <= most; ++i)
            ticks.push(i * step);
        return ticks;
    }

    draw() {
        const {recording} = this;
        const width = this.svg.parentElement.clientWidth;
        const height = this.svg.parentElement.clientHeight;
        this.svg.replaceChildren();
        this.svg.setAttribute("viewBox", `0 0 ${width} ${height}`);
        const [left, right, top, bottom] = [76, 14, 22, 24];
        const longest = Math.max(...recording.moments.map(({time}) => time.at(-1) || 0), 1e-9);
        const most = recording.moments.reduce(
            (found, {counts}) => counts[this.unit].reduce((a, b) => Math.max(a, b), found), 1);
        this.x = time => left + (width - left - right) * time / longest;
        this.y = value => height - bottom - (height - top - bottom) * value / most;

        const count = this.format[units[this.unit]];
        for (const value of Timeline.ticks(most, 4, this.unit === 0)) {
            this.add("line", {class: "grid", x1: left, x2: width - right, y1: this.y(value), y2: this.y(value)});
            this.add("text", {class: "axis", x: left - 8, y: this.y(value) + 4, "text-anchor": "end"}, count(value));
        }
        for (const value of Timeline.ticks(longest, Math.max(2, width / 130), false))
            this.add("text", {class: "axis", x: this.x(value), y: height - 6,
                              "text-anchor": value ? "middle" : "start"}, this.moment(value));
        recording.moments.map((each, run) => run).reverse().forEach(run => this.drawRun(run, left, height - bottom));
        this.drawPeak(width);
        this.cursor = this.add("line", {class: "cursor", y1: top, y2: height - bottom, visibility: "hidden"});
        this.point(this.at, true);
    }

    // A step for each moment: a value holds until the next one.
    drawRun(run, left, floor) {
        const {time, counts} = this.recording.moments[run];
        if (time.length === 0)
            return;
        let path = `M${left} ${this.y(counts[this.unit][0]).toFixed(1)}`;
        time.forEach((each, i) => path += `H${this.x(each).toFixed(1)}V${this.y(counts[this.unit][i]).toFixed(1)}`);
        if (run === 0)
            this.add("path", {class: "area", d: `${path}V${floor}H${left}Z`});
        this.add("path", {class: run === 0 ? "line" : "line earlier", d: path});
    }

    drawPeak(width) {
        const index = this.recording.head.runs[0].peakMoment;
        if (index < 0)
            return;
        const {time, counts} = this.recording.moments[0];
        const [x, y] = [this.x(time[index]), this.y(counts[this.unit][index])];
        const isRight = x > width * 0.75;
        this.add("line", {class: "peak", x1: x, x2: x, y1: y, y2: this.y(0)});
        this.add("circle", {class: "peak", cx: x, cy: y, r: 4});
        this.add("text", {class: "peak", id: "peak-label", x: x + (isRight ? -8 : 8), y: Math.max(13, y - 7),
                          "text-anchor": isRight ? "end" : "start"},
                 this.format.text("peak_at", this.format[units[this.unit]](counts[this.unit][index]),
                                  this.moment(time[index])));
    }

    moment(value) {
        return this.hasTimes ? this.format.time(value) : this.format.text("records", this.format.number(value));
    }

    nearest(x) {
        const {time} = this.recording.moments[0];
        let [low, high] = [0, time.length - 1];
        while (low < high) {
            const middle = (low + high) >> 1;
            if (this.x(time[middle + 1]) <= x)
                low = middle + 1;
            else
                high = middle;
        }
        return low;
    }

    point(index, isRedrawn) {
        const {time, counts} = this.recording.moments[0];
        if ((index === this.at && !isRedrawn) || !this.cursor)
            return;
        this.at = index;
        const isThere = index >= 0 && index < time.length;
        this.cursor.setAttribute("visibility", isThere ? "visible" : "hidden");
        if (isThere) {
            this.cursor.setAttribute("x1", this.x(time[index]));
            this.cursor.setAttribute("x2", this.x(time[index]));
        }
        this.say(isThere ? this.format.text("at_moment", this.moment(time[index]), this.format.bytes(counts[0][index]),
                                            this.format.number(counts[1][index])) : "");
    }

    // The course as rows of text: at most so many, the peak among them.
    rows(most) {
        const {time, counts} = this.recording.moments[0];
        const peak = this.recording.head.runs[0].peakMoment;
        const step = Math.max(1, Math.ceil(time.length / most));
        const rows = [];
        time.forEach((each, i) => {
            if (i % step === 0 || i === time.length - 1 || i === peak)
                rows.push([this.moment(each), this.format.bytes(counts[0][i]), this.format.number(counts[1][i])]);
        });
        return rows;
    }
}
