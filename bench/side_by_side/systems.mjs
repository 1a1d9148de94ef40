// The systems compared, each in a process of its own, with the data loaded.
import { execFileSync } from "node:child_process";
import { existsSync, mkdirSync, renameSync } from "node:fs";
import { join } from "node:path";

import { checkStatement } from "./answers.mjs";
import { plan, statement } from "./cases.mjs";
import { Worker } from "./workers.mjs";

export const threads = 2;
const here = new URL(".", import.meta.url).pathname;

export function dataName({ values, sorted, missing }, rows) {
    return `n${rows}_k${values}${sorted ? "_sorted" : ""}${missing ? `_missing${missing}` : ""}`;
}

// The file with the data, made if it is not there.
export function dataFile(options, rows) {
    mkdirSync(options.out, { recursive: true });
    const file = join(options.out, `${dataName(options, rows)}.csv`);
    if (!existsSync(file)) {
        const { values, missing, sorted } = options;
        const asked = ["--rows", rows, "--values", values, "--missing", missing];
        execFileSync(join(options.build, "bin/side_by_side_generate"), [
            ...asked.map(String),
            ...(sorted ? ["--sorted"] : []),
            `${file}.part`,
        ]);
        renameSync(`${file}.part`, file);
    }
    return file;
}

async function load(name, worker, options, rows) {
    const { missing, enums, values } = options;
    const file = dataFile(options, rows);
    const oddTo = Math.floor(rows / values);
    const reply = await worker.ask({ load: { file, oddTo, missing: missing > 0, enums } });
    if (reply.rows !== rows) throw new Error(`${name} did not load: ${JSON.stringify(reply)}`);
    await worker.ask({ release: {} });
    return worker.residentMib();
}

// Our side; `request` makes of a case what the worker is to do.
export async function startOurs(options, rows) {
    const worker = new Worker(join(options.build, "bin/side_by_side_engine"), []);
    const loadedMib = await load("ours", worker, options, rows);
    const request = (c, onThreads = threads) => ({ run: { plan: plan(c), threads: onThreads } });
    return { name: "ours", worker, loadedMib, request };
}

// The peers with the data loaded, or reading the file anew in each case.
export async function startPeers(options, rows, fromFile = false) {
    const peers = [];
    for (const name of ["DuckDB", "ClickHouse"]) {
        const dialect = name.toLowerCase();
        const worker = new Worker(process.execPath, [join(here, `${dialect}.mjs`)]);
        if (fromFile) await worker.ask({ view: { file: dataFile(options, rows) } });
        const loadedMib = fromFile ? worker.residentMib() : await load(name, worker, options, rows);
        const request = (c) => ({
            run: {
                sql: statement(dialect, c),
                check: checkStatement(dialect, c.keys, c.results.length),
            },
        });
        peers.push({ name, worker, loadedMib, request });
    }
    return peers;
}
