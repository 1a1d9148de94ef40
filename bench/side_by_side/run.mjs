// The comparison with other systems; scripts/bench builds what it needs and starts it.
import { cases } from "./cases.mjs";
import { commandCases, runCommands } from "./commands.mjs";
import { readOptions } from "./options.mjs";
import { Report } from "./report.mjs";
import { runRounds } from "./rounds.mjs";
import { measureScaling } from "./scaling.mjs";
import { startOurs, startPeers } from "./systems.mjs";

const options = readOptions();
const asked = (all) => all.filter(({ id }) => !options.case.length || options.case.includes(id));
const unknown = options.case.filter((id) => ![...cases, ...commandCases].some((c) => c.id === id));

if (options.list || unknown.length) {
    for (const { id, title } of [...cases, ...commandCases]) console.log(id.padEnd(28), title);
    if (unknown.length) console.error(`unknown: ${unknown}`);
    process.exit(unknown.length ? 2 : 0);
}
if (options.scaling || options.rows.length > 1) await measureScaling(options, asked(cases));
else await compare();

async function compare() {
    const report = new Report(options);
    const [rows] = options.rows;
    if (asked(cases).length) {
        const systems = [await startOurs(options, rows), ...(await startPeers(options, rows))];
        for (const c of asked(cases)) {
            if (c.noMissing && options.missing) report.skip(c, "takes no missing values");
            else report.add("operators", c, await runRounds(systems, c, options.repetitions));
        }
        for (const { worker } of systems) worker.close();
    }
    if (options.commandsRows)
        for (const c of asked(commandCases))
            report.add("commands", c, runCommands(c, options));
    report.write();
}
