// Our time on one and two threads, and against the number of rows.
import { writeFileSync } from "node:fs";
import { join } from "node:path";

import { runRounds } from "./rounds.mjs";
import { startOurs, threads } from "./systems.mjs";

export async function measureScaling(options, cases) {
    const onThreads = options.scaling ? [1, threads] : [threads];
    const measured = new Map(cases.map((c) => [c.title, []]));
    for (const rows of options.rows) {
        const ours = await startOurs(options, rows);
        for (const c of cases) {
            for (const n of onThreads) {
                const system = { ...ours, request: (asked) => ours.request(asked, n) };
                const { skip, runs } = await runRounds([system], c, options.repetitions);
                if (!skip) measured.get(c.title).push({ rows, threads: n, ms: runs.ours.ms });
            }
        }
        ours.worker.close();
    }
    print(measured, options.scaling);
    writeFileSync(join(options.out, "scaling.json"), JSON.stringify([...measured], null, 1));
}

function print(measured, scaling) {
    for (const [title, points] of measured) {
        const texts = points.map(({ rows, threads: n, ms }) => {
            const one = points.find((p) => p.rows === rows && p.threads === 1);
            const gain = scaling && n > 1 ? `, ${(one.ms / ms).toFixed(2)}x of 1 thread` : "";
            const perRow = ((ms * 1e6) / rows).toFixed(1);
            return `${rows.toExponential(0)} rows, ${n} threads: ${ms.toFixed(1)} ms (${perRow} ns a row${gain})`;
        });
        console.log(`${title}\n  ${texts.join("\n  ")}`);
    }
}
