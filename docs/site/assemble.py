"""Lays the site's pages out: the documents with their links turned to pages, and a page for each
public header.

    assemble.py REPOSITORY OUTPUT
"""

import os
import re
import shutil
import sys
from pathlib import Path

LINK = re.compile(r"(!?\[[^\]]*\])\(([^)\s]+)\)")
# Folders whose Markdown files are pages.
PAGES = {"README.md": "about.md", "CONTRIBUTING.md": "contributing.md", "CHANGELOG.md": "changes.md",
         "bench/README.md": "bench.md"}


def page_of(path):
    """Where on the site a file of the repository stands; None: nowhere."""
    if path in PAGES:
        return PAGES[path]
    if path.startswith("docs/"):
        return path[len("docs/"):]
    if path.startswith("include/vask/") and path.endswith(".h"):
        return "reference/" + path[len("include/vask/"):-2] + ".md"
    return None


def write(output, page, text):
    to = output / page
    to.parent.mkdir(parents=True, exist_ok=True)
    to.write_text(text, encoding="utf-8")


class Site:
    def __init__(self, repository, output):
        self.repository = repository
        self.output = output

    def file_page(self, path):
        """A page with a source file that some document names."""
        page = "files/" + path + ".md"
        if not (self.output / page).exists():
            language = {".cpp": "cpp", ".h": "cpp", ".c": "c", ".py": "python"}.get(Path(path).suffix, "text")
            text = (self.repository / path).read_text(encoding="utf-8")
            write(self.output, page, f"# {path}\n\n````{language}\n{text}````\n")
        return page

    def target(self, source, page, link):
        """A link of a document, as it reads on its page."""
        if re.match(r"[a-z]+:|#", link):
            return link
        path, _, anchor = link.partition("#")
        path = os.path.normpath(os.path.join(os.path.dirname(source), path))
        full = self.repository / path
        if full.is_dir():
            path = "docs/architecture.md"
        elif not full.exists():
            sys.exit(f"{source}: there is no {path}")
        to = page_of(path)
        if to is None:
            to = self.file_page(path)
        relative = os.path.relpath(to, os.path.dirname(page) or ".")
        return relative + ("#" + anchor if anchor else "")

    def document(self, source):
        page = page_of(source)
        text = (self.repository / source).read_text(encoding="utf-8")
        parts = re.split(r"(^```.*?^```$)", text, flags=re.M | re.S)
        for i in range(0, len(parts), 2):
            parts[i] = LINK.sub(
                lambda m: f"{m[1]}({self.target(source, page, m[2])})", parts[i])
        write(self.output, page, "".join(parts))

    def header(self, source):
        text = (self.repository / source).read_text(encoding="utf-8")
        write(self.output, page_of(source), rendered_header(source[len("include/"):], text))


def unstarred(comment):
    """The words of a comment, without its marks."""
    comment = re.sub(r"^/\*+\s?|\s*\*/$", "", comment)
    lines = [re.sub(r"^\s*(\*|//[!/]?<?) ?", "", line) for line in comment.splitlines()]
    return "\n".join(lines).strip("\n")


def prose(words):
    """A comment as Markdown: indented lines and tables of two blanks stand as they are."""
    result, code = [], []

    def end_code():
        if code:
            # Tables of words stand among the examples.
            is_code = any(re.search(r"[;{}]|->|::", line) for line in code)
            result.extend(["", "```cpp" if is_code else "```text", *code, "```", ""])
            code.clear()

    for line in words.splitlines():
        if line.startswith("  ") or (code and not line.strip()):
            code.append(line[2:] if line.startswith("  ") else "")
            continue
        end_code()
        # A word before a colon begins a part of a contract.
        line = re.sub(r"^((?!An? )[A-Z][A-Za-z, ]{2,40}):(?= |$)", r"\n**\1:**", line)
        result.append(re.sub(r"([*_<])(?=\w)", r"\\\1", line) if not line.startswith("\n**") else line)
    while code and not code[-1]:
        code.pop()
    end_code()
    return "\n".join(result)


def title_of(words):
    first = re.split(r"(?<=[.:])\s", " ".join(words.split()), maxsplit=1)[0]
    first = first.rstrip(".:")
    return first if len(first) <= 90 else first[:87].rsplit(" ", 1)[0] + " ..."


def rendered_header(name, text):
    """A block comment at the margin is a contract; what stands under it is declared by it."""
    # What stands above an #if is about that, not about what is declared.
    text = re.sub(r"^(?://[^!\n][^\n]*\n)+(?=#if)", "", text, flags=re.M)
    comment = re.compile(r"^(?:/\*(?!.*\*/ *\S).*?\*/|(?://[^\n]*\n)+)", re.M | re.S)
    pieces, at = [], 0
    for found in comment.finditer(text):
        pieces.append(("code", text[at:found.start()]))
        pieces.append(("comment", found[0]))
        at = found.end()
    pieces.append(("code", text[at:]))
    page = [f"# {name}", "", f'`#include "{name}"`', ""]
    first = True
    for kind, piece in pieces:
        if kind == "comment":
            words = unstarred(piece.rstrip("\n"))
            section = re.match(r"---- (.*?) -+$", words)
            if section:
                page += [f"## {section[1].capitalize()}", ""]
            elif words:
                if not first:
                    page += [f"### {title_of(words)}", ""]
                page += [prose(words), ""]
                first = False
        else:
            lines = [line for line in piece.splitlines()
                     if not re.match(r"#(ifdef|ifndef|define|endif|if|else|include|pragma|error)\b(?!.*VASK_(MAKE_)?VERSION)", line)
                     and line not in ('extern "C" {', "} // extern")]
            code = "\n".join(lines).strip("\n")
            if code.strip("} \n"):
                page += ["```cpp", re.sub(r"\n{3,}", "\n\n", code), "```", ""]
    return "\n".join(page)


def main():
    repository, output = Path(sys.argv[1]), Path(sys.argv[2])
    shutil.rmtree(output, ignore_errors=True)
    site = Site(repository, output)
    documents = [str(p.relative_to(repository)) for p in (repository / "docs").rglob("*.md")]
    for source in documents + list(PAGES):
        site.document(source)
    for picture in (repository / "docs").rglob("*.svg"):
        to = output / picture.relative_to(repository / "docs")
        to.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(picture, to)
    shutil.copy(repository / "docs/site/tables.css", output)
    for header in (repository / "include/vask").rglob("*.h"):
        site.header(str(header.relative_to(repository)))


main()
