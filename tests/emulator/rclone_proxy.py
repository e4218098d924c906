"""A proxy that knows one server: every CONNECT is joined to it, whatever host it names.

So a client with its hosts compiled in reaches the local Box, and nothing reaches anything else.
"""

import socket
import socketserver
import threading


class _Handler(socketserver.StreamRequestHandler):
    def handle(self):
        host = self.rfile.readline().split()[1].decode().rsplit(":", 1)[0]
        while self.rfile.readline().strip():
            pass
        self.server.hosts.add(host)
        self.wfile.write(b"HTTP/1.1 200 Connected\r\n\r\n")
        with socket.create_connection(self.server.target) as box:
            upward = threading.Thread(target=_copy, args=(self.request, box), daemon=True)
            upward.start()
            _copy(box, self.request)
            upward.join()


class Proxy(socketserver.ThreadingTCPServer):
    """Listens on a free port of 127.0.0.1 until it is closed; `hosts` collects the names that were asked for."""

    daemon_threads = True

    def __init__(self, target_port):
        super().__init__(("127.0.0.1", 0), _Handler)
        self.target = ("127.0.0.1", target_port)
        self.port = self.server_address[1]
        self.hosts = set()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def close(self):
        self.shutdown()
        self.server_close()


def _copy(source, target):
    """Until either side ends; then both are ended, so that the copy the other way ends, too."""
    try:
        while piece := source.recv(262144):
            target.sendall(piece)
    except OSError:
        pass
    for end in (source, target):
        try:
            end.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
