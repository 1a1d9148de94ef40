// The command line.
import { parseArgs } from "node:util";

const usage = `scripts/bench [options]
  --rows N[,N...]      rows of the data (1e7); several: our time against rows, without peers
  --values K[,K...]    values of id1, id2, id4, id5, one comparison for each (100,10,2)
  --sorted             rows in the order of id1 to id6
  --missing PERCENT    share of missing cells (0)
  --no-files           leave out the cases that read the file
  --case ID[,ID...]    only these; they take their places in the results that are there
  --scaling            our time on 1 and 2 threads, without peers
  --enums              DuckDB keeps id1, id2 by number, as a type made from their values
  --repetitions N      timed rounds (5), fewer where they take long
  --commands-rows N    rows of the file for the commands (1e6); 0: leave them out
  --out DIR            data and results (build/side_by_side)
  --list               name the cases`;

export function readOptions() {
    const text = (value) => ({ type: "string", default: value });
    const flag = { type: "boolean", default: false };
    const { values } = parseArgs({
        options: {
            build: text("build/bench"),
            out: text("build/side_by_side"),
            rows: text("1e7"),
            values: text("100,10,2"),
            missing: text("0"),
            repetitions: text("5"),
            "commands-rows": text("1e6"),
            case: { type: "string", multiple: true, default: [] },
            sorted: flag,
            scaling: flag,
            enums: flag,
            "no-files": flag,
            list: flag,
            help: flag,
        },
    });
    if (values.help) {
        console.log(usage);
        process.exit(0);
    }
    return {
        ...values,
        rows: values.rows.split(",").map(Number),
        values: values.values.split(",").map(Number),
        missing: Number(values.missing),
        repetitions: Number(values.repetitions),
        commandsRows: Number(values["commands-rows"]),
        case: values.case.flatMap((ids) => ids.split(",")),
    };
}
