// The comparison with other systems; scripts/bench builds what it needs and starts it.
import { execFileSync } from "node:child_process";
import { existsSync, mkdirSync } from "node:fs";
import { join } from "node:path";
import { parseArgs } from "node:util";

import { checkStatement, difference, groupsIn, tolerance } from "./answers.mjs";
import { cases, plan, statement } from "./cases.mjs";
import { Worker } from "./workers.mjs";

const { values: options } = parseArgs({
    options: {
        build: { type: "string", default: "build/bench" },
        out: { type: "string", default: "build/side_by_side" },
        rows: { type: "string", default: "1e7" },
        values: { type: "string", default: "100" },
        case: { type: "string", multiple: true },
        repetitions: { type: "string", default: "5" },
    },
});
const here = new URL(".", import.meta.url).pathname;

function generate(rows) {
    mkdirSync(options.out, { recursive: true });
    const file = join(options.out, `n${rows}_k${options.values}.csv`);
    if (!existsSync(file))
        execFileSync(join(options.build, "bin/side_by_side_generate"), ["--rows", String(rows), "--values", options.values, file]);
    return file;
}

const median = (numbers) => [...numbers].sort((a, b) => a - b)[Math.floor(numbers.length / 2)];

class System {
    constructor(name, worker, request) {
        this.name = name;
        this.worker = worker;
        this.request = request;
    }
}

const sqlRequest = (dialect) => (c, data) => ({
    run: { sql: statement(dialect, c, data), check: checkStatement(dialect, c.keys, c.results.length) },
});
const systems = [
    new System("ours", new Worker(join(options.build, "bin/side_by_side_engine"), []), (c) => ({
        run: { plan: plan(c), threads: 2 },
    })),
    new System("DuckDB", new Worker(process.execPath, [join(here, "duckdb.mjs")]), sqlRequest("duckdb")),
    new System("ClickHouse", new Worker(process.execPath, [join(here, "clickhouse.mjs")]), sqlRequest("clickhouse")),
];

const rows = Number(options.rows);
const file = generate(rows);
for (const { name, worker } of systems) {
    const reply = await worker.ask({ load: { file, oddTo: rows / Number(options.values) } });
    if (reply.rows !== rows) throw new Error(`${name} loaded ${JSON.stringify(reply)}`);
}
console.log(tolerance);
for (const c of cases.filter(({ id }) => !options.case || options.case.includes(id))) {
    const times = {};
    for (let i = 0; i < Number(options.repetitions); ++i) {
        let reference;
        for (const { name, worker, request } of systems) {
            worker.resetPeakMemory();
            const reply = await worker.ask(request(c, {}));
            if (reply.error) throw new Error(`${name}: ${reply.error}`);
            reference ??= reply.answer;
            const different = difference(reference, reply.answer);
            if (different) throw new Error(`${name}: ${different}`);
            (times[name] ??= []).push(reply.ms);
            if (i == 0) console.log(name, groupsIn(reply.answer), worker.peakMib(), reply.calls);
        }
    }
    for (const [name, t] of Object.entries(times)) console.log(c.title, name, median(t));
}
for (const { worker } of systems) worker.close();
