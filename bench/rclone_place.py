"""rclone beside the server, before the same local Box."""

import os
import pathlib
import pwd
import shlex
import subprocess
import sys
import tempfile
import time

from measure import CROWDED, seconds
from local import Box, Server


class RclonePlace:
    """A local Box that answers as Box's hosts over TLS on port 443, a server before it, and rclone beside it; in a
    network of its own, so that rclone's compiled-in host names lead to it."""

    def __init__(self, *box_arguments, **server_arguments):
        self.box_arguments, self.server_arguments = box_arguments, server_arguments

    def __enter__(self):
        sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "emulator"))
        from rclone_test import make_certificate  # which takes pytest: only who runs this needs it
        self.holder = tempfile.TemporaryDirectory(prefix="tarvex-bench-")
        self.top = pathlib.Path(self.holder.name)
        make_certificate(self.top)
        self.box = Box(self.top, *self.box_arguments, "--certificate", self.top / "cert.pem",
                       "--key", self.top / "key.pem", listen="127.0.0.1:443", ca=self.top / "ca.pem")
        try:
            self.server = Server(self.top, self.box, api_base="https://127.0.0.1:443", ca=self.top / "ca.pem",
                                 tables=CROWDED, **self.server_arguments)
        except AssertionError:
            self.box.stop()
            self.holder.cleanup()
            raise
        (self.top / "rclone.conf").write_text(f"[bx]\ntype = box\naccess_token = {self.box.token}\n")
        return self

    def __exit__(self, *error):
        self.server.stop()
        self.box.stop()
        self.holder.cleanup()

    def rclone(self, *arguments, check=True):
        command = ["rclone", "--config", self.top / "rclone.conf", "--ca-cert", self.top / "ca.pem", *arguments]
        return seconds(lambda: subprocess.run(command, check=check, stdout=subprocess.DEVNULL))

    def serve(self):
        """rclone's own server before the same Box: the program and what names it as a remote."""
        program = subprocess.Popen(
            ["rclone", "--config", self.top / "rclone.conf", "--ca-cert", self.top / "ca.pem", "serve", "sftp", "bx:",
             "--addr", "127.0.0.1:2022", "--user", "u", "--pass", "p"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        obscured = subprocess.run(["rclone", "obscure", "p"], capture_output=True, text=True, check=True).stdout.strip()
        time.sleep(2)
        return program, f":sftp,disable_hashcheck=true,host=127.0.0.1,port=2022,user=u,pass={obscured}:"


def within_own_network():
    return os.environ.get("TARVEX_BENCH_NETWORK") == "own"


def in_own_network(name):
    """Runs the benchmark NAME once more, in a network where the names of Box's hosts lead here, with pacing files that
    nobody else has. Whether this is that run already."""
    if within_own_network():
        return True
    with tempfile.NamedTemporaryFile("w", suffix=".hosts") as hosts:
        hosts.write("127.0.0.1 localhost api.box.com upload.box.com app.box.com dl.boxcloud.com\n")
        hosts.flush()
        own = pathlib.Path(pwd.getpwuid(os.getuid()).pw_dir) / ".tarvex"
        own.mkdir(mode=0o700, exist_ok=True)
        script = (f"ip link set lo up && mount --bind {hosts.name} /etc/hosts && "
                  f'mount -t tmpfs -o mode=700 none {shlex.quote(str(own))} && exec "$@"')
        run = pathlib.Path(__file__).with_name("run.py")
        subprocess.run(["unshare", "-rmn", "sh", "-c", script, "sh", sys.executable, run, name], check=True,
                       env={**os.environ, "TARVEX_BENCH_NETWORK": "own"})
    return False
