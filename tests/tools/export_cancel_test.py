#!/usr/bin/env python3
"""Ctrl-C during `ringrec export`, delivered as a real SIGINT to the running tool.

The tool is run with -v, so the library writes a line per exported minute (OEM) or per
skipped record (IRF, four a minute) to standard error. That goes into a pipe shrunk to one
page which this script stops reading a few minutes in: the tool then blocks on its own
output a few dozen minutes further on, well before the end of a 150-minute range, so the
signal always lands inside the run however fast the machine is. What must hold:
  - status 1, no completion posted, and a message that names the file cut short (IRF:
    the first hour's file) or, where files hold one minute (OEM), none;
  - every finished file byte-identical to the uncancelled run's file of the same name,
    the cut one a shorter prefix of it; no scratch file, no cancel marker left.

Usage: export_cancel_test.py RINGREC [EMULATOR...]
"""
import fcntl
import os
import shutil
import signal
import subprocess
import sys
import tempfile

F_SETPIPE_SZ = 1031
# The tool, behind the emulator when it is cross-built.
tool = (sys.argv[2].split() if len(sys.argv) > 2 else []) + [sys.argv[1]]
failures = []


def rr(*args, **kw):
    return subprocess.run(tool + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          universal_newlines=True, **kw)


def must(res, what):
    if res.returncode != 0:
        sys.exit("%s failed (%d): %s%s" % (what, res.returncode, res.stdout, res.stderr))


def cancel_case(board, work, fmt, marker, count, files):
    span = ["--from", "2024-03-01 10:00", "--to", "2024-03-01 12:29:59", "--ch", "0",
            "--format", fmt]
    full = os.path.join(work, "full")
    cut = os.path.join(work, "cut")
    os.makedirs(full)
    os.makedirs(cut)
    must(rr("--root", board, "export", *(span + [full])), fmt + ": uncancelled export")
    whole = sorted(os.listdir(full))
    if len(whole) != files:
        failures.append("%s: uncancelled export wrote %d files, wanted %d" % (fmt, len(whole), files))

    r, w = os.pipe()
    fcntl.fcntl(w, F_SETPIPE_SZ, 4096)
    p = subprocess.Popen(tool + ["-v", "--root", board, "export"] + span + [cut],
                         stdout=subprocess.DEVNULL, stderr=w)
    os.close(w)
    err = os.fdopen(r, "r", errors="replace")
    seen, lines = 0, []
    while seen < count:
        line = err.readline()
        if not line:
            break
        lines.append(line)
        if line.startswith(marker):
            seen += 1
    p.send_signal(signal.SIGINT)
    lines += err.readlines()
    status = p.wait()
    text = "".join(lines)
    if seen != count:
        failures.append("%s: the export ended before the signal:\n%s" % (fmt, text))
    if status != 1:
        failures.append("%s: status %d after Ctrl-C, wanted 1" % (fmt, status))
    if "PROGRESS: v=100, ret=1" in text:
        failures.append("%s: a cancelled run was posted as complete" % fmt)

    done = sorted(os.listdir(cut))
    said = [l for l in lines if l.startswith("ringrec: cancelled")]
    named = None
    if fmt == "oem":
        want = "ringrec: cancelled after %d file(s)\n" % len(done)
        if said != [want]:
            failures.append("%s: said %s, wanted %r" % (fmt, said, want))
    elif len(said) == 1 and " was cut short; 0 file(s) before it are whole" in said[0]:
        named = said[0][len("ringrec: cancelled: "):].split(" was cut short")[0]
    else:
        failures.append("%s: no cut file named:\n%s" % (fmt, text))
    if fmt == "oem" and not 3 <= len(done) < len(whole):
        failures.append("oem: cancelled run left %d files of %d" % (len(done), len(whole)))
    if fmt == "irf" and done != whole[:1]:
        failures.append("irf: cancelled run left %s, wanted the first hour's file" % done)
    if named is not None and named not in done:
        failures.append("%s: the cut file %s is not in %s" % (fmt, named, done))
    # Files are named by their first frame: the finished ones are the range's first.
    if done != whole[:len(done)]:
        failures.append("%s: files left are not the first %d: %s" % (fmt, len(done), done))
    for name in done:
        if name not in whole:
            continue
        with open(os.path.join(cut, name), "rb") as a, open(os.path.join(full, name), "rb") as b:
            part, all_ = a.read(), b.read()
        if name == named:
            if not part or len(part) >= len(all_) or not all_.startswith(part):
                failures.append("%s: cut file %s (%d bytes) is not a shorter prefix of the "
                                "whole one (%d)" % (fmt, name, len(part), len(all_)))
        elif part != all_:
            failures.append("%s: finished file %s differs from the uncancelled run" % (fmt, name))
    if any(n.startswith(".") for n in os.listdir(cut)):
        failures.append("%s: scratch file left in the output directory" % fmt)
    if os.path.exists(os.path.join(board, "tmp", "bk_cancel")):
        failures.append("%s: the cancel marker was left on the board" % fmt)
    print("%s: cancelled after %d of %d files, cut: %s" % (fmt, len(done), len(whole), named))


def main():
    work = tempfile.mkdtemp(prefix="ringrec-cancel-")
    try:
        board = os.path.join(work, "board")
        must(rr("sim", "create", board, "--disks", "1", "--size", "2G"), "sim create")
        must(rr("--root", board, "format", "sda"), "format")
        must(rr("--root", board, "record", "--channels", "1", "--from", "2024-03-01 10:00:00",
                "--minutes", "150", "--fps", "2", "--main-kbps", "16", "--sub-kbps", "8"),
             "record")
        cases = [
            # OEM: a file per minute, the marker looked for between minutes, so the
            # cancel lands between files and none is cut: 150 files in a whole run.
            ("oem", "bk_kesto_write[4201]: ", 3, 150),
            # IRF: a file per hour; the cancel stops the first one at a minute boundary
            # (four record-type lines a minute): it is cut short, still readable.
            ("irf", "bk_irf_write[3187]: ", 12, 3),
        ]
        for fmt, marker, count, files in cases:
            cancel_case(board, os.path.join(work, fmt), fmt, marker, count, files)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    for f in failures:
        print("FAIL " + f)
    print("export_cancel: " + ("all passed" if not failures else "%d failed" % len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
