// Puts the parts of the page together.
"use strict";

const element = id => document.getElementById(id);

// Numbers as people read them, in the language of the page.
class Format {
    constructor(labels) {
        const language = document.documentElement.lang;
        const digits = count => new Intl.NumberFormat(language, {maximumFractionDigits: count});
        const [whole, one, two] = [digits(0), digits(1), digits(2)];
        const rounded = value => (value >= 100 ? whole : value >= 10 ? one : two).format(value);
        this.number = value => whole.format(value);
        this.blocks = this.number;
        this.bytes = value => {
            const size = Math.abs(value);
            const power = size < 1024 ? 0 : Math.min(6, Math.floor(Math.log2(size) / 10));
            const unit = power === 0 ? "B" : `${"KMGTPE"[power - 1]}iB`;
            return `${value < 0 ? "−" : ""}${rounded(size / 1024 ** power)} ${unit}`;
        };
        this.time = ns => ns >= 6e10 ? `${rounded(ns / 6e10)} min` : ns >= 1e9 || ns === 0 ? `${rounded(ns / 1e9)} s`
            : ns >= 1e6 ? `${rounded(ns / 1e6)} ms` : `${rounded(ns / 1e3)} µs`;
        this.share = value => `${one.format(100 * value)} %`;
        this.text = (key, ...inserts) => labels[key].replace(/\{(\d)\}/g, (all, i) => inserts[i - 1]);
    }
}

class Page {
    constructor(recording) {
        const {head} = recording;
        this.recording = recording;
        this.format = new Format(head.labels);
        this.isComparison = head.runs.length > 1;
        this.measure = recording.sum(0, 0, 0) > 0 ? 0 : 1;
        this.unit = 0;
        this.found = null;
        this.tree = new FunctionTree(recording);
        this.flame = new FlameGraph(element("flame"), recording, this.tree, {
            focus: (node, box) => this.showBox(node, box),
            zoom: node => this.showPath(node),
        });
        this.timeline = new Timeline(element("timeline"), recording, this.format,
                                     text => element("moment").textContent = text);
        this.table = new PlaceTable(element("places"), element("scroller"), recording, this.format, {
            select: (place, isChosen) => this.showPlace(place, isChosen),
        });
        this.writeHead();
        this.listen();
        this.timeline.show(this.unit);
        this.fillMoments();
        this.update();
        this.showPath(0);
    }

    make(name, className, text) {
        const made = document.createElement(name);
        if (className)
            made.className = className;
        if (text !== undefined)
            made.textContent = text;
        return made;
    }

    writeHead() {
        const {runs, notes} = this.recording.head;
        const {format} = this;
        for (const [key, id] of [["live", 0], ["peak", 1], ["allocated", 2], ["temporary", 3]]) {
            const card = this.make("div", "card");
            card.id = `card-${key}`;
            card.append(this.make("dt", "", this.recording.head.labels[key]));
            const [bytes, blocks] = runs[0].sums[id];
            card.append(this.make("dd", "", format.bytes(bytes)));
            let more = format.text("blocks", format.number(blocks));
            if (this.isComparison) {
                const change = bytes - runs[1].sums[id][0];
                more = format.text("changed_by", (change > 0 ? "+" : "") + format.bytes(change));
            }
            card.append(this.make("dd", "more-of-it", more));
            element("cards").append(card);
        }
        for (const note of notes)
            element("notes").append(this.make("li", "", note));
        element("notes").hidden = notes.length === 0;
        element("growing-only").hidden = !this.recording.places.marks.some(mark => mark & 1);
        for (const key of document.querySelectorAll(".comparison"))
            key.hidden = !this.isComparison;
        document.querySelector(`input[name=measure][value="${this.measure}"]`).checked = true;
    }

    listen() {
        document.addEventListener("change", ({target}) => {
            if (target.name === "measure")
                this.measure = Number(target.value);
            else if (target.name === "unit")
                this.timeline.show(this.unit = Number(target.value));
            else if (target.id === "grouping")
                this.table.grouping = target.value;
            else if (target.id === "theme")
                return this.setTheme(target.value);
            else if (target.id !== "growing")
                return;
            this.update();
        });
        element("search").addEventListener("input", () => {
            clearTimeout(this.timer);
            this.timer = setTimeout(() => this.search(element("search").value.trim()), 120);
        });
        element("search").addEventListener("keydown", event => {
            if (event.key === "Escape") {
                element("search").value = "";
                this.search("");
            }
        });
        document.addEventListener("keydown", event => {
            if (event.key === "/" && !/^(INPUT|SELECT)$/.test(document.activeElement.tagName)) {
                element("search").focus();
                event.preventDefault();
            }
        });
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.flame.draw());
    }

    setTheme(theme) {
        document.documentElement.dataset.theme = theme;
        this.flame.draw();
    }

    search(text) {
        this.found = text ? this.recording.search(text) : null;
        this.update();
        element("found").dataset.text = text;
    }

    // What the flame graph and the table show has changed.
    update() {
        const {recording, measure, unit} = this;
        let values = recording.counts[0][measure][unit];
        let changes = null;
        if (this.isComparison) {
            // The larger of both runs: what is gone has a box, too.
            const before = recording.counts[1][measure][unit];
            changes = this.tree.totals(recording, values.map((now, i) => now - before[i]));
            values = values.map((now, i) => Math.max(now, before[i]));
        }
        this.flame.found = this.found && this.found.functions;
        this.flame.show(this.tree.totals(recording, values), changes);
        this.table.show(measure, unit, this.found, element("growing").checked);
        this.showPath(this.flame.root);
        this.writeFound();
        this.drawKey();
    }

    writeFound() {
        const {found, recording, format} = this;
        let text = "";
        if (found) {
            const values = recording.counts[0][this.measure][this.unit];
            const sum = values.reduce((all, value, i) => found.places[i] ? all + value : all, 0);
            const whole = recording.sum(0, this.measure, this.unit);
            text = format.text("found", format[units[this.unit]](sum), format.share(whole ? sum / whole : 0),
                               format.number(found.places.reduce((all, is) => all + is, 0)));
        }
        element("found").textContent = text;
    }

    // The colours of the modules.
    drawKey() {
        const items = [...this.flame.modules].filter(([, colour], i) => i < 7).map(([module, colour], i) => {
            const item = this.make("li");
            item.append(this.make("span", `swatch module-${colour}`));
            const {labels} = this.recording.head;
            item.append(i < 6 ? fileName(this.recording.texts[module]) || labels.unknown : labels.others);
            item.title = i < 6 ? this.recording.texts[module] : "";
            return item;
        });
        element("modules").replaceChildren(...(this.isComparison ? [] : items));
    }

    // Name, size and share of a box, beside it and for a screen reader.
    showBox(node, box) {
        const tip = element("tip");
        tip.hidden = !box;
        if (!box) {
            element("box").textContent = "";
            return;
        }
        const {recording, flame, format} = this;
        const lines = [flame.label(node)];
        const size = format[units[this.unit]];
        if (node !== 0) {
            const sample = this.tree.sample[node];
            lines.push([recording.moduleOf(sample), recording.sourceOf(sample)].filter(Boolean).join(" · "));
        }
        lines.push(format.text("box", size(flame.totals[node]), format.share(flame.totals[node] / flame.totals[0])));
        if (flame.changes)
            lines.push(format.text("changed_by", (flame.changes[node] > 0 ? "+" : "") + size(flame.changes[node])));
        tip.replaceChildren(...lines.filter(Boolean).map((line, i) => this.make("div", i ? "" : "name", line)));
        element("box").textContent = lines.filter(Boolean).join(", ");
        const room = element("flame").clientWidth;
        tip.style.left = `${Math.max(0, Math.min(box.x, room - tip.offsetWidth))}px`;
        tip.style.top = `${box.y + 4}px`;
    }

    // The functions above the root of the flame graph, as buttons.
    showPath(node) {
        const path = [];
        for (; node !== 0; node = this.tree.parent[node])
            path.unshift(node);
        path.unshift(0);
        element("path").replaceChildren(...path.map((each, i) => {
            const item = this.make("li");
            const button = this.make("button", "", this.flame.label(each));
            button.type = "button";
            button.disabled = i === path.length - 1;
            button.addEventListener("click", () => this.flame.zoom(each));
            item.append(button);
            return item;
        }));
        element("path").parentElement.hidden = path.length === 1;
    }

    // The stack of a place, the innermost function first.
    showPlace(place, isChosen) {
        const {recording} = this;
        const items = [];
        for (let node = recording.places.node[place]; node !== 0; node = recording.nodes.parent[node]) {
            const item = this.make("li");
            item.append(this.make("bdi", "name", recording.nameOf(node)));
            const more = [recording.sourceOf(node), recording.moduleOf(node)].filter(Boolean).join(" · ");
            item.append(this.make("bdi", "where", more));
            items.push(item);
        }
        element("stack").replaceChildren(...items);
        element("stack-hint").hidden = items.length > 0;
        if (isChosen)
            this.flame.zoom(this.tree.of[recording.places.node[place]]);
    }

    fillMoments() {
        const rows = this.timeline.rows(24).map(cells => {
            const row = this.make("tr");
            row.append(...cells.map(text => this.make("td", "", text)));
            return row;
        });
        element("moments").tBodies[0].replaceChildren(...rows);
    }
}

unpack(element("data").textContent).then(bytes => {
    element("data").remove();
    window.page = new Page(new Recording(bytes));
    document.documentElement.dataset.state = "ready";
    requestAnimationFrame(() => setTimeout(() => performance.mark("usable"))); // drawn
}).catch(error => {
    document.documentElement.dataset.state = "failed";
    element("failure").hidden = false;
    throw error;
});
