// The table of places: sums by place, line, function, type or module. Only the rows in sight are in the document.
"use strict";

const lineHeight = 26;

class PlaceTable {
    // on.select(place): a row was chosen; `place` is the largest of it.
    constructor(table, scroller, recording, format, on) {
        Object.assign(this, {table, scroller, recording, format, on, grouping: "place", selected: -1});
        [this.head, this.body] = [table.tHead, table.tBodies[0]];
        this.order = new Uint32Array(0);
        this.isComparison = recording.head.runs.length > 1;
        this.sort = {key: null, isRising: false};
        this.rank = PlaceTable.ranks(recording.texts);
        this.fileRank = PlaceTable.ranks(recording.texts.map(fileName));

        scroller.addEventListener("scroll", () => this.fill());
        new ResizeObserver(() => this.fill()).observe(scroller);
        table.addEventListener("keydown", event => this.press(event));
        this.head.addEventListener("click", event => {
            const button = event.target.closest("button");
            if (button)
                this.sortBy(button.dataset.key);
        });
        this.body.addEventListener("click", event => {
            const row = event.target.closest("tr[data-row]");
            if (row)
                this.select(Number(row.dataset.row), true);
        });
    }

    // The rank of each text in the order of the alphabet, so that sorting compares numbers.
    static ranks(texts) {
        const simple = texts.map(text => text.toLowerCase());
        const sorted = Array.from(simple.keys()).sort(
            (a, b) => simple[a] < simple[b] ? -1 : simple[a] > simple[b] ? 1 : a - b);
        const ranks = new Uint32Array(texts.length);
        sorted.forEach((text, i) => ranks[text] = i);
        return ranks;
    }

    // The columns with numbers: a sum of each measure, or before, now and change.
    numberColumns() {
        const {labels} = this.recording.head;
        const sum = (run, measure) => ({run, measure});
        if (this.isComparison)
            return [{key: "earlier", label: labels.earlier, ...sum(1, this.measure)},
                    {key: "now", label: labels.now, ...sum(0, this.measure)},
                    {key: "change", label: labels.change}];
        return measures.map((key, measure) => ({key, label: labels[`column_${key}`], ...sum(0, measure)}));
    }

    // found: what a search has found, or null.
    show(measure, unit, found, onlyGrowing) {
        const before = this.isComparison ? "change" : measures[this.measure];
        Object.assign(this, {measure, unit, found, onlyGrowing});
        if (this.sort.key === null || this.sort.key === before)
            this.sort = {key: this.isComparison ? "change" : measures[measure], isRising: false};
        this.columns = this.numberColumns();
        this.group();
        this.drawHead();
        this.arrange();
    }

    // Sums by group. `first` is the place with the largest sum in the measure shown.
    group() {
        const {recording} = this;
        const {shown, type} = recording.places;
        const {function: functionOf} = recording.frames;
        const frame = i => recording.nodes.frame[shown[i]];
        const keyOf = {
            place: i => i,
            line: frame,
            function: i => functionOf[frame(i)],
            type: i => type[i],
            module: i => recording.functions.module[functionOf[frame(i)]],
        }[this.grouping];
        const ids = new Map();
        const groups = new Int32Array(recording.size).fill(-1);
        const weights = recording.counts[0][this.measure][this.unit];
        this.first = [];
        this.grows = [];
        const isShown = i => (!this.found || this.found.places[i]) && (!this.onlyGrowing || recording.isMarked(i));
        for (let i = 0; i < recording.size; ++i) {
            if (!isShown(i))
                continue;
            const key = keyOf(i);
            let group = ids.get(key);
            if (group === undefined) {
                group = this.first.push(i) - 1;
                this.grows.push(false);
                ids.set(key, group);
            } else if (weights[i] > weights[this.first[group]]) {
                this.first[group] = i;
            }
            this.grows[group] ||= recording.isMarked(i);
            groups[i] = group;
        }
        for (const column of this.columns) {
            column.sums = new Float64Array(this.first.length);
            if (column.run === undefined)
                continue;
            const values = recording.counts[column.run][column.measure][this.unit];
            for (let i = 0; i < groups.length; ++i)
                if (groups[i] >= 0)
                    column.sums[groups[i]] += values[i];
            column.whole = recording.sum(column.run, column.measure, this.unit);
        }
        if (this.isComparison)
            this.columns[2].sums = this.columns[1].sums.map((now, i) => now - this.columns[0].sums[i]);
    }

    textColumns() {
        const {labels, sizes} = this.recording.head;
        const {recording} = this;
        const node = i => recording.places.shown[i];
        const text = (key, label, of, rank, full) => ({key, label, of, rank, full});
        const {functions, frames} = recording;
        const all = {
            function: text("function", labels.function, i => recording.nameOf(node(i)),
                           i => this.rank[functions.name[recording.functionOf(node(i))]]),
            source: text("source", labels.source, i => recording.sourceOf(node(i), true),
                         i => this.fileRank[functions.file[recording.functionOf(node(i))]] * 2 ** 24
                             + frames.line[recording.nodes.frame[node(i)]] % 2 ** 24,
                         i => recording.sourceOf(node(i))),
            type: text("type", labels.type, i => recording.texts[recording.places.type[i]],
                       i => this.rank[recording.places.type[i]]),
            module: text("module", labels.module, i => fileName(recording.moduleOf(node(i))),
                         i => this.fileRank[functions.module[recording.functionOf(node(i))]],
                         i => recording.moduleOf(node(i))),
        };
        const type = sizes.types > 0 ? [all.type] : [];
        return {
            place: [all.function, all.source, ...type, all.module], line: [all.function, all.source, all.module],
            function: [all.function, all.module], type: [all.type], module: [all.module],
        }[this.grouping];
    }

    drawHead() {
        this.texts = this.textColumns();
        const row = document.createElement("tr");
        row.setAttribute("aria-rowindex", 1);
        for (const column of [...this.columns, ...this.texts]) {
            const cell = document.createElement("th");
            cell.scope = "col";
            cell.className = column.of ? `text ${column.key}` : "number";
            const button = document.createElement("button");
            button.type = "button";
            button.dataset.key = column.key;
            button.textContent = column.label;
            cell.append(button);
            row.append(cell);
        }
        const focused = this.head.contains(document.activeElement) && document.activeElement.dataset.key;
        this.head.replaceChildren(row);
        if (focused)
            this.head.querySelector(`[data-key=${focused}]`)?.focus();
    }

    sortBy(key) {
        const isText = this.texts.some(column => column.key === key);
        this.sort = {key, isRising: this.sort.key === key ? !this.sort.isRising : isText};
        this.arrange();
    }

    // The rows in order, from the first.
    arrange() {
        const {key, isRising} = this.sort;
        const column = this.columns.find(each => each.key === key);
        const text = this.texts.find(each => each.key === key);
        const keys = column ? column.sums
            : text ? Float64Array.from(this.first, text.rank) : new Float64Array(this.first.length);
        const sign = isRising ? 1 : -1;
        this.order = Uint32Array.from(this.first.keys()).sort((a, b) => sign * (keys[a] - keys[b]) || a - b);
        for (const button of this.head.querySelectorAll("button")) {
            const cell = button.parentElement;
            if (button.dataset.key === key)
                cell.setAttribute("aria-sort", isRising ? "ascending" : "descending");
            else
                cell.removeAttribute("aria-sort");
        }
        this.table.setAttribute("aria-rowcount", this.order.length + 1);
        this.table.setAttribute("aria-colcount", this.columns.length + this.texts.length);
        this.selected = -1;
        this.scroller.scrollTop = 0;
        const height = this.order.length * lineHeight + this.head.offsetHeight + 4;
        this.scroller.style.height = `${Math.max(140, Math.min(440, height))}px`;
        this.fill();
    }

    // Makes the rows that are in sight.
    fill() {
        const height = this.scroller.clientHeight;
        const count = Math.ceil(height / lineHeight) + 4;
        const top = Math.floor(this.scroller.scrollTop / lineHeight) - 2;
        const begin = Math.max(0, Math.min(top, this.order.length - count));
        const end = Math.min(this.order.length, begin + count);
        const space = rows => {
            const row = document.createElement("tr");
            row.setAttribute("aria-hidden", "true");
            row.className = "space";
            const cell = row.insertCell();
            cell.colSpan = this.columns.length + this.texts.length;
            cell.style.height = `${rows * lineHeight}px`;
            return row;
        };
        const rows = [space(begin)];
        for (let i = begin; i < end; ++i)
            rows.push(this.makeRow(i));
        rows.push(space(this.order.length - end));
        this.body.replaceChildren(...rows);
        const isInSight = this.selected >= begin && this.selected < end;
        this.table.setAttribute("aria-activedescendant", isInSight ? "selected-row" : "");
    }

    makeRow(index) {
        const group = this.order[index];
        const row = document.createElement("tr");
        row.dataset.row = index;
        row.setAttribute("aria-rowindex", index + 2);
        row.setAttribute("aria-selected", index === this.selected);
        if (index === this.selected)
            row.id = "selected-row";
        for (const column of this.columns)
            this.addNumber(row, column, column.sums[group]);
        for (const column of this.texts) {
            const cell = row.insertCell();
            cell.className = `text ${column.key}`;
            const name = cell.appendChild(document.createElement("bdi"));
            name.textContent = column.of(this.first[group]);
            cell.title = column.full ? column.full(this.first[group]) : name.textContent;
            if (column === this.texts[0] && this.grows[group]) {
                const badge = document.createElement("span");
                badge.className = "badge";
                badge.textContent = this.recording.head.labels.growing;
                cell.prepend(badge);
            }
        }
        return row;
    }

    addNumber(row, column, value) {
        const cell = row.insertCell();
        const isChange = column.run === undefined;
        cell.className = "number";
        cell.textContent = (isChange && value > 0 ? "+" : "") + this.format[units[this.unit]](value);
        cell.title = this.format.text(units[this.unit], this.format.number(value));
        if (isChange) {
            cell.classList.toggle("more", value > 0);
            cell.classList.toggle("less", value < 0);
        } else if (column.measure === this.measure && column.run === 0 && column.whole > 0) {
            cell.classList.add("share");
            cell.style.setProperty("--share", `${100 * value / column.whole}%`);
            cell.title += ` (${this.format.share(value / column.whole)})`;
        }
    }

    select(index, isChosen) {
        if (index < 0 || index >= this.order.length)
            return;
        this.selected = index;
        const top = index * lineHeight;
        const sight = this.scroller.clientHeight - this.head.offsetHeight - lineHeight;
        if (top < this.scroller.scrollTop)
            this.scroller.scrollTop = top;
        else if (top > this.scroller.scrollTop + sight)
            this.scroller.scrollTop = top - sight;
        this.fill();
        this.on.select(this.first[this.order[index]], isChosen);
    }

    press(event) {
        if (event.target.closest("thead"))
            return;
        const page = Math.max(1, Math.floor(this.scroller.clientHeight / lineHeight) - 2);
        const to = {
            ArrowUp: this.selected - 1, ArrowDown: this.selected + 1, PageUp: this.selected - page,
            PageDown: this.selected + page, Home: 0, End: this.order.length - 1, Enter: this.selected,
        }[event.key];
        if (to === undefined)
            return;
        this.select(Math.max(0, Math.min(this.order.length - 1, to)), event.key === "Enter");
        event.preventDefault();
    }
}
