"""Names the functions that a dump of clang's syntax tree declares and no library exports.

    undefined_declarations.py AST.json EXPORTED

EXPORTED has one symbol per line.
"""

import json
import sys

FUNCTIONS = {"FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl"}
TEMPLATES = {"FunctionTemplateDecl", "ClassTemplateDecl", "ClassTemplateSpecializationDecl"}


def documents(text):
    decoder = json.JSONDecoder()
    at = 0
    while at < len(text):
        node, at = decoder.raw_decode(text, at)
        yield node
        while at < len(text) and text[at].isspace():
            at += 1


def has_body(node):
    return any(inner.get("kind") == "CompoundStmt" for inner in node.get("inner", []))


def declared(node):
    """The functions under a node that must come from a library, by symbol."""
    kind = node.get("kind")
    if kind in TEMPLATES or node.get("isImplicit"):
        return
    if kind in FUNCTIONS:
        if not (has_body(node) or node.get("inline") or node.get("explicitlyDefaulted") or
                node.get("explicitlyDeleted") or node.get("pure")):
            yield node["mangledName"]
        return
    for inner in node.get("inner", []):
        yield from declared(inner)


def main():
    with open(sys.argv[1], encoding="utf-8") as tree:
        names = {name for node in documents(tree.read()) for name in declared(node)}
    with open(sys.argv[2], encoding="utf-8") as lines:
        exported = set(lines.read().split())
    if len(names) < 50:
        sys.exit(f"only {len(names)} functions were found in the headers")
    missing = sorted(names - exported)
    if missing:
        sys.exit("declared in an installed header and exported by no library:\n  " +
                 "\n  ".join(missing))


main()
