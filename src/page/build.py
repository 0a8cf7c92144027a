#!/usr/bin/python3
"""Builds the page into a folder as Cockpit serves it: build.py FOLDER

Needs esbuild and nothing from the network. The same sources give the same bytes.
"""

import gzip
import shutil
import subprocess
import sys
from pathlib import Path

import catalogue

HERE = Path(__file__).resolve().parent
# What a browser loads, compressed. Cockpit has plug-ins loaded anew with each visit, so that size costs every time.
LIMIT = 150_000


def compressed(path):
    """Cockpit serves NAME.gz where NAME is asked for. Without a name and a time in it, the bytes are the same each time."""
    data = gzip.compress(path.read_bytes(), mtime=0)
    path.with_name(path.name + ".gz").write_bytes(data)
    path.unlink()
    return len(data)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__.strip())
    to = Path(sys.argv[1]).resolve()
    shutil.rmtree(to, ignore_errors=True)
    to.mkdir(parents=True)
    subprocess.run(["esbuild", "index.ts", "--bundle", "--minify", "--target=es2022", f"--outfile={to}/index.js", "--charset=utf8",
                    "--legal-comments=none", "--log-level=warning", "--external:../../static/*"], cwd=HERE, check=True)
    for name in ("index.html", "manifest.json"):
        shutil.copy(HERE / name, to / name)
    for source in sorted((HERE / "po").glob("*.po")):
        path = to / f"po.{source.stem}.js"
        path.write_text(catalogue.script(source), encoding="utf-8")
        compressed(path)
    size = sum(compressed(to / name) for name in ("index.js", "index.css"))
    if size > LIMIT:
        sys.exit(f"the page is {size} bytes compressed, more than {LIMIT}")
    print(f"{size} bytes compressed, of at most {LIMIT}")


if __name__ == "__main__":
    main()
