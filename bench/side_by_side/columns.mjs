// The columns of the data.
const kinds = {
    id1: "text",
    id2: "text",
    id3: "text",
    id4: "integer",
    id5: "integer",
    id6: "integer",
    v1: "integer",
    v2: "integer",
    v3: "decimal",
};

export const columnNames = Object.keys(kinds);
export const isText = (name) => kinds[name] === "text";
export const sqlType = (types, name) => types[kinds[name]];
