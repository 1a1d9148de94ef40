"""Runs what a document shows: its commands, programs and build files, against an installed tree.

    run_snippets.py DOCUMENT PREFIX SCRATCH

Fenced blocks by their language:

    console   a command behind each "$ ", then what it prints; lines that begin with "..." stand
              for any. A block of another language whose first line begins with "$ " counts as one.
    sh        a script, run as it stands
    cpp, c    a program, or statements that are put into one; a text block right behind it has
              what it prints. Headers that statements want are those of the block, or embed.h and ops.h
    cmake     the build file of the document's first whole C++ program

Commands run in SCRATCH, which has links to the folders that they name and to the example files.

A comment "<!-- not run: REASON -->" on the line above a block leaves it out. Blocks of other
languages are text.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

BLOCK = re.compile(r"(?:^<!-- not run: (?P<reason>[^>]*?) -->\n)?"
                   r"^```(?P<language>\w*)\n(?P<text>.*?)^```$", re.M | re.S)
SOURCE = Path(__file__).resolve().parents[2]


class Failure(Exception):
    pass


def run(command, **more):
    return subprocess.run(command, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=240, check=False, **more)


def expect(said, wanted, what):
    pattern = "\n".join(".*" if line.startswith("...") else re.escape(line.rstrip())
                        for line in wanted.rstrip().splitlines())
    said = "\n".join(line.rstrip() for line in said.rstrip().splitlines())
    if not re.fullmatch(pattern, said, re.S):
        raise Failure(f"{what}\nprints\n{said}\nand not\n{wanted.rstrip()}")


class Document:
    def __init__(self, path, prefix, scratch):
        self.prefix, self.scratch = Path(prefix).resolve(), Path(scratch).resolve()
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir(parents=True)
        for there in [SOURCE / "examples", SOURCE / "include", SOURCE / "examples/data/penguins.csv",
                      *(SOURCE / "tests/docs/data").iterdir()]:
            (self.scratch / there.name).symlink_to(there)
        self.blocks = [(m["language"], m["text"], m["reason"])
                       for m in BLOCK.finditer(path.read_text(encoding="utf-8"))]
        self.environment = dict(os.environ, SCRATCH=str(self.scratch), VASK_LIB=str(self.prefix / "lib"),
                                PATH=f"{self.prefix}/bin:{os.environ['PATH']}")
        self.ran = 0

    def shell(self, text):
        # Documents name the command by its place in the build.
        text = text.replace("build/release/bin/vask", "vask")
        return run(["bash", "-e", "-o", "pipefail", "-c", text], env=self.environment, cwd=self.scratch)

    def console(self, text):
        for piece in re.split(r"^\$ ", text, flags=re.M)[1:]:
            lines = piece.splitlines()
            end = 1
            while lines[end - 1].endswith("\\"):
                end += 1
            command, wanted = "\n".join(lines[:end]), "\n".join(lines[end:])
            expect(self.shell(command).stdout, wanted, command)

    def compile(self, text, language):
        if "int main" not in text:
            includes = "".join(re.findall(r"^#include.*\n", text, flags=re.M))
            statements = re.sub(r"^#include.*\n", "", text, flags=re.M)
            text = (f'{includes}#include "vask/embed.h"\n#include "vask/ops.h"\n'
                    '#include "vask/refkernel/instrumentation.h"\n#include <cstdio>\n#include <vector>\n'
                    f"int main() {{\n{statements}}}\n")
        name = self.scratch / f"snippet{self.ran}"
        source = name.with_suffix("." + language)
        source.write_text(text, encoding="utf-8")
        compiler = ([os.environ.get("CXX", "c++"), "-std=c++20"] if language == "cpp" else
                    [os.environ.get("CC", "cc"), "-std=c11"])
        libraries = ["-lvask"] if "vask/vask.h" in text else ["-lvask_refkernel", "-l_vask_ops"]
        made = run([*compiler, "-Wall", "-Wextra", "-Wno-unused-variable", f"-I{self.prefix}/include", source, "-o", name,
                    f"-L{self.prefix}/lib", *libraries, f"-Wl,-rpath,{self.prefix}/lib"])
        if made.returncode or "warning:" in made.stdout:
            raise Failure(f"{text}\n{made.stdout}")
        ran = run([name])
        if ran.returncode:
            raise Failure(f"{text}\nends with status {ran.returncode}\n{ran.stdout}")
        return ran.stdout

    def cmake(self, text):
        program = next(t for language, t, _ in self.blocks if language == "cpp" and "int main" in t)
        project = self.scratch / "project"
        project.mkdir(exist_ok=True)
        (project / "main.cpp").write_text(program, encoding="utf-8")
        (project / "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.20)\nproject(snippet LANGUAGES CXX)\n{text}", encoding="utf-8")
        for step in ([f"-S{project}", f"-B{project}/build", f"-DCMAKE_PREFIX_PATH={self.prefix}"],
                     ["--build", f"{project}/build"]):
            done = run(["cmake", *step])
            if done.returncode:
                raise Failure(f"{text}\n{done.stdout}")

    def run_block(self, at):
        language, text, reason = self.blocks[at]
        if reason:
            return
        printed = None
        if text.startswith("$ "):
            self.console(text)
        elif language == "sh":
            done = self.shell(text)
            if done.returncode:
                raise Failure(f"{text}\nends with status {done.returncode}\n{done.stdout}")
        elif language in ("cpp", "c"):
            printed = self.compile(text, language)
        elif language == "cmake":
            self.cmake(text)
        else:
            return
        self.ran += 1
        if printed is not None and at + 1 < len(self.blocks) and self.blocks[at + 1][0] == "text":
            expect(printed, self.blocks[at + 1][1], text)


def main():
    path = Path(sys.argv[1])
    document = Document(path, sys.argv[2], sys.argv[3])
    failures = 0
    for at in range(len(document.blocks)):
        try:
            document.run_block(at)
        except Failure as failure:
            failures += 1
            print(f"{path}: {failure}\n", file=sys.stderr)
    if failures or document.ran == 0:
        sys.exit(f"{path}: {failures} of {document.ran + failures} fail")
    print(f"{path}: {document.ran} ran")


main()
