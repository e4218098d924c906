"""A download host that does what the local Box cannot be told: it sends validators, ignores ranges, changes its file."""

import http.server
import re
import threading


class DownloadHost:
    """Serves `content` under every path. `script(request)` may change a request's answer before it goes out: its
    `status`, `headers` and `body`."""

    def __init__(self, content, script=lambda request: None):
        self.content, self.script = content, script
        self.ranges, self.at_once, self.most_at_once = [], 0, 0
        self.lock = threading.Lock()
        host = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                host.answer(self)

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.thread = threading.Thread(target=self.server.serve_forever)
        self.thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.thread.join()
        self.server.server_close()

    @property
    def redirect(self):
        """The fault that makes the local Box name this host."""
        address = f"http://127.0.0.1:{self.server.server_port}/file"
        return {"method": "GET", "path": "/2.0/files/*/content", "times": 0, "status": 302, "empty": True,
                "headers": {"Location": address}}

    def answer(self, request):
        with self.lock:
            self.at_once += 1
            self.most_at_once = max(self.most_at_once, self.at_once)
            asked = re.fullmatch(r"bytes=(\d+)-(\d*)", request.headers.get("Range", ""))
            request.first = int(asked[1]) if asked else 0
            request.last = int(asked[2]) if asked and asked[2] else len(self.content) - 1
            self.ranges.append((request.first, request.last))
            request.number = len(self.ranges)
        request.status = 206 if asked else 200
        request.body = self.content[request.first:request.last + 1]
        request.headers_out = {"Content-Range": f"bytes {request.first}-{request.last}/{len(self.content)}"} if asked else {}
        try:
            self.script(request)
            request.send_response(request.status)
            for name, value in {"Content-Length": len(request.body), **request.headers_out}.items():
                request.send_header(name, value)
            request.end_headers()
            request.wfile.write(request.body)
        except OSError:
            pass  # whoever asked has had enough
        finally:
            with self.lock:
                self.at_once -= 1
