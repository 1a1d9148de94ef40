// The comparison with other systems; scripts/bench builds what it needs and starts it.
import { cases } from "./cases.mjs";
import { commandCases, runCommands } from "./commands.mjs";
import { commandOnFile, fileCases } from "./files.mjs";
import { readOptions } from "./options.mjs";
import { Report } from "./report.mjs";
import { runRounds } from "./rounds.mjs";
import { measureScaling } from "./scaling.mjs";
import { startOurs, startPeers } from "./systems.mjs";

const options = readOptions();
const asked = (all) => all.filter(({ id }) => !options.case.length || options.case.includes(id));
const known = [...cases, ...fileCases, ...commandCases];
const unknown = options.case.filter((id) => !known.some((c) => c.id === id));

if (options.list || unknown.length) {
    for (const { id, title } of known) console.log(id.padEnd(28), title);
    if (unknown.length) console.error(`unknown: ${unknown}`);
    process.exit(unknown.length ? 2 : 0);
}
if (options.scaling || options.rows.length > 1)
    await measureScaling({ ...options, values: options.values[0] }, asked(cases));
else
    for (const [i, values] of options.values.entries())
        await compare({ ...options, values, commandsRows: i === 0 ? options.commandsRows : 0 });

async function compare(options) {
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
    // A missing text and an empty one are the same in the file.
    if (asked(fileCases).length && !options["no-files"] && !options.missing) {
        const systems = [commandOnFile(options, rows), ...(await startPeers(options, rows, true))];
        for (const c of asked(fileCases))
            report.add("files", c, await runRounds(systems, c, options.repetitions));
        for (const { worker } of systems) worker.close();
    }
    if (options.commandsRows)
        for (const c of asked(commandCases))
            report.add("commands", c, runCommands(c, options));
    report.write();
}
