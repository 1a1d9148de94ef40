// What a comparison found: a table, JSON and a chart. A run of some cases takes its place among the
// results that are there for the same data.
import { execFileSync } from "node:child_process";
import { existsSync, readFileSync, writeFileSync } from "node:fs";
import { cpus, totalmem } from "node:os";
import { join } from "node:path";

import { tolerance } from "./answers.mjs";
import { cases } from "./cases.mjs";
import { drawChart } from "./chart.mjs";
import { fileCases } from "./files.mjs";
import { commandCases } from "./commands.mjs";
import { dataName, threads } from "./systems.mjs";

const round = (x) => Number(x.toPrecision(4));

export class Report {
    #base;
    #results;
    #found = { operators: {}, files: {}, commands: {} };

    constructor(options) {
        const enums = options.enums ? "_enums" : "";
        this.#base = join(options.out, dataName(options, options.rows[0]) + enums);
        const old = options.case.length && existsSync(`${this.#base}.json`);
        if (old) Object.assign(this.#found, JSON.parse(readFileSync(`${this.#base}.json`, "utf8")).found);
        const { rows, values, missing, sorted, enums: byNumber, commandsRows } = options;
        this.#results = {
            machine: `${cpus()[0].model}, ${cpus().length} cores, ${Math.round(totalmem() / 2 ** 30)} GiB`,
            threads,
            data: { rows: rows[0], values, missing, sorted, enums: byNumber, commandsRows },
            tolerance,
        };
    }

    add(kind, c, { skip, groups, runs }) {
        if (skip) return this.skip(c, skip);
        const [[, ours], ...peers] = Object.entries(runs);
        const [best, { ms }] = peers.reduce((a, b) => (b[1].ms < a[1].ms ? b : a));
        for (const run of Object.values(runs)) {
            run.ms = round(run.ms);
            run.times = run.times.map(round);
            run.peakMib = Math.round(run.peakMib);
            run.calls = run.calls?.map(([name, time]) => [name, round(time)]);
        }
        const entry = { title: c.title, bound: c.bound, groups, runs, best, ratio: round(ours.ms / ms) };
        this.#found[kind][c.id] = entry;
        console.log(`${c.title}: ${ours.ms} ms, ${entry.ratio} of ${best}'s ${round(ms)}`);
    }

    skip(c, why) {
        console.log(`${c.title}: left out, ${why}`);
    }

    write() {
        const order = [...cases, ...fileCases, ...commandCases].map(({ id }) => id);
        for (const [kind, entries] of Object.entries(this.#found))
            this.#found[kind] = Object.fromEntries(
                order.filter((id) => entries[id]).map((id) => [id, entries[id]]),
            );
        const results = { ...this.#results, found: this.#found };
        writeFileSync(`${this.#base}.json`, JSON.stringify(results, null, 1) + "\n");
        const text = table(results);
        writeFileSync(`${this.#base}.md`, text);
        writeFileSync(`${this.#base}.svg`, drawChart(results));
        execFileSync("rsvg-convert", ["--zoom", "2", `${this.#base}.svg`, "-o", `${this.#base}.png`]);
        console.log(`\n${text}\nwritten: ${this.#base}.{json,md,svg,png}`);
    }
}

export function describe({ machine, threads: n, data }) {
    const variant = [
        data.sorted && "sorted",
        data.missing && `${data.missing} % missing`,
        data.enums && "DuckDB's id1, id2 as ENUM",
    ].filter(Boolean);
    const rows = data.rows.toExponential(0).replace("+", "");
    return `${rows} rows, K = ${data.values}${variant.map((v) => `, ${v}`).join("")}; ${n} threads; ${machine}`;
}

function table(results) {
    const lines = [`${describe(results)}. Medians.`, `Answers compared: ${results.tolerance}.`];
    for (const entries of Object.values(results.found)) {
        const all = Object.values(entries);
        if (!all.length) continue;
        const systems = Object.keys(all[0].runs);
        const head = ["case", "groups", ...systems.map((s) => `${s}, ms`), "ours/best", ...systems.map((s) => `${s}, MiB`), "bound by"];
        lines.push("", `| ${head.join(" | ")} |`, `|${head.map((_, i) => (i && i < head.length - 1 ? "--:" : "---")).join("|")}|`);
        for (const { title, bound, groups, runs, ratio } of all) {
            const cells = [title, groups, ...systems.map((s) => runs[s].ms), ratio, ...systems.map((s) => runs[s].peakMib), bound ?? ""];
            lines.push(`| ${cells.join(" | ")} |`);
        }
    }
    return lines.join("\n") + "\n";
}
