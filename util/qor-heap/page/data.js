// Unpacks the data of the page. page_data.h describes their form.
"use strict";

const measures = ["live", "peak", "allocated", "temporary"];
const units = ["bytes", "blocks"];

function fileName(path) {
    return path.slice(path.search(/[^/\\]*$/));
}

async function unpack(base64) {
    const text = atob(base64);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < bytes.length; ++i)
        bytes[i] = text.charCodeAt(i);
    if (bytes[0] !== 0x1f)
        return bytes; // not compressed
    const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("gzip"));
    return new Uint8Array(await new Response(stream).arrayBuffer());
}

// Reads LEB128 numbers. They are exact up to 2 ^ 53.
class Reader {
    constructor(bytes, place) {
        this.bytes = bytes;
        this.place = place;
    }

    number() {
        let value = 0;
        for (let factor = 1; ; factor *= 128) {
            const byte = this.bytes[this.place++];
            value += (byte & 127) * factor;
            if (!(byte & 128)) // also behind the end
                return value;
        }
    }

    column(size, type = Uint32Array) {
        const column = new type(size);
        for (let i = 0; i < size; ++i)
            column[i] = this.number();
        return column;
    }

    // A column whose numbers are differences to the number before.
    rising(size) {
        const column = this.column(size, Float64Array);
        for (let i = 1; i < size; ++i)
            column[i] += column[i - 1];
        return column;
    }
}

// The recording: head.runs[0], and in a comparison the earlier one: head.runs[1]. Numbers refer to entries of `texts`,
// `functions`, `frames` and `nodes`; 0 is nothing there.
class Recording {
    constructor(bytes) {
        const reader = new Reader(bytes, 4);
        const size = reader.number();
        this.head = JSON.parse(new TextDecoder().decode(bytes.subarray(reader.place, reader.place + size)));
        reader.place += size;
        this.texts = this.head.texts;
        const {functions, frames, nodes, places} = this.head.sizes;
        this.functions = {name: reader.column(functions), module: reader.column(functions),
                          file: reader.column(functions), marks: reader.column(functions)};
        this.frames = {function: reader.column(frames), line: reader.column(frames)};
        this.nodes = {parent: reader.column(nodes), frame: reader.column(nodes)};
        for (let i = 1; i < nodes; ++i)
            this.nodes.parent[i] = i - this.nodes.parent[i];
        this.places = {node: reader.column(places), type: reader.column(places), marks: reader.column(places)};
        this.size = places;
        this.passOverLibraryCode();
        // counts[run][measure][unit][place]
        this.counts = this.head.runs.map(() =>
            measures.map(() => units.map(() => reader.column(places, Float64Array))));
        this.moments = this.head.runs.map(run => ({
            time: reader.rising(run.moments),
            counts: units.map(() => reader.column(run.moments, Float64Array)),
        }));
    }

    // Finds for each place the innermost node outside of the language's own library, if there is one: that a vector
    // allocates by an allocator is nothing to look at.
    passOverLibraryCode() {
        this.places.shown = this.places.node.map(node => {
            let shown = node;
            while (shown && this.isLibraryCode(this.functionOf(shown)))
                shown = this.nodes.parent[shown];
            return shown || node;
        });
    }

    isLibraryCode(number) {
        return (this.functions.marks[number] & 1) !== 0;
    }

    functionOf(node) {
        return this.frames.function[this.nodes.frame[node]];
    }

    nameOf(node) {
        return this.texts[this.functions.name[this.functionOf(node)]];
    }

    // "file:line", as far as it is known.
    sourceOf(node, isShort) {
        let file = this.texts[this.functions.file[this.functionOf(node)]];
        if (isShort)
            file = fileName(file);
        const line = this.frames.line[this.nodes.frame[node]];
        return file && line ? `${file}:${line}` : file;
    }

    moduleOf(node) {
        return this.texts[this.functions.module[this.functionOf(node)]];
    }

    isMarked(place) {
        return (this.places.marks[place] & 1) !== 0;
    }

    sum(run, measure, unit) {
        return this.counts[run][measure][unit].reduce((sum, value) => sum + value, 0);
    }

    // Searches for a text, in small and capital letters alike. A place is found if a function of its stack has the text
    // in its name, its module or its source file, or if its type has it.
    search(text) {
        const wanted = text.toLowerCase();
        const texts = this.texts.map(each => each.toLowerCase().includes(wanted));
        const {name, module, file} = this.functions;
        const functions = name.map((each, i) => texts[each] || texts[module[i]] || texts[file[i]] ? 1 : 0);
        functions[0] = 0;
        const nodes = new Uint8Array(this.nodes.parent.length);
        for (let i = 1; i < nodes.length; ++i)
            nodes[i] = nodes[this.nodes.parent[i]] | functions[this.functionOf(i)];
        const {node, type} = this.places;
        return {functions, places: node.map((each, i) => nodes[each] || texts[type[i]] ? 1 : 0)};
    }
}
