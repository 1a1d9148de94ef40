// The command beside other commands that aggregate a file: reading and computing, from the start of
// the process to its end.
import { spawnSync } from "node:child_process";
import { readFileSync, rmSync } from "node:fs";
import { join } from "node:path";

import { near } from "./answers.mjs";
import { columnNames } from "./columns.mjs";
import { median } from "./rounds.mjs";
import { dataFile, threads } from "./systems.mjs";

// Aggregates of the same columns, by the names that the commands have for them.
const names = {
    sum: { vask: "sum", datamash: "sum", miller: "sum" },
    mean: { vask: "mean", datamash: "mean", miller: "mean" },
    median: { vask: "median", datamash: "median", miller: "p50" },
    sd: { vask: "stdev", datamash: "sstdev", miller: "stddev" },
};

export const commandCases = [
    { id: "command_sum_by_id1", keys: ["id1"], of: ["v1"], aggregates: ["sum"] },
    { id: "command_sum_by_id1_id2", keys: ["id1", "id2"], of: ["v1"], aggregates: ["sum"] },
    { id: "command_sum_mean_by_id3", keys: ["id3"], of: ["v3"], aggregates: ["sum", "mean"] },
    { id: "command_means_by_id4", keys: ["id4"], of: ["v1", "v2", "v3"], aggregates: ["mean"] },
    { id: "command_median_sd_by_id4_id5", keys: ["id4", "id5"], of: ["v3"], aggregates: ["median", "sd"] },
].map((c) => ({
    ...c,
    bound: "reading the text",
    title: `${c.aggregates.join(", ")} ${c.of.join(", ")} by ${c.keys.join(", ")}`,
}));

// Results in the order: for each column each aggregate.
const aggregates = ({ of, aggregates: asked }) => of.flatMap((c) => asked.map((a) => [names[a], c]));
const field = (name) => columnNames.indexOf(name) + 1;

const commands = {
    vask: (c, file, build) => [
        join(build, "bin/vask"),
        ...[file, "--threads", String(threads), "--format", "csv", "--group-by", c.keys.join(",")],
        ...["--agg", aggregates(c).map(([name, column]) => `${name.vask}(${column})`).join(",")],
    ],
    datamash: (c, file) => [
        ...["sh", "-c", `LC_ALL=C exec datamash "$@" < "$0"`, file, "-t,", "--header-in", "--sort"],
        ...["--group", c.keys.map(field).join(",")],
        ...aggregates(c).flatMap(([name, column]) => [name.datamash, String(field(column))]),
    ],
    Miller: (c, file) => [
        ...["mlr", "--csv", "stats1", "-i", "-f", c.of.join(","), "-g", c.keys.join(",")],
        ...["-a", c.aggregates.map((a) => names[a].miller).join(","), file],
    ],
};

// Lines of keys and results.
function parse(text, keys, hasHeader) {
    const lines = text.trim().split("\n").slice(hasHeader ? 1 : 0);
    return new Map(
        lines.map((line) => {
            const cells = line.split(",");
            return [cells.slice(0, keys).join(","), cells.slice(keys).map((cell) => (cell === "" ? NaN : Number(cell)))];
        }),
    );
}

const same = (a, b) => near(a, b) || (Number.isNaN(a) && Number.isNaN(b));

function compare(a, b) {
    if (a.size !== b.size) return `${a.size} groups against ${b.size}`;
    for (const [key, values] of a) {
        const others = b.get(key);
        if (others?.length !== values.length || !values.every((v, i) => same(v, others[i])))
            return `${key}: ${values} against ${others}`;
    }
    return undefined;
}

function runOnce(words, out) {
    const usage = join(out, "usage");
    const begin = performance.now();
    const ended = spawnSync("/usr/bin/time", ["-f", "%M", "-o", usage, ...words], {
        encoding: "utf8",
        maxBuffer: 2 ** 30,
    });
    const ms = performance.now() - begin;
    if (ended.status !== 0) throw new Error(`${words.join(" ")}: ${ended.stderr}`);
    const peakMib = Number(readFileSync(usage, "utf8")) / 1024;
    rmSync(usage);
    return { ms, peakMib, text: ended.stdout };
}

// As runRounds, but that every run is a process of its own.
export function runCommands(c, options) {
    const file = dataFile(options, options.commandsRows);
    const runs = {};
    let groups;
    for (let round = 0; round < Math.min(options.repetitions, 3); ++round) {
        let reference;
        for (const [name, words] of Object.entries(commands)) {
            const { ms, peakMib, text } = runOnce(words(c, file, options.build), options.out);
            const answer = parse(text, c.keys.length, name !== "datamash");
            reference ??= answer;
            const different = compare(reference, answer);
            if (different) throw new Error(`${c.title}: vask and ${name} differ: ${different}`);
            groups = answer.size;
            const run = (runs[name] ??= { times: [], peaks: [] });
            run.times.push(ms);
            run.peaks.push(peakMib);
        }
    }
    for (const run of Object.values(runs)) {
        run.ms = median(run.times);
        run.peakMib = median(run.peaks);
        delete run.peaks;
    }
    return { groups, runs };
}
