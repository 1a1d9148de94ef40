// ClickHouse, embedded: a table of the Memory engine, results made into another.
import { Session } from "chdb";
import { columnNames, sqlType } from "./columns.mjs";
import { serve, timed } from "./workers.mjs";

const session = new Session();
for (const [name, value] of Object.entries({
    max_threads: 2,
    max_insert_threads: 2,
    precise_float_parsing: 1, // decimals are read as the nearest double, as by the others
    output_format_json_quote_64bit_integers: 0,
    format_csv_null_representation: "''",
}))
    session.query(`SET ${name} = ${value}`);

const rowsOf = (file, types) => {
    const read = columnNames.map((name) => `${name} ${sqlType(types, name)}`);
    return `SELECT * FROM file('${file}', 'CSVWithNames', '${read}')`;
};

await serve({
    async load({ file, oddTo, missing }) {
        const nullable = (type) => (missing ? `Nullable(${type})` : type);
        // Texts of few values are best kept by number; these are the types of the public benchmark.
        const types = {
            text: nullable("String"),
            integer: nullable("Int32"),
            decimal: nullable("Float64"),
        };
        const stored = columnNames.map((name) =>
            name === "id1" || name === "id2"
                ? `${name} LowCardinality(${types.text})`
                : `${name} ${sqlType(types, name)}`,
        );
        session.query(`CREATE TABLE x (${stored}) ENGINE = Memory`);
        session.query(`INSERT INTO x ${rowsOf(file, types)}`);
        session.query("CREATE TABLE odd (n Int32) ENGINE = Memory");
        session.query(`INSERT INTO odd SELECT number * 2 + 1 FROM numbers(intDiv(${oddTo} + 1, 2))`);
        return { rows: Number(session.query("SELECT count() FROM x", "TSV")) };
    },
    async view({ file }) {
        const types = { text: "String", integer: "Int32", decimal: "Float64" };
        session.query(`CREATE VIEW x AS ${rowsOf(file, types)}`);
        return {};
    },
    async release() {
        session.query("SYSTEM JEMALLOC PURGE");
        return {};
    },
    async run({ sql, check }) {
        const ms = await timed(() =>
            session.query(`CREATE TABLE answer ENGINE = Memory AS ${sql}`),
        );
        const rows = session.query(check, "JSONCompact");
        session.query("DROP TABLE answer SYNC");
        return { ms, answer: JSON.parse(rows).data };
    },
});
