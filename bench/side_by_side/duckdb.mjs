// DuckDB: a table in memory, results made into a table in memory.
import { DuckDBInstance } from "@duckdb/node-api";
import { columnNames, sqlType } from "./columns.mjs";
import { serve, timed } from "./workers.mjs";

const types = { text: "VARCHAR", integer: "INTEGER", decimal: "DOUBLE" };
const instance = await DuckDBInstance.create(":memory:", { threads: "2" });
const connection = await instance.connect();
// Without it, results need not keep the order of the rows: faster.
await connection.run("SET preserve_insertion_order = false");

function rowsOf(file) {
    const columns = columnNames.map((name) => `'${name}': '${sqlType(types, name)}'`);
    return `SELECT * FROM read_csv('${file}', header = true, columns = {${columns}})`;
}

// A type of the texts that a column holds: its values become numbers.
async function makeEnums(columns) {
    for (const column of columns) {
        await connection.run(
            `CREATE TYPE ${column}_text AS ENUM (SELECT DISTINCT ${column} FROM x WHERE ${column} IS NOT NULL)`,
        );
        await connection.run(`ALTER TABLE x ALTER ${column} TYPE ${column}_text`);
    }
}

await serve({
    async load({ file, oddTo, enums }) {
        await connection.run(`CREATE TABLE x AS ${rowsOf(file)}`);
        if (enums) await makeEnums(["id1", "id2"]);
        await connection.run(
            `CREATE TABLE odd AS SELECT n::INTEGER AS n FROM range(1, ${oddTo} + 1, 2) r(n)`,
        );
        const counted = await connection.runAndReadAll("SELECT count(*)::INTEGER FROM x");
        return { rows: counted.getRows()[0][0] };
    },
    async view({ file }) {
        await connection.run(`CREATE VIEW x AS ${rowsOf(file)}`);
        return {};
    },
    // It has no statement for that.
    async release() {
        return {};
    },
    async run({ sql, check }) {
        const ms = await timed(() => connection.run(`CREATE TABLE answer AS ${sql}`));
        const answer = await connection.runAndReadAll(check);
        await connection.run("DROP TABLE answer");
        return { ms, answer: answer.getRows() };
    },
});
