#!/usr/bin/python3
"""Runs what of the page needs no browser: types, translations, and the tests of unit/ with node's own runner."""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
PAGE = ROOT / "src/page"


def main():
    subprocess.run(["tsc", "-p", PAGE], check=True)
    subprocess.run([sys.executable, "-B", PAGE / "catalogue.py", "check"], check=True)
    with tempfile.TemporaryDirectory() as folder:
        described = Path(folder) / "protocol.ts"
        subprocess.run([sys.executable, ROOT / "data/describe.py", "typescript", ROOT / "data/protocol.json", described], check=True)
        if described.read_bytes() != (PAGE / "protocol.ts").read_bytes():
            sys.exit("src/page/protocol.ts is not what data/describe.py makes of data/protocol.json")
        tests = sorted((HERE / "unit").glob("*.test.ts"))
        subprocess.run(["esbuild", *tests, "--bundle", "--platform=node", "--target=node18", "--format=esm", "--log-level=warning",
                        f"--outdir={folder}", "--out-extension:.js=.mjs"], check=True)
        subprocess.run([sys.executable, "-B", PAGE / "build.py", Path(folder) / "built"], check=True)
        sys.exit(subprocess.run(["node", "--test", "--test-reporter=tap", *sorted(Path(folder).glob("*.mjs"))], check=False,
                                env={**os.environ, "CORV_SAME": str(HERE / "same.txt")}).returncode)


if __name__ == "__main__":
    main()
