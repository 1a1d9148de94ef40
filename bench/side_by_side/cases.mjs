// What is compared. A result is a call of our operators and the expression that is the same in SQL.
const result = (operator, columns, sql, more = {}) => ({
    call: { operator, columns, ...more },
    sql: typeof sql === "string" ? { duckdb: sql, clickhouse: sql } : sql,
});

const grouped = {
    sum: (c) => result("vask_grp_sum", [c], `sum(${c})`),
    mean: (c) => result("mean", [c], `avg(${c})`),
};

export const cases = [
    {
        id: "sum_by_id1",
        title: "sum v1 by id1",
        keys: ["id1"],
        results: [grouped.sum("v1")],
    },
];

// The statement whose answer a system makes into a table.
export function statement(dialect, { keys, results, sql }, data) {
    if (sql) return sql[dialect];
    const columns = results.map((r, i) => `${r.sql[dialect]} AS r${i}`);
    const by = keys.length ? ` GROUP BY ${keys}` : "";
    return `SELECT ${[...keys, ...columns]} FROM x${by}`;
}

export const plan = ({ keys, results }) => ({ keys, calls: results.map((r) => r.call) });
