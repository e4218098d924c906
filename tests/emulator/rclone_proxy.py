"""A proxy that knows one server: every CONNECT is joined to it, whatever host it names.

So a client with its hosts compiled in reaches the local Box, and nothing reaches anything else.
"""

import socket
import threading


class Proxy:
    """Listens on a free port of 127.0.0.1 until it is closed; `hosts` collects the names that were asked for."""

    def __init__(self, target_port):
        self._target = ("127.0.0.1", target_port)
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.hosts = set()
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self._listener.close()

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        with client:
            head = b""
            while b"\r\n\r\n" not in head:
                piece = client.recv(4096)
                if not piece:
                    return
                head += piece
            method, address = head.split(b" ", 2)[:2]
            if method != b"CONNECT":
                client.sendall(b"HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n")
                return
            self.hosts.add(address.decode().rsplit(":", 1)[0])
            with socket.create_connection(self._target) as server:
                client.sendall(b"HTTP/1.1 200 Connected\r\n\r\n")
                upward = threading.Thread(target=_copy, args=(client, server), daemon=True)
                upward.start()
                _copy(server, client)
                upward.join()


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
