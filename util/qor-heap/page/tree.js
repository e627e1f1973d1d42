// The tree that the flame graph shows: stacks by function. Lines of one function that call the same are one node.
"use strict";

class FunctionTree {
    constructor(recording) {
        const {parent, frame} = recording.nodes;
        const functions = recording.functions.name.length;
        const known = new Map();
        this.parent = [0];
        this.sample = [0]; // a node of the recording that this one stands for
        this.of = new Uint32Array(parent.length); // by node of the recording
        for (let i = 1; i < parent.length; ++i) {
            const above = this.of[parent[i]];
            const key = above * functions + recording.frames.function[frame[i]];
            let node = known.get(key);
            if (node === undefined) {
                node = this.parent.push(above) - 1;
                this.sample.push(i);
                known.set(key, node);
            }
            this.of[i] = node;
        }
        this.size = this.parent.length;
        this.depth = new Uint16Array(this.size);
        this.first = new Uint32Array(this.size + 1); // into `children`
        for (let i = 1; i < this.size; ++i) {
            this.depth[i] = this.depth[this.parent[i]] + 1;
            ++this.first[this.parent[i]];
        }
        for (let i = 0, sum = 0; i <= this.size; ++i)
            [this.first[i], sum] = [sum, sum + this.first[i]];
        this.children = new Uint32Array(this.size);
        const next = this.first.slice();
        for (let i = 1; i < this.size; ++i)
            this.children[next[this.parent[i]]++] = i;
    }

    // Returns what each node holds with all that it calls, from a value for each place.
    totals(recording, values) {
        const totals = new Float64Array(this.size);
        for (let i = 0; i < recording.size; ++i)
            totals[this.of[recording.places.node[i]]] += values[i];
        for (let i = this.size - 1; i > 0; --i)
            totals[this.parent[i]] += totals[i];
        return totals;
    }

    // The children of a node, the largest first.
    sorted(node, totals) {
        const children = this.children.subarray(this.first[node], this.first[node + 1]);
        return children.sort((a, b) => totals[b] - totals[a] || a - b);
    }
}
