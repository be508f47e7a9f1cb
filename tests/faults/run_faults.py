#!/usr/bin/python3
"""Plants each fault of faults.json into src/ on its own, rebuilds, runs ctest and
reports which faults the suite catches. src/ is restored after every fault. A fault's
"file" is relative to src/; when its "find" text has moved, the one file under src/ holding it is used.
  run_faults.sh [--build DIR] [--out TABLE.md] [--limit SECONDS] [ID...]"""
import argparse, json, os, re, signal, subprocess, sys, time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SRC = ROOT / "src"


def locate(fault, snapshot):
    """The one file under src/ that holds the find text exactly once: the named file, else any."""
    text = fault["find"].encode()
    named = SRC / fault["file"]
    if snapshot.get(named, b"").count(text) == 1:
        return named
    hits = [path for path, data in snapshot.items() if text in data]
    if len(hits) == 1 and snapshot[hits[0]].count(text) == 1:
        return hits[0]
    sys.exit(f"fault {fault['id']}: find text not exactly once in one file under src/ ({len(hits)} files)")


def run(cmd, limit):
    """Runs cmd in a process group of its own: (exit code, None after the time limit; output)."""
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True)
    try:
        out = proc.communicate(timeout=limit)[0]
        return proc.returncode, out
    except subprocess.TimeoutExpired:
        return None, ""
    finally:
        if proc.poll() is None:  # time limit or interruption: stop the build or the tests
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()


def measure(build, limit):
    code, out = run(["cmake", "--build", build], limit)
    if code != 0:
        return "BUILD FAILED", out[-3000:].replace("\n", " ")
    code, out = run(["ctest", "--test-dir", build, "-j2"], limit)
    failed = " ".join(re.findall(r"^\s*\d+ - (\S+) \(", out, re.M))
    if code is None:
        return "caught", f"time limit of {limit} s"
    return ("caught" if code != 0 else "not caught"), failed


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("ids", nargs="*", help="faults to plant (default: all)")
    parser.add_argument("--build", default=os.environ.get("TORVEX_BUILD_DIR", str(ROOT / "build")))
    parser.add_argument("--out", help="also write the table to this file")
    parser.add_argument("--limit", type=int, default=900, help="seconds allowed for one build or one ctest run")
    args = parser.parse_args()
    faults = json.loads((Path(__file__).parent / "faults.json").read_text())
    if set(args.ids) - {f["id"] for f in faults}:
        sys.exit(f"unknown fault ids: {' '.join(sorted(set(args.ids) - {f['id'] for f in faults}))}")
    faults = [f for f in faults if not args.ids or f["id"] in args.ids]
    snapshot = {path: path.read_bytes() for path in SRC.rglob("*") if path.is_file()}
    targets = [(fault, locate(fault, snapshot)) for fault in faults]  # all checked before any is planted
    os.environ.update(WINEPREFIX=str(Path(args.build) / "wineprefix"), WINEDEBUG="-all")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGHUP, lambda *_: sys.exit(129))

    result, detail = measure(args.build, args.limit)
    if result != "not caught":
        sys.exit(f"the unchanged tree does not pass: {result} {detail}")
    rows = []
    for n, (fault, path) in enumerate(targets, 1):
        started = time.time()
        try:
            path.write_bytes(snapshot[path].replace(fault["find"].encode(), fault["replace"].encode(), 1))
            result, detail = measure(args.build, args.limit)
        finally:
            path.write_bytes(snapshot[path])
        rows.append((fault["id"], fault["module"], fault["kind"], result, detail))
        print(f"[{n}/{len(targets)}] {fault['id']}: {result} {detail} ({time.time() - started:.0f} s)", flush=True)
    assert all(path.read_bytes() == data for path, data in snapshot.items()), "src/ differs from its snapshot"
    run(["cmake", "--build", args.build], args.limit)  # leave the build matching the unchanged tree

    caught = sum(row[3] == "caught" for row in rows)
    table = ["| id | module | kind | result | failing tests |", "|---|---|---|---|---|"]
    table += ["| " + " | ".join(row) + " |" for row in rows] + ["", f"{caught} of {len(rows)} faults caught."]
    print("\n".join(table))
    if args.out:
        Path(args.out).write_text("\n".join(table) + "\n")


if __name__ == "__main__":
    main()
