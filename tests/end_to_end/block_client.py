"""A client of extended block mode (MODE E): several data connections at once, blocks in any order."""

import random
import re
import select
import socket
import struct
import threading

HEADER = struct.Struct("!BQQ")
EOF, EOD, CLOSES = 64, 8, 4


def cut(content, size, lanes, shuffle=0, start=0, seed=0):
    """Blocks of at most `size` bytes, dealt to lanes; each up to `shuffle` blocks away from its place."""
    dice = random.Random(seed)
    blocks, at = [], 0
    while at < len(content):
        length = dice.randint(1, size) if seed else size
        blocks.append((start + at, content[at:at + length]))
        at += length
    for number in range(len(blocks)):
        other = min(len(blocks) - 1, number + dice.randint(0, shuffle))
        blocks[number], blocks[other] = blocks[other], blocks[number]
    dealt = [[] for _ in range(lanes)]
    for number, block in enumerate(blocks):
        dealt[dice.randrange(lanes) if seed else number % lanes].append(block)
    return dealt


class BlockClient:
    """Data connections for an FTP client (ftplib's) whose control connection is logged in."""

    def __init__(self, ftp, tls=None):
        """`tls`: the context of data connections under TLS."""
        self.ftp, self.tls = ftp, tls
        self.ipv6 = ftp.sock.family == socket.AF_INET6
        self.marks = []
        ftp.sendcmd("TYPE I")
        ftp.sendcmd("MODE E")

    def reply(self):
        """The next final reply; markers before it are kept."""
        while True:
            answer = self.ftp.getmultiline()
            if answer[:3] not in ("111", "112"):
                return answer
            self.marks.append(answer)

    def passive(self, striped=False):
        if striped:
            numbers = [int(n) for n in re.search(r"\n (\d+(?:,\d+){5})", self.ftp.sendcmd("SPAS"))[1].split(",")]
            return ".".join(map(str, numbers[:4])), numbers[4] * 256 + numbers[5]
        port = int(re.search(r"\|\|\|(\d+)\|", self.ftp.sendcmd("EPSV"))[1])
        return self.ftp.sock.getpeername()[0], port

    def connect(self, address):
        return self.protect(socket.create_connection(address, timeout=60))

    def protect(self, made):
        made.settimeout(60)
        if not self.tls:
            return made
        return self.tls.wrap_socket(made, server_hostname="localhost", session=self.ftp.sock.session)

    def listen(self, striped=False):
        """Tells the server where to connect to."""
        listener = socket.create_server((self.ftp.sock.getsockname()[0], 0), family=self.ftp.sock.family, backlog=64)
        listener.settimeout(60)
        host, port = listener.getsockname()[:2]
        if striped:
            self.ftp.sendcmd(f"SPOR {host.replace('.', ',')},{port // 256},{port % 256}")
        else:
            self.ftp.sendcmd(f"EPRT |{2 if self.ipv6 else 1}|{host}|{port}|")
        return listener

    def store(self, path, dealt, command="STOR", striped=False, ends=None):
        """Sends what `cut` has dealt. `ends`: the number that the end announces."""
        address = self.passive(striped)
        self.ftp.putcmd(f"{command} {path}")
        answer = self.reply()
        if answer[:3] != "150":
            return answer
        lanes = [self.connect(address) for _ in dealt]

        def send(number):
            try:
                for offset, payload in dealt[number]:
                    lanes[number].sendall(HEADER.pack(0, len(payload), offset) + payload)
                if number == 0:
                    lanes[0].sendall(HEADER.pack(EOF, 0, len(dealt) if ends is None else ends))
                lanes[number].sendall(HEADER.pack(EOD | CLOSES, 0, 0))
            except OSError:
                pass  # the reply says why

        threads = [threading.Thread(target=send, args=(number,)) for number in range(len(dealt))]
        for thread in threads:
            thread.start()
        answer = self.reply()
        for lane in lanes:
            lane.close()
        for thread in threads:
            thread.join()
        return answer

    def fetch(self, path, command="RETR", streams=None, striped=False, take=None):
        """\\return the reply, the blocks by offset, and how many connections there were. `take(offset, bytes)` gets the
        blocks in their place."""
        if streams:
            self.ftp.sendcmd(f"OPTS RETR Parallelism={streams},{streams},{streams};")
        blocks = {}
        with self.listen(striped) as listener:
            self.ftp.putcmd(f"{command} {path}")
            answer = self.reply()
            if answer[:3] != "150":
                return answer, blocks, 0
            lanes = self.receive(listener, take or blocks.__setitem__)
        return self.reply(), blocks, lanes

    def receive(self, listener, take):
        announced, ended, opened, lanes = None, 0, 0, set()
        while announced is None or ended < announced:
            decrypted = [lane for lane in lanes if getattr(lane, "pending", int)()]
            ready = decrypted or select.select([listener, *lanes], [], [], 60)[0]
            assert ready, "nothing comes"
            for lane in ready:
                if lane is listener:
                    lanes.add(self.protect(listener.accept()[0]))
                    opened += 1
                    continue
                bits, announces = self.take_block(lane, take)
                announced = announces if bits & EOF else announced
                if bits & EOD:
                    ended += 1
                    lanes.remove(lane)
                    lane.close()
        assert not lanes and opened == announced, "every connection ends, and they are as many as were announced"
        return opened

    @staticmethod
    def exactly(lane, length):
        content = bytearray(length)
        view = memoryview(content)
        while view:
            got = lane.recv_into(view)
            if got == 0:
                raise ConnectionError("a data connection ended within a block")
            view = view[got:]
        return content

    def take_block(self, lane, take):
        bits, count, offset = HEADER.unpack(self.exactly(lane, HEADER.size))
        if count:
            take(offset, bytes(self.exactly(lane, count)))
        return bits, offset


def assemble(blocks, size):
    """The bytes, and which of them came, as "a-b,c-d"."""
    content, ranges = bytearray(size), []
    for offset in sorted(blocks):
        content[offset:offset + len(blocks[offset])] = blocks[offset]
        end = offset + len(blocks[offset])
        if ranges and ranges[-1][1] == offset:
            ranges[-1][1] = end
        else:
            ranges.append([offset, end])
    return bytes(content), ",".join(f"{a}-{b}" for a, b in ranges)
