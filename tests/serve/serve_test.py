#!/usr/bin/env python3
"""`ringrec serve` over HTTP, on boards the tool records.

    serve_test.py RINGREC http|concurrency|browser [NODE_DIR]

http: every route; clips decode to exactly the frames of the x264 stream that was
      recorded (worked out from the stream itself, not from the server), the reverse clip
      holds the key frames in reverse order; byte ranges against the whole file, HEAD;
      bad requests; the token; an export job against the command line's export.
concurrency: 20 clients fetching clips and ranges while `ringrec record` goes on on the
      same board; every response equals the reference, the server's memory stays bounded.
browser: the page in headless Chromium (browser_test.js, playwright-core installed into
      NODE_DIR when missing); the screenshot is kept as NODE_DIR/serve.png.
"""
import hashlib
import http.client
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

TOOL, MODE = sys.argv[1], sys.argv[2]
HERE = os.path.dirname(os.path.abspath(__file__))
T0 = 1714561080  # 2024-05-01 10:58:00, where the boards' recordings start
failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL " + what)


def rr(*args, **kw):
    r = subprocess.run([TOOL] + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       universal_newlines=True, **kw)
    if r.returncode != 0:
        sys.exit("ringrec %s failed: %s%s" % (" ".join(args), r.stdout, r.stderr))
    return r.stdout


def board(work, disks=1, size="256M"):
    b = os.path.join(work, "board")
    rr("sim", "create", b, "--disks", str(disks), "--size", size)
    for i in range(disks):
        rr("--root", b, "format", "sd" + "abcd"[i])
    return b


def x264(path, size, seconds):
    subprocess.check_call(
        ["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=%s:rate=25" % size,
         "-t", str(seconds), "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "ultrafast",
         "-bf", "0", "-x264-params", "keyint=25:min-keyint=25:scenecut=0:repeat-headers=1",
         "-f", "h264", path])


def md5s(path):
    out = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "framemd5", "-"],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)
    check(out.stderr == "", "%s decodes without a word: %s" % (os.path.basename(path), out.stderr[:200]))
    return [l.split(",")[-1].strip() for l in out.stdout.splitlines() if l and l[0] != "#"]


class Server:
    def __init__(self, root, *extra):
        s = socket.socket()
        s.bind(("127.0.0.1", 0))
        self.port = s.getsockname()[1]
        s.close()
        self.p = subprocess.Popen([TOOL, "--root", root, "serve", "--listen",
                                   "127.0.0.1:%d" % self.port] + list(extra),
                                  stdout=subprocess.PIPE, universal_newlines=True)
        self.banner = self.p.stdout.readline()

    def get(self, path, method="GET", headers=None, body=None):
        c = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        c.request(method, path, body=body, headers=headers or {})
        r = c.getresponse()
        data = r.read()
        c.close()
        return r.status, dict(r.getheaders()), data

    def json(self, path, method="GET", body=None):
        h = {"Content-Type": "application/x-www-form-urlencoded"} if body else {}
        st, _, data = self.get(path, method, h, body)
        return st, json.loads(data)

    def rss_kb(self):
        with open("/proc/%d/status" % self.p.pid) as f:
            return int([l for l in f if l.startswith("VmRSS")][0].split()[1])

    def stop(self):
        self.p.send_signal(signal.SIGTERM)
        out = self.p.communicate(timeout=30)[0]
        check(self.p.returncode == 0 and "stopped" in out, "the server stops cleanly on SIGTERM")


def http_case(work):
    src = os.path.join(work, "main.264")
    x264(src, "320x240", 60)
    x264(os.path.join(work, "sub.264"), "160x120", 60)
    b = board(work, 2)
    rr("--root", b, "record", "--channels", "2", "--from", str(T0), "--minutes", "3",
       "--input", src, "--input", os.path.join(work, "sub.264"), "--no-audio")
    # The simulator plays the 1500-frame source in a loop from T0: frame n of a channel
    # is source frame n % 1500, and second s holds frames 25 s .. 25 s + 24.
    source = md5s(src)
    check(len(source) == 1500, "the source has 1500 frames")
    exp = os.path.join(work, "exports")
    os.makedirs(exp)
    srv = Server(b, "--export-dir", exp, "--cache-mb", "8")
    check(srv.banner.startswith("ringrec serve: http://127.0.0.1:%d/" % srv.port), srv.banner)

    st, d = srv.json("/api/disks")
    check(st == 200 and [x["device"] for x in d["disks"]] == ["/dev/sda", "/dev/sdb"] and
          d["disks"][0]["from"] == T0, "disks: %s" % d)
    st, d = srv.json("/api/spans?from=2024-05-01T00:00:00Z&to=%d" % (T0 + 3600))
    check(st == 200 and [(c["ch"], c["spans"][0]["from"], c["spans"][-1]["to"]) for c in d["channels"]]
          == [(0, T0, T0 + 180), (1, T0, T0 + 180)], "spans: %s" % d)
    st, d = srv.json("/api/events?from=%d&to=%d" % (T0, T0 + 3600))
    check(st == 200 and d["events"] == [], "events of a recording without any: %s" % d)
    st, d = srv.json("/api/keyframe?mask=3&at=%d&dir=1" % (T0 + 70))
    check(st == 200 and d["time"] == T0 + 71, "next key frame: %s" % d)
    st, d = srv.json("/api/keyframe?mask=3&at=%d&dir=-1" % (T0 + 70))
    check(st == 200 and d["time"] == T0 + 69, "previous key frame: %s" % d)
    st, _, page = srv.get("/")
    check(st == 200 and b"<video" not in page[:100] and b"/api/spans" in page, "the page")

    # A forward clip: 10:59:10 to 10:59:19 is frames 1750 .. 1999.
    q = "/clip.mp4?ch=1&from=2024-05-01T10:59:10Z&to=%d" % (T0 + 79)
    st, h, whole = srv.get(q)
    check(st == 200 and int(h["Content-Length"]) == len(whole) and h["X-Recording-Start"] == str(T0 + 70),
          "clip: status %d, headers %s" % (st, h))
    with open(os.path.join(work, "clip.mp4"), "wb") as f:
        f.write(whole)
    got = md5s(os.path.join(work, "clip.mp4"))
    check(got == source[250:500], "the clip decodes to source frames 250..499 (%d frames)" % len(got))
    st, info = srv.json(q.replace("/clip.mp4", "/api/clip"))
    check(info["frames"] == 250 and info["start"] == T0 + 70 and info["keys"][:2] == [0, 25] and
          info["bytes"] == len(whole), "clip facts: %s" % str(info)[:200])
    # Substream of channel 0 from the middle of a second: starts at that second's key frame.
    st, _, sub = srv.get("/clip.mp4?ch=0&substream=1&from=%d&to=%d" % (T0 + 5, T0 + 6))
    with open(os.path.join(work, "sub.mp4"), "wb") as f:
        f.write(sub)
    check(len(md5s(os.path.join(work, "sub.mp4"))) == 50, "a substream clip of two seconds")

    # Byte ranges against the whole file, and HEAD.
    n = len(whole)
    for rng, lo, hi in [("0-99", 0, 99), ("100-", 100, n - 1), ("-50", n - 50, n - 1),
                        ("%d-%d" % (n // 3, n // 2), n // 3, n // 2), ("0-99999999999", 0, n - 1)]:
        st, h, part = srv.get(q, headers={"Range": "bytes=" + rng})
        check(st == 206 and part == whole[lo:hi + 1] and
              h["Content-Range"] == "bytes %d-%d/%d" % (lo, hi, n), "range %s: %d %s" % (rng, st, h))
    st, h, part = srv.get(q, headers={"Range": "bytes=%d-" % n})
    check(st == 416 and h["Content-Range"] == "bytes */%d" % n and b"error" in part, "range past the end: %d" % st)
    st, h, part = srv.get(q, "HEAD")
    check(st == 200 and part == b"" and int(h["Content-Length"]) == n, "HEAD: %d %s" % (st, h))

    # Reverse: the 5 key frames from 10:59:10 back, newest first.
    st, _, rev = srv.get("/reverse.mp4?ch=1&at=%d&count=5" % (T0 + 70))
    with open(os.path.join(work, "rev.mp4"), "wb") as f:
        f.write(rev)
    check(md5s(os.path.join(work, "rev.mp4")) == [source[250], source[225], source[200], source[175], source[150]],
          "the reverse clip holds the key frames of seconds 70, 69 .. 66 in that order")

    # Bad requests: 400 or 404 with an error.
    for path, want in [("/nothing", 404), ("/api/spans?from=yesterday&to=1", 400),
                       ("/api/spans?from=%d&to=%d" % (T0 + 60, T0), 400),
                       ("/clip.mp4?ch=5&from=%d&to=%d" % (T0, T0 + 10), 404),
                       ("/clip.mp4?ch=40&from=%d" % T0, 400), ("/clip.mp4?from=%d" % T0, 400),
                       ("/clip.mp4?ch=0&from=0&to=2000000000", 400),
                       ("/clip.mp4?ch=0&from=2030-01-01T00:00:00Z", 404),
                       ("/api/events?from=0&to=2000000000", 400), ("/api/../api/disks", 400),
                       ("/api/%2e%2e/etc/passwd", 400), ("/api/export/99", 404),
                       ("/api/export/1/file/0", 404), ("/reverse.mp4?ch=0&at=%d&count=100000" % T0, 400)]:
        st, _, data = srv.get(path)
        ok = st == want
        try:
            ok = ok and "error" in json.loads(data)
        except ValueError:
            ok = False
        check(ok, "%s: %d %s, wanted %d" % (path, st, data[:80], want))

    # An export job: the same files, byte for byte, as the command line writes.
    st, j = srv.json("/api/export", "POST", "from=%d&to=%d&ch=0,1&format=mp4" % (T0 + 60, T0 + 119))
    check(st == 202, "export accepted: %s" % j)
    for _ in range(600):
        st, j = srv.json("/api/export/%d" % j["id"])
        if j["state"] not in ("queued", "running"):
            break
        time.sleep(0.05)
    check(j["state"] == "done" and j["progress"] == 100 and len(j["files"]) == 2, "export: %s" % j)
    cli = os.path.join(work, "cli")
    os.makedirs(cli)
    rr("--root", b, "export", "--from", str(T0 + 60), "--to", str(T0 + 119), "--ch", "0,1", cli)
    for f in j["files"]:
        st, _, data = srv.get(f["url"])
        with open(os.path.join(cli, f["name"]), "rb") as g:
            check(st == 200 and data == g.read(), "export file %s equals the command line's" % f["name"])
    st, _, part = srv.get(j["files"][0]["url"], headers={"Range": "bytes=10-19"})
    check(st == 206 and len(part) == 10, "an export download answers a range")
    st, j2 = srv.json("/api/export", "POST", "from=%d&to=%d&ch=0&format=zip" % (T0, T0))
    check(st == 400 and "error" in j2, "a format that does not exist")
    srv.stop()

    # Beyond loopback only with a token, and then on every request.
    r = subprocess.run([TOOL, "--root", b, "serve", "--listen", "0.0.0.0:0"],
                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)
    check(r.returncode == 2 and "--token" in r.stderr, "non-loopback without a token is refused")
    srv = Server(b, "--token", "s3cret")
    st, _, _ = srv.get("/api/disks")
    check(st == 401, "no token: %d" % st)
    st, _, _ = srv.get("/api/disks?token=s3cret")
    check(st == 200, "token in the query")
    st, _, _ = srv.get("/", headers={"Authorization": "Bearer s3cret"})
    check(st == 200, "token in the header")
    srv.stop()


def concurrency_case(work):
    b = board(work, 1, "2G")
    rr("--root", b, "record", "--channels", "4", "--from", str(T0), "--minutes", "2",
       "--main-kbps", "2000", "--sub-kbps", "200", "--no-audio")
    # Clips are rebuilt for every request (no cache): the readers are what is shared.
    srv = Server(b, "--cache-mb", "0")
    clips = ["/clip.mp4?ch=%d&from=%d&to=%d" % (ch, T0 + s, T0 + s + 10)
             for ch in range(4) for s in (0, 37, 90)]
    ref = {}
    for c in clips:
        st, _, data = srv.get(c)
        check(st == 200 and len(data) > 100000, "reference %s" % c)
        ref[c] = data
    base_rss = srv.rss_kb()
    # The recording goes on meanwhile, on the same disk, from where it stopped.
    rec = subprocess.Popen([TOOL, "--root", b, "record", "--channels", "4", "--from",
                            str(T0 + 120), "--minutes", "12", "--main-kbps", "2000", "--sub-kbps",
                            "200", "--no-audio"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    results, peak = [], [0]
    lock = threading.Lock()

    def client(k):
        rnd = random.Random(k)
        for _ in range(15):
            c = rnd.choice(clips)
            n = len(ref[c])
            lo = rnd.randrange(n)
            hi = min(n - 1, lo + rnd.randrange(200000))
            rng = rnd.choice([None, (lo, hi)])
            try:
                st, _, data = srv.get(c, headers={"Range": "bytes=%d-%d" % rng} if rng else {})
                good = data == (ref[c][rng[0]:rng[1] + 1] if rng else ref[c]) and st == (206 if rng else 200)
            except Exception as e:  # a refused or broken connection is a wrong answer
                good = False
            with lock:
                results.append(good)

    def watch():
        while any(t.is_alive() for t in threads):
            peak[0] = max(peak[0], srv.rss_kb())
            time.sleep(0.05)

    threads = [threading.Thread(target=client, args=(k,)) for k in range(20)]
    for t in threads:
        t.start()
    w = threading.Thread(target=watch)
    w.start()
    for t in threads:
        t.join()
    w.join()
    recording = rec.poll() is None
    rec.wait()
    print("20 clients, %d responses; server memory %d kB before, %d kB at the peak" %
          (len(results), base_rss, peak[0]))
    check(len(results) == 300 and all(results), "%d of %d responses byte-correct" % (sum(results), len(results)))
    check(recording, "the recording was still going on when the clients finished")
    check(rec.returncode == 0, "the recording beside the server succeeded")
    # Clips live in scratch files: memory is what 20 requests in flight need, not their clips.
    check(peak[0] < base_rss + 64 * 1024, "memory bounded: %d kB before, %d kB peak" % (base_rss, peak[0]))
    st, d = srv.json("/api/spans?from=%d&to=%d" % (T0, T0 + 3600))
    check(st == 200 and d["channels"][0]["spans"][0]["to"] > T0 + 120, "the new recording is listed")
    srv.stop()


def browser_case(work, node_dir):
    if not shutil.which("npm") or not os.path.exists("/usr/bin/chromium"):
        sys.exit("browser: npm and /usr/bin/chromium are needed (tools/test.sh installs them)")
    os.makedirs(node_dir, exist_ok=True)
    if not os.path.isdir(os.path.join(node_dir, "node_modules", "playwright-core")):
        subprocess.check_call(["npm", "install", "--no-audit", "--no-fund", "--prefix", node_dir,
                               "playwright-core"], stdout=subprocess.DEVNULL)
    src = os.path.join(work, "main.264")
    x264(src, "320x240", 20)
    b = board(work, 1)
    with open(os.path.join(work, "events"), "w") as f:
        f.write("30 motion 1 0xF\n70 vloss 0x1\n100 sensor 0x2\n")
    rr("--root", b, "record", "--channels", "4", "--from", str(T0), "--minutes", "3", "--input",
       src, "--events", os.path.join(work, "events"), "--no-audio")
    exp = os.path.join(work, "exports")
    os.makedirs(exp)
    srv = Server(b, "--export-dir", exp)
    env = dict(os.environ, NODE_PATH=os.path.join(node_dir, "node_modules"))
    r = subprocess.run(["node", os.path.join(HERE, "browser_test.js"), "http://127.0.0.1:%d/" % srv.port,
                        exp, os.path.join(node_dir, "serve.png")], env=env, timeout=600)
    check(r.returncode == 0, "the page in Chromium")
    srv.stop()


def main():
    work = tempfile.mkdtemp(prefix="ringrec-serve-")
    try:
        if MODE == "http":
            http_case(work)
        elif MODE == "concurrency":
            concurrency_case(work)
        else:
            browser_case(work, sys.argv[3])
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("serve %s: %s" % (MODE, "all passed" if not failures else "%d failed" % len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
