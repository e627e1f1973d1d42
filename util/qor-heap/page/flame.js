// The flame graph: a canvas with a row for each depth, the outermost functions on top. The width of a box is the share
// of what the function holds with all that it calls.
"use strict";

const rowHeight = 19;
const narrowest = 0.6; // pixels: nothing narrower is drawn

class FlameGraph {
    // on.focus(node, box): a box has been pointed at, or nothing (-1). on.zoom(node): a node is the new root.
    constructor(canvas, recording, tree, on) {
        Object.assign(this, {canvas, recording, tree, on, root: 0, focus: -1, rows: [], found: null, changes: null});
        this.context = canvas.getContext("2d");
        this.modules = new Map();
        canvas.addEventListener("mousemove", event => this.point(this.at(event.offsetX, event.offsetY)));
        canvas.addEventListener("mouseleave", () => this.point(-1));
        canvas.addEventListener("click", event => {
            const node = this.at(event.offsetX, event.offsetY);
            if (node >= 0)
                this.zoom(node);
        });
        canvas.addEventListener("keydown", event => this.press(event));
        canvas.addEventListener("blur", () => this.point(-1));
        new ResizeObserver(() => this.draw()).observe(canvas.parentElement);
    }

    // totals: by node of the tree. changes: null, or by node the difference to the earlier run.
    show(totals, changes) {
        Object.assign(this, {totals, changes});
        if (!(totals[this.root] > 0))
            this.root = 0;
        this.rankModules();
        this.draw();
    }

    // The modules that hold most by themselves have colours of their own.
    rankModules() {
        const sums = new Map();
        for (let i = 1; i < this.tree.size; ++i) {
            const module = this.moduleOf(i);
            let own = this.totals[i];
            for (let k = this.tree.first[i]; k < this.tree.first[i + 1]; ++k)
                own -= this.totals[this.tree.children[k]];
            sums.set(module, (sums.get(module) || 0) + own);
        }
        const ranked = [...sums].sort((a, b) => b[1] - a[1]).map(([module]) => module);
        this.modules = new Map(ranked.map((module, i) => [module, Math.min(i, 6)]));
    }

    moduleOf(node) {
        return this.recording.functions.module[this.recording.functionOf(this.tree.sample[node])];
    }

    draw() {
        if (!this.totals)
            return;
        const width = this.canvas.parentElement.clientWidth;
        this.rows = [];
        const path = [];
        for (let node = this.root; node !== 0; node = this.tree.parent[node])
            path.unshift(node);
        path.unshift(0);
        path.forEach((node, depth) => this.rows[depth] = [{node, x: 0, width, isAbove: node !== this.root}]);
        for (let depth = path.length - 1; this.rows[depth]; ++depth) {
            const row = [];
            for (const box of this.rows[depth]) {
                const scale = box.width / this.totals[box.node];
                let x = box.x;
                for (const node of this.tree.sorted(box.node, this.totals)) {
                    const part = this.totals[node] * scale;
                    if (!(part >= narrowest))
                        break; // all others are smaller still
                    row.push({node, x, width: part});
                    x += part;
                }
            }
            if (row.length > 0)
                this.rows[depth + 1] = row;
        }
        const ratio = window.devicePixelRatio || 1;
        const height = this.rows.length * rowHeight + 1;
        this.canvas.width = Math.round(width * ratio);
        this.canvas.height = Math.round(height * ratio);
        this.canvas.style.height = `${height}px`;
        this.context.setTransform(ratio, 0, 0, ratio, 0, 0);
        this.readColours();
        this.context.textBaseline = "middle";
        this.rows.forEach((row, depth) => row.forEach(box => this.drawBox(box, depth)));
    }

    // The colours of the style sheet, as the theme has them.
    readColours() {
        const style = getComputedStyle(this.canvas);
        this.context.font = `12px ${style.fontFamily}`;
        const resolve = value => {
            this.canvas.style.color = value;
            return style.color;
        };
        // Three shades of each module, so that neighbours can be told apart, and one for code of libraries.
        this.colours = [0, 1, 2, 3, 4, 5, 6].map(i => [100, 86, 72, 45].map(
            strength => resolve(`color-mix(in srgb, var(--module-${i}) ${strength}%, var(--flame-ground))`)));
        this.palette = Object.fromEntries(["ink", "all", "found", "faint", "same", "focus"].map(
            name => [name, resolve(`var(--flame-${name})`)]));
        // Ten strengths of each.
        [this.more, this.less] = ["more", "less"].map(name => Array.from({length: 11}, (_, i) =>
            resolve(`color-mix(in srgb, var(--flame-${name}) ${10 * i}%, var(--flame-same))`)));
    }

    colourOf({node, isAbove}) {
        const {palette} = this;
        const named = this.recording.functionOf(this.tree.sample[node]);
        if (this.found)
            return this.found[named] ? palette.found : palette.faint;
        if (this.changes) {
            const share = this.changes[node] / this.totals[node];
            if (Math.abs(share) < 0.005)
                return palette.same;
            return (share > 0 ? this.more : this.less)[Math.min(10, Math.round(2 + 8 * Math.abs(share)))];
        }
        if (node === 0 || isAbove)
            return palette.all;
        const shade = this.recording.isLibraryCode(named) ? 3 : this.recording.functions.name[named] % 3;
        return this.colours[this.modules.get(this.moduleOf(node))][shade];
    }

    drawBox(box, depth) {
        const {context} = this;
        const y = depth * rowHeight;
        context.fillStyle = this.colourOf(box);
        context.fillRect(box.x, y, Math.max(box.width - 0.6, 0.5), rowHeight - 1);
        if (box.node === this.focus) {
            context.strokeStyle = this.palette.focus;
            context.lineWidth = 2;
            context.strokeRect(box.x + 1, y + 1, Math.max(box.width - 2.6, 1), rowHeight - 3);
        }
        if (box.width < 26)
            return;
        context.fillStyle = this.palette.ink;
        context.fillText(this.fitting(this.label(box.node), box.width - 8), box.x + 4, y + rowHeight / 2);
    }

    // The text, or as much of it as has room.
    fitting(text, width) {
        const most = Math.ceil(width / 3); // no letter is narrower than 3 pixels, but for a few
        if (text.length <= most && this.context.measureText(text).width <= width)
            return text;
        let [low, high] = [0, Math.min(most, text.length)];
        while (low < high) {
            const middle = Math.ceil((low + high) / 2);
            if (this.context.measureText(text.slice(0, middle) + "…").width <= width)
                low = middle;
            else
                high = middle - 1;
        }
        return low > 0 ? text.slice(0, low) + "…" : "";
    }

    label(node) {
        return node === 0 ? this.recording.head.labels.everything : this.recording.nameOf(this.tree.sample[node]);
    }

    at(x, y) {
        const row = this.rows[Math.floor(y / rowHeight)] || [];
        const box = row.find(each => x >= each.x && x < each.x + each.width);
        return box ? box.node : -1;
    }

    boxOf(node) {
        for (const [depth, row] of this.rows.entries()) {
            const index = row.findIndex(box => box.node === node);
            if (index >= 0)
                return {depth, index, row, box: row[index]};
        }
        return null;
    }

    point(node) {
        if (node === this.focus)
            return;
        const before = this.boxOf(this.focus);
        this.focus = node;
        const now = this.boxOf(node);
        if (before)
            this.drawBox(before.box, before.depth);
        if (now)
            this.drawBox(now.box, now.depth);
        this.on.focus(node, now && {x: now.box.x, y: (now.depth + 1) * rowHeight, width: now.box.width});
    }

    zoom(node) {
        if (node !== 0 && !(this.totals[node] > 0))
            return;
        this.root = node;
        this.draw();
        this.on.zoom(node);
        if (this.focus >= 0) {
            this.focus = -1;
            this.point(node);
        }
    }

    scrollTo(node) {
        const found = this.boxOf(node);
        const view = this.canvas.parentElement;
        const top = found ? found.depth * rowHeight : 0;
        if (top < view.scrollTop || top + rowHeight > view.scrollTop + view.clientHeight)
            view.scrollTop = top - view.clientHeight / 2;
    }

    press(event) {
        const place = this.boxOf(this.focus) || this.boxOf(this.root);
        const {depth, index, row, box} = place;
        const near = other => (this.rows[depth + 1] || []).find(each => this.tree.parent[each.node] === other);
        const step = {
            ArrowLeft: () => row[Math.max(index - 1, 0)].node,
            ArrowRight: () => row[Math.min(index + 1, row.length - 1)].node,
            ArrowUp: () => this.tree.parent[box.node],
            ArrowDown: () => (near(box.node) || box).node,
            Home: () => this.root,
        }[event.key];
        if (step) {
            this.point(this.focus < 0 ? this.root : step());
            this.scrollTo(this.focus);
        } else if (event.key === "Enter" || event.key === " ") {
            this.zoom(box.node);
        } else if (event.key === "Escape" || event.key === "Backspace") {
            this.zoom(event.key === "Escape" ? 0 : this.tree.parent[this.root]);
        } else {
            return;
        }
        event.preventDefault();
    }
}
