"""Runs the benchmarks and prints one table. Whole programs on loopback; each figure beside what it is compared with."""

import base64
import concurrent.futures
import ftplib
import hashlib
import http.client
import io
import json
import os
import pathlib
import re
import ssl
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "end_to_end"))
from certificates import issue, make_authority  # noqa: E402
from local import BUILD, PASSWORD  # noqa: E402
from block_mode import long_wire, loopback  # noqa: E402
import crowd as crowds  # noqa: E402
from measure import (GIB, Payload, Place, best, fetch, fill, least, list_folder, rate, row, seconds, session_of,  # noqa: E402
                     store)
from memory import private_bytes  # noqa: E402
from processor import digest_seconds  # noqa: E402
from rclone_place import RclonePlace, in_own_network, within_own_network  # noqa: E402
import real as real_box  # noqa: E402
from signed_in import SignedInServer, SignInBox  # noqa: E402

def download():
    """1 GiB through the server, against curl straight from the local Box."""
    with Place() as (box, server):
        folder = fill(box, "large", 1, GIB)
        (item,) = box.items(folder).values()
        straight = best(lambda: subprocess.run(
            ["curl", "-sfL", "-o", "/dev/null", "-H", f"Authorization: Bearer {box.token}",
             f"{box.base}/2.0/files/{item['id']}/content"], check=True))
        through = best(lambda: server.curl("-o", "/dev/null", f"{server.url}/large/{item['name']}"))
        row("download 1 GiB: curl straight from the local Box", rate(GIB, straight))
        row("download 1 GiB: curl through the server", rate(GIB, through))
        row("download 1 GiB: share of the straight rate", f"{straight / through:.2f}", "aim: at least 0.85")
        meters = []
        for _ in range(3):
            fetch(server, f"/large/{item['name']}", meters)
        row("download 1 GiB: CPU of the session process", least(meters), "aim: at most 0.55 s")


def raw_listing(box, folder):
    connection = http.client.HTTPConnection(box.host, box.port)
    marker, count = None, 0
    while True:
        query = "fields=type,id,name,parent,size,content_modified_at,sha1&usemarker=true&limit=300"
        connection.request("GET", f"/2.0/folders/{folder}/items?{query}" + (f"&marker={marker}" if marker else ""),
                           headers={"Authorization": f"Bearer {box.token}"})
        page = json.loads(connection.getresponse().read())
        count += len(page["entries"])
        marker = page.get("next_marker")
        if not marker:
            return count


def listing():
    """A folder of 30,000 items, pacing out of the way, against one client that fetches the same pages."""
    with Place() as (box, server):
        folder = fill(box, "many", 30000, 0)
        assert raw_listing(box, folder) == 30000
        raw = best(lambda: raw_listing(box, folder))

        meters = []
        took = min(list_folder(server, "/many", 30000, meters) for _ in range(3))
        row("listing 30,000 items: the same pages, keep-alive client", f"{raw:.2f} s")
        row("listing 30,000 items: MLSD through the server", f"{took:.2f} s")
        row("listing 30,000 items: ratio", f"{took / raw:.2f}", "aim: at most 1.3")
        row("listing 30,000 items: CPU of the session process", least(meters), "aim: at most 0.25 s")


def memory():
    """Private bytes of a session, idle and after a listing of 30,000 items."""
    with Place() as (box, server):
        fill(box, "many", 30000, 0)
        client = server.ftp()
        client.sendcmd("NOOP")
        idle = private_bytes(session_of(server))
        client.retrlines("MLSD /many", lambda line: None)
        client.sendcmd("NOOP")
        time.sleep(0.5)
        listed = private_bytes(session_of(server))
        client.quit()
        row("memory: idle session, private", f"{idle / 1024**2:.2f} MiB", "aim: at most 4 MiB")
        row("memory: session that listed 30,000 items, private", f"{listed / 1024**2:.2f} MiB")
        row("memory: per cached item", f"{(listed - idle) / 30000:.0f} bytes", "aim: at most 250")


def time_logins(server, kind):
    def one():
        server.ftp().close()

    one()
    took = seconds(lambda: [one() for _ in range(50)])
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        took8 = seconds(lambda: list(pool.map(lambda _: one(), range(200))))
    row(f"logins per second, {kind}, one client", f"{50 / took:.0f}")
    row(f"logins per second, {kind}, eight clients", f"{200 / took8:.0f}")


def logins():
    """Logins per second, one after the other and eight side by side."""
    with Place() as (_, server):
        time_logins(server, "credential file")
    with tempfile.TemporaryDirectory(prefix="tarvex-bench-") as folder:
        box = SignInBox(pathlib.Path(folder))
        server = SignedInServer(pathlib.Path(folder), box)
        try:
            time_logins(server, "broker account")
        finally:
            server.stop()
            box.stop()


def pacing():
    """Spacing of requests at 16 per second, by 1, 2 and 8 processes of one user."""
    for processes in (1, 2, 8):
        done = subprocess.run([BUILD / "bin/pacing_gaps", str(processes), "10", "16"], capture_output=True, check=True)
        found = json.loads(done.stdout)
        row(f"pacing at 16/s, {processes} process{'es' if processes > 1 else ''}: gaps smallest / median / largest",
            f"{found['smallest_ms']:.1f} / {found['median_ms']:.1f} / {found['largest_ms']:.1f} ms", "aim: none below 62.5")
        row(f"pacing at 16/s, {processes} process{'es' if processes > 1 else ''}: share of the permitted rate",
            f"{found['rate_used']:.3f}", "aim: at least 0.95" if processes == 8 else "")


def base64_sha1(content):
    return base64.b64encode(hashlib.sha1(content).digest()).decode()


def straight_upload(box, payload, directory, name):
    """Seconds that curl needs to put all parts into an upload session of the local Box; digests are ready before."""
    session = box.call("POST", "/api/2.0/files/upload_sessions",
                       {"folder_id": "0", "file_size": payload.size, "file_name": name})
    url = f"{box.base}/api/2.0/files/upload_sessions/{session['id']}"
    sections = []
    for number, (offset, content) in enumerate(payload.parts(session["part_size"])):
        part = directory / f"part-{number}"
        part.write_bytes(content)
        sections.append(f'url = "{url}"\nupload-file = "{part}"\noutput = "/dev/null"\n'
                        f'header = "Authorization: Bearer {box.token}"\nheader = "Content-Type: application/octet-stream"\n'
                        f'header = "Content-Range: bytes {offset}-{offset + len(content) - 1}/{payload.size}"\n'
                        f'header = "Digest: sha={base64_sha1(content)}"\nheader = "Expect:"\n')
    (directory / "curl.config").write_text("next\n".join(sections))
    took = seconds(lambda: subprocess.run(["curl", "-sSf", "-K", directory / "curl.config"], check=True))
    box.call("DELETE", url.removeprefix(box.base))
    for part in directory.glob("part-*"):
        part.unlink()
    return took


def upload():
    """1 GiB up, announced and not, against curl that puts the same parts straight into the local Box."""
    with Place() as (box, server):
        directory = server.directory
        payload = Payload(directory, GIB)
        straight = min(straight_upload(box, payload, directory, f"straight-{run}") for run in range(2))
        meters, silent_meters = [], []
        announced = min(store(server, payload, f"announced-{run}", True, meters) for run in range(2))
        unannounced = min(store(server, payload, f"unannounced-{run}", False, silent_meters) for run in range(2))
        digests = digest_seconds(GIB, {"sha1": 2, "md5": 1})
        row("upload 1 GiB: curl straight, the same parts", rate(GIB, straight))
        row("upload 1 GiB: announced, through the server", rate(GIB, announced))
        row("upload 1 GiB: announced, share of the straight rate", f"{straight / announced:.2f}", "aim: at least 0.7")
        row("upload 1 GiB: not announced, through the server", rate(GIB, unannounced))
        row("upload 1 GiB: not announced, share of the announced rate", f"{announced / unannounced:.2f}",
            "aim: at least 0.5")
        row("upload 1 GiB: digests alone, SHA-1 twice and MD5", f"{digests:.2f} s")
        row("upload 1 GiB: announced, CPU of the session process", least(meters), f"aim: at most {digests + 0.6:.2f} s")
        row("upload 1 GiB: not announced, CPU of the session process", least(silent_meters))


def upload_memory():
    """Private bytes of a session while it uploads in parts of 8 MiB, above those of an idle one."""
    with Place() as (box, server):
        for size in (128 * 1024**2, 512 * 1024**2):
            payload = Payload(server.directory, size)
            for announced in (True, False):
                client = server.ftp()
                idle = private_bytes(session_of(server))
                client.quit()
                peak = 0
                with concurrent.futures.ThreadPoolExecutor(1) as pool:
                    running = pool.submit(store, server, payload, f"m-{size}-{announced}", announced)
                    time.sleep(0.05)
                    while not running.done():
                        try:
                            peak = max(peak, private_bytes(session_of(server)))
                        except (OSError, ValueError):
                            pass  # not begun, or just over
                        time.sleep(0.02)
                    running.result()
                kind = "announced" if announced else "not announced"
                row(f"memory: chunked upload of {size // 1024**2} MiB, {kind}, over idle",
                    f"{(peak - idle) / 1024**2:.1f} MiB", "aim: at most 8 + 32 + 16" if announced else "")


def checksum():
    """CKSM of 1 GiB, against openssl on a local file plus a plain download."""
    with Place() as (box, server):
        payload = Payload(server.directory, GIB)
        store(server, payload, "sum", True)
        plain = best(lambda: server.curl("-o", "/dev/null", f"{server.url}/sum"), 2)
        client = server.ftp(timeout=600)
        for algorithm, first, last in (("MD5", 0, -1), ("SHA256", 0, -1), ("SHA1", 0, GIB - 1)):
            local = seconds(lambda: subprocess.run(["openssl", "dgst", f"-{algorithm.lower()}", payload.path], check=True,
                                                   stdout=subprocess.DEVNULL))
            if algorithm == "MD5":  # forget the property, so that it is computed
                item = box.items()["sum"]["id"]
                box.call("DELETE", f"/2.0/files/{item}/metadata/global/properties")
                client = server.ftp(timeout=600)
            took = seconds(lambda: client.sendcmd(f"CKSM {algorithm} {first} {last} /sum"))
            row(f"checksum 1 GiB {algorithm}: openssl + download / CKSM", f"{local + plain:.2f} s / {took:.2f} s")
        row("checksum 1 GiB MD5: asked again", f"{seconds(lambda: client.sendcmd('CKSM MD5 0 -1 /sum')) * 1000:.1f} ms")


def raw_small_uploads(box, count, content):
    """Seconds of the same uploads by one keep-alive client that does nothing else."""
    folder = box.folder("raw")
    connection = http.client.HTTPConnection(box.host, box.port)

    def run():
        for number in range(count):
            attributes = json.dumps({"name": f"f{number}", "parent": {"id": folder}})
            body = (f'--b\r\nContent-Disposition: form-data; name="attributes"\r\n\r\n{attributes}\r\n--b\r\n'
                    f'Content-Disposition: form-data; name="file"; filename="f"\r\n\r\n').encode() + content + b"\r\n--b--\r\n"
            connection.request("POST", "/api/2.0/files/content", body, {
                "Authorization": f"Bearer {box.token}", "Content-Type": "multipart/form-data; boundary=b"})
            connection.getresponse().read()

    return seconds(run)


def stores(client, folder, contents, announced):
    """Seconds of storing them, one after the other."""
    def one(number, content):
        if announced:
            client.sendcmd(f"ALLO {len(content)}")
        client.storbinary(f"STOR /{folder}/f{number}", io.BytesIO(content))

    client.mkd(f"/{folder}")
    return seconds(lambda: [one(number, content) for number, content in enumerate(contents)])


def small_files():
    """1,000 files of 10 KB up and down over one session, pacing out of the way; 50 with a Box of 150 ms a request."""
    contents = [os.urandom(10_000)] * 1000
    with Place() as (box, server):
        raw = raw_small_uploads(box, len(contents), contents[0])
        client = server.ftp()
        up = stores(client, "small", contents, announced=True)
        down = seconds(lambda: [client.retrbinary(f"RETR /small/f{number}", lambda piece: None) for number in range(1000)])
        row("small files: up, announced", f"{len(contents) / up:.0f} files/s")
        row("small files: up, announced, our own time per file", f"{(up - raw) / len(contents) * 1000:.2f} ms")
        row("small files: down", f"{len(contents) / down:.0f} files/s")
    with Place("--set", "latency_ms=150") as (box, server):
        client = server.ftp()
        announced = stores(client, "a", contents[:50], announced=True) / 50 * 1000
        unknown = stores(client, "b", contents[:50], announced=False) / 50 * 1000
        row("small files: up, announced, Box at 150 ms a request", f"{announced:.0f} ms a file")
        row("small files: up, size not told, Box at 150 ms a request", f"{unknown:.0f} ms a file", "aim: a tenth more at most")


def four_sessions():
    """Requests to Box for 1,000 stores: by one session, and by four of one account into one folder."""
    with Place() as (box, server):
        for count in (1, 4):
            clients = [server.ftp() for _ in range(count)]
            clients[0].mkd(f"/by{count}")
            for client in clients:
                client.nlst(f"/by{count}")
            mark = box.mark()

            def store(which):
                for number in range(1000 // count):
                    clients[which].sendcmd("ALLO 3")
                    clients[which].storbinary(f"STOR /by{count}/f{which}-{number}", io.BytesIO(b"abc"))

            with concurrent.futures.ThreadPoolExecutor(count) as pool:
                took = seconds(lambda: list(pool.map(store, range(count))))
            requests = len(box.journal(mark)) / 1000
            row(f"1,000 stores into one folder, sessions: {count}", f"{requests:.3f} requests a store, {1000 / took:.0f}/s")


def abort_under_pacing():
    """200 sessions of one account wait for their turn at Box; all give up."""
    with Place(policy='{"user_api_rate_limit": 16}') as (box, server):
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            clients = list(pool.map(lambda _: server.ftp(), range(200)))
        for client in clients:
            client.set_pasv(True)
            client.passive = client.makepasv()
            client.putcmd("NLST /")
        time.sleep(1)

        def give_up(client):
            client.putcmd("ABOR")
            while not client.getmultiline().startswith(("225", "226")):
                pass

        with concurrent.futures.ThreadPoolExecutor(200) as pool:
            took = list(pool.map(lambda client: seconds(lambda: give_up(client)), clients))
        took.sort()
        row("ABOR with 200 sessions waiting: median / longest", f"{took[100] * 1000:.0f} / {took[-1] * 1000:.0f} ms", "aim: 1 s")


def rclone_side_by_side(place, size, count, latency):
    place.box.call("POST", "/_emulator/settings", {"latency_ms": latency})
    tag = f"{latency}"
    payload = Payload(place.top, size)
    down = place.top / "down"
    server = place.server
    ours_up = store(server, payload, f"ours-{tag}", True)
    ours_up_silent = store(server, payload, f"ours-silent-{tag}", False)
    ours_down = seconds(lambda: server.curl("-o", down, f"{server.url}/ours-{tag}"))
    theirs_up = place.rclone("copyto", payload.path, f"bx:theirs-{tag}")
    down.unlink()  # or rclone would find nothing to do
    theirs_down = place.rclone("copyto", f"bx:theirs-{tag}", down)
    down.unlink()
    serving, remote = place.serve()
    served_up = place.rclone("copyto", payload.path, f"{remote}served-{tag}")
    served_down = place.rclone("copyto", f"{remote}theirs-{tag}", down)
    down.unlink()
    name = f"{size // 1024**2} MiB, {latency} ms a request"
    row(f"rclone, {name}: up, ours announced / not / rclone / its sftp server",
        " / ".join(f"{size / took / 1e6:.0f}" for took in (ours_up, ours_up_silent, theirs_up, served_up)) + " MB/s",
        "aim: twice rclone's")
    row(f"rclone, {name}: down, ours / rclone / its sftp server",
        " / ".join(f"{size / took / 1e6:.0f}" for took in (ours_down, theirs_down, served_down)) + " MB/s",
        "aim: twice rclone's")
    source = place.top / f"small-{tag}"
    source.mkdir()
    for number in range(count):
        (source / f"f{number}").write_bytes(os.urandom(10_000))
    took = [seconds(lambda: server.lftp(f"mirror -R --parallel=4 {source} /small-ours-{tag}", timeout=900)),
            place.rclone("--transfers", "4", "copy", source, f"bx:small-theirs-{tag}"),
            seconds(lambda: server.lftp(f"mirror --parallel=4 /small-ours-{tag} {place.top}/d1-{tag}", timeout=900)),
            place.rclone("--transfers", "4", "copy", f"bx:small-theirs-{tag}", place.top / f"d2-{tag}")]
    serving.terminate()
    serving.wait()
    row(f"rclone, {count} files of 10 KB, {latency} ms: up, ours (lftp, 4 sessions) / rclone (4)",
        f"{count / took[0]:.0f} / {count / took[1]:.0f} files/s", "aim: no slower")
    row(f"rclone, {count} files of 10 KB, {latency} ms: down, ours (lftp, 4 sessions) / rclone (4)",
        f"{count / took[2]:.0f} / {count / took[3]:.0f} files/s", "aim: no slower")


def rclone():
    """The same files through rclone's Box backend and the same local Box, both over TLS, side by side."""
    if not in_own_network("rclone"):
        return
    with RclonePlace() as place:
        rclone_side_by_side(place, GIB, 1000, 0)
        rclone_side_by_side(place, GIB, 300, 100)


def real():
    """Before a Box as far away, slow and limited as the real one, beside rclone; and on loopback (about 20 minutes)."""
    if not within_own_network():
        for loopback_benchmark in (download, upload, listing, memory):
            loopback_benchmark()
    if in_own_network("real"):
        real_box.compare()


def block_mode():
    """1 GiB both ways in extended block mode on loopback, and 16 MiB over a wire of 80 ms that loses packets."""
    with Place() as (box, server):
        fill(box, "large", 1, GIB)
        (name,) = box.items(box.items()["large"]["id"])
        for what, speed in loopback(server, f"/large/{name}", GIB):
            aim = "aim: no less than 1" if what in ("4 down", "4 up") else ""
            row(f"block mode 1 GiB, connections: {what}", f"{speed / 1e6:.0f} MB/s", aim)
    for loss, control in ((0.001, "reno"), (0.003, "reno")):
        found = long_wire(loss, control)
        for way in ("down", "up"):
            one, eight = found[f"1 {way}"], found[f"8 {way}"]
            row(f"block mode, 80 ms, {loss:.1%} loss, {control}, {way}: 1 / 8 connections / ratio",
                f"{one / 1e6:.2f} / {eight / 1e6:.2f} MB/s / {eight / one:.1f}", "aim: at least 3 times")


class Vsftpd:
    """An FTP server of others that serves a local folder to everybody, as whoever runs this."""

    def __init__(self, folder, certificate, port=21021):
        (folder / "files").mkdir()
        self.files, self.url = folder / "files", f"ftp://127.0.0.1:{port}"
        settings = {
            "listen": "YES", "listen_address": "127.0.0.1", "listen_port": port, "background": "NO",
            "run_as_launching_user": "YES", "anonymous_enable": "YES", "anon_root": self.files, "write_enable": "YES",
            "anon_upload_enable": "YES", "ssl_enable": "YES", "allow_anon_ssl": "YES", "require_ssl_reuse": "NO",
            "ssl_ciphers": "HIGH", "rsa_cert_file": certificate.file, "rsa_private_key_file": certificate.key,
            "seccomp_sandbox": "NO", "allow_writeable_chroot": "YES", "xferlog_enable": "NO"}
        (folder / "vsftpd.conf").write_text("".join(f"{key}={value}\n" for key, value in settings.items()))
        self.process = subprocess.Popen(["/usr/sbin/vsftpd", folder / "vsftpd.conf"], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(1)

    def stop(self):
        self.process.terminate()
        self.process.wait()


def tls_place(directory, key=("rsa:2048",)):
    """The [tls] of a server for benchmarks, and what clients and another server need for it."""
    authority = make_authority(directory)
    certificate = issue(directory, authority, "server", "/CN=localhost", key=key)
    return authority, certificate, f'[tls]\ncertificate = "{certificate.file}"\nkey = "{certificate.key}"\n'


def tls():
    """1 GiB both ways under TLS, against plain, and against another server that serves a local file."""
    with tempfile.TemporaryDirectory(prefix="tarvex-bench-") as name:
        directory = pathlib.Path(name)
        authority, certificate, table = tls_place(directory)
        private = ["--ssl-reqd", "--cacert", authority.file]
        theirs = Vsftpd(directory, certificate)
        with Place(server_lines=table) as (box, server):
            payload = Payload(directory, GIB)
            fill(box, "large", 1, GIB)
            (folder,) = [entry["id"] for name, entry in box.items().items() if name == "large"]
            (item,) = box.items(folder)
            os.link(payload.path, theirs.files / "large")
            os.chmod(theirs.files / "large", 0o644)

            def down(url, options, user=server.curl):
                return best(lambda: user(*options, "-o", "/dev/null", url))

            def up(url, options):
                return min(seconds(lambda: server.curl(*options, "-T", payload.path, f"{url}-{run}")) for run in range(2))

            def anonymous(*arguments):
                subprocess.run(["curl", "-sS", *map(str, arguments)], check=True)

            took = {kind: down(f"{server.url}/large/{item}", options) for kind, options in (("plain", []), ("TLS", private))}
            other = {kind: down(f"{theirs.url}/large", options, anonymous) for kind, options in (("plain", []), ("TLS", private))}
            row("TLS, download 1 GiB: plain / TLS", f"{rate(GIB, took['plain'])} / {rate(GIB, took['TLS'])}")
            row("TLS, download 1 GiB: vsftpd, a local file, plain / TLS",
                f"{rate(GIB, other['plain'])} / {rate(GIB, other['TLS'])}")
            row("TLS, download 1 GiB: share of vsftpd's", f"{other['TLS'] / took['TLS']:.2f}", "aim: at least 0.8")
            sent = {kind: up(f"{server.url}/up-{kind}", options) for kind, options in (("plain", []), ("TLS", private))}
            theirs_sent = min(seconds(lambda: anonymous(*private, "-T", payload.path, f"{theirs.url}/up-{run}"))
                              for run in range(2))
            row("TLS, upload 1 GiB, not announced: plain / TLS", f"{rate(GIB, sent['plain'])} / {rate(GIB, sent['TLS'])}")
            row("TLS, upload 1 GiB: vsftpd, to a local file, TLS", rate(GIB, theirs_sent))
        theirs.stop()


def signatures(key):
    """Signatures per second that openssl makes with a key on two cores."""
    done = subprocess.run(["openssl", "speed", "-seconds", "2", "-multi", "2", key], capture_output=True, text=True, check=True)
    (line,) = [line for line in done.stdout.splitlines() if re.match(r"\s*(rsa\s+\d+ bits|.*ecdsa)", line)]
    return float(line.split()[-2])


def handshakes():
    """Full TLS handshakes per second: of new control connections, each with its process, and of data connections."""
    for name, key, bits in (("RSA 2048", ("rsa:2048",), "rsa2048"), ("P-256", ("ec", "-pkeyopt", "ec_paramgen_curve:P-256"),
                                                                   "ecdsap256")):
        with tempfile.TemporaryDirectory(prefix="tarvex-bench-") as directory:
            authority, _, table = tls_place(pathlib.Path(directory), key)
            with Place(server_lines=table) as (_, server):
                trusted = ssl.create_default_context(cafile=authority.file)

                def control(_):
                    client = ftplib.FTP_TLS(context=trusted, timeout=60)
                    client.connect(server.host, server.port)
                    client.auth()
                    client.close()

                def data(count):
                    client = ftplib.FTP_TLS(context=trusted, timeout=60)
                    client.connect(server.host, server.port)
                    client.login("alice", PASSWORD)
                    client.prot_p()
                    begun = time.monotonic()
                    for _ in range(count):
                        client.nlst("/")
                    took = time.monotonic() - begun
                    client.close()
                    return took

                with concurrent.futures.ThreadPoolExecutor(8) as pool:
                    took = seconds(lambda: list(pool.map(control, range(400))))
                    each = max(pool.map(data, [100] * 4))
                row(f"handshakes per second, {name}: control connections / data connections / openssl's signatures",
                    f"{400 / took:.0f} / {400 / each:.0f} / {signatures(bits):.0f}")


def crowd():
    """500 idle sessions, and what one hostile client costs another."""
    for measure in (crowds.idle_sessions, crowds.hostile_client):
        with tempfile.TemporaryDirectory(prefix="tarvex-bench-") as directory:
            measure(row, pathlib.Path(directory))


def micro():
    """Pieces inside a process."""
    subprocess.run([BUILD / "bin/micro", "--benchmark_min_time=0.2"], check=True)


BENCHMARKS = {run.__name__: run for run in (
    download, listing, memory, logins, pacing, upload, upload_memory, checksum, small_files, tls, handshakes, four_sessions,
    abort_under_pacing, block_mode, crowd, rclone, real, micro)}


def main():
    names = sys.argv[1:] or [name for name in BENCHMARKS if name != "real"]
    if names == ["--list"]:
        print("\n".join(f"{name:<14} {run.__doc__}" for name, run in BENCHMARKS.items()))
        return
    unknown = [name for name in names if name not in BENCHMARKS]
    if unknown:
        sys.exit(f"script/bench: no benchmark {unknown[0]}; try --list")
    for name in names:
        print(f"{name}: {BENCHMARKS[name].__doc__}")
        BENCHMARKS[name]()


if __name__ == "__main__":
    main()
