#!/usr/bin/env python3
"""Plays one video file in headless Chromium from a local HTTP server and prints what
the page reported back, as one JSON line.

    browser_play.py DIR FILE [TIMEOUT]

The server listens on 127.0.0.1 only, serves DIR and a page whose <video> element
plays FILE to its end, then POSTs {width, height, currentTime, duration, video, audio,
error, frames} to /report (video and audio: webkitVideoDecodedByteCount and
webkitAudioDecodedByteCount; frames: the decoded frames the playback quality counts). Exit status 0 when a report came, 1 otherwise."""
import http.server
import json
import os
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading

PAGE = """<!doctype html><html><body>
<video id="v" muted playsinline></video>
<script>
const v = document.getElementById('v');
let sent = false;
function report(err) {
  if (sent) return;
  sent = true;
  fetch('/report', {method: 'POST', body: JSON.stringify({
    width: v.videoWidth, height: v.videoHeight, currentTime: v.currentTime,
    duration: v.duration, video: v.webkitVideoDecodedByteCount || 0,
    audio: v.webkitAudioDecodedByteCount || 0, error: err || (v.error ? v.error.code : 0),
    frames: v.getVideoPlaybackQuality ? v.getVideoPlaybackQuality().totalVideoFrames : 0})});
}
v.addEventListener('ended', () => report(0));
v.addEventListener('error', () => report('media error ' + (v.error && v.error.code)));
setTimeout(() => report('timeout'), %(ms)d);
v.src = '/media/%(file)s';
v.play().catch(e => report('play: ' + e));
</script></body></html>"""


def main():
    if len(sys.argv) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    root, name = sys.argv[1], sys.argv[2]
    timeout = float(sys.argv[3]) if len(sys.argv) > 3 else 30.0
    result = {}
    done = threading.Event()

    class Handler(http.server.BaseHTTPRequestHandler):
        def log_message(self, *a):
            pass

        def do_GET(self):
            if self.path == '/':
                body = (PAGE % {'ms': int((timeout - 5) * 1000), 'file': name}).encode()
                ctype = 'text/html'
            elif self.path.startswith('/media/'):
                path = os.path.join(root, os.path.basename(self.path[7:]))
                if not os.path.isfile(path):
                    self.send_error(404)
                    return
                with open(path, 'rb') as f:
                    body = f.read()
                ctype = 'video/mp4'
            else:
                self.send_error(404)
                return
            # Range requests are what a media element makes; whole-file answers with
            # Accept-Ranges: none keep the server small and still play.
            self.send_response(200)
            self.send_header('Content-Type', ctype)
            self.send_header('Content-Length', str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def do_POST(self):
            n = int(self.headers.get('Content-Length', '0'))
            result.update(json.loads(self.rfile.read(n) or b'{}'))
            self.send_response(204)
            self.end_headers()
            done.set()

    class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
        daemon_threads = True

    srv = Server(('127.0.0.1', 0), Handler)
    threading.Thread(target=srv.serve_forever, daemon=True).start()
    url = 'http://127.0.0.1:%d/' % srv.server_address[1]
    browser = shutil.which('chromium') or shutil.which('chromium-browser')
    if not browser:
        print(json.dumps({'error': 'chromium not installed'}))
        return 1
    profile = tempfile.mkdtemp(prefix='ringrec-chromium-')
    proc = subprocess.Popen(
        [browser, '--headless=new', '--no-sandbox', '--disable-gpu', '--no-first-run',
         '--autoplay-policy=no-user-gesture-required', '--user-data-dir=' + profile,
         '--remote-debugging-port=0', url],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        ok = done.wait(timeout)
    finally:
        proc.kill()
        proc.wait()
        srv.shutdown()
        shutil.rmtree(profile, ignore_errors=True)
    print(json.dumps(result if ok else {'error': 'no report from the page'}))
    return 0 if ok else 1


if __name__ == '__main__':
    sys.exit(main())
