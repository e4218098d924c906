"""Every command that the server lists, as a table: what it answers when all is well, out of turn, and with a bad argument.

A row is what was said before it, its argument, and its answers: replies, and what a data connection brought, each as it
begins. What needs a login is also tried without one.
"""

import re

import pytest
from local import Server
from model_client import Client

# Before a row, after a login but for the first: lines that succeed, and what prepares a data connection.
OUT, IN, DATA = "not logged in", "", "EPSV"
HELLO_SHA1 = "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d"
HELLO_MD5 = "5d41402abc4b2a76b9719d911017c592"
HELLO_SHA256 = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824"
FILE_LINE = r"-rw[-rwx]{7} +1 ftp +ftp +5 \w{3} [ \d]\d [ \d:]{5} "
FACTS = r"type=file;size=5;modify=\d{14};perm=rdfw;UNIX\.mode=0\d00;unique=[0-9a-f]+g[0-9a-f]+; "

X_ROWS = [(IN, "", "501"), (IN, "/missing", "550"), (IN, "/dir", "550"), (IN, '"/file" 3 2', "501"), (IN, '"/file', "501")]
LIST_ROWS = [(IN, "/dir", "425"), (DATA, "/missing", "550"), (DATA, "x" * 5000, "501")]
FOLDER = [(IN, "", "501"), (IN, "/", "553"), (IN, "/file/x", "55"), (IN, "a\0b", "501"), (IN, "a\rb", "501")]
MKD = [*FOLDER, (IN, "/{verb} made", '257 "/{verb} made"'), (IN, "/dir", "257"), (IN, "/file", "55")]
RMD = [*FOLDER, ("MKD /{verb} gone", "/{verb} gone", "250"), (IN, "/missing", "550"), (IN, "/full", "55")]
CWD = [(IN, "", "501"), (IN, "/dir", "250"), (IN, "../../full/./..//dir/", "250 Folder changed to /dir"),
       (IN, "/file", "550"), (IN, "/missing", "550"), (IN, "x" * 5000, "501")]
CDUP = [(IN, "", "250"), ("CWD /full", "", "250 Folder changed to /."), (IN, "x", "501")]
PWD = [(IN, "", '257 "/" '), ('CWD /qu"ote', "", '257 "/qu""ote" '), (IN, "x", "501")]

TABLE = {
    "ABOR": [(IN, "", "225"), (IN, "x", "501")],
    "ALLO": [(IN, "5", "200"), (IN, "5 R 512", "200"), (IN, "0", "200"), (IN, "", "501"), (IN, "x", "501"), (IN, "-1", "501"),
             (IN, "5 R", "501"), (IN, "5 X 3", "501"), (IN, "5 R -1", "501"), (IN, "9223372036854775808", "501")],
    "APPE": [(IN, "", "501"), (DATA, "/file", "553"), (DATA, "/new", "553")],
    "AUTH": [(OUT, "TLS", "502"), (OUT, "", "501"), (IN, "TLS", "502")],
    "CCC": [(OUT, "", "533"), (IN, "", "533"), (OUT, "x", "501")],
    "CDUP": CDUP,
    "CKSM": [(IN, "", "501"), (IN, "SHA1 0 -1 /file", f"213 {HELLO_SHA1}"), (IN, "MD5 1 3 /file", "213 "),
             (IN, "SHA1 0 -1", "501"), (IN, "NONE 0 -1 /file", "504"), (IN, "MD5 -1 -1 /file", "501"),
             (IN, "MD5 0 -2 /file", "501"), (IN, "MD5 1 9223372036854775807 /file", "501"), (IN, "MD5 0 -1 /dir", "550")],
    "CLNT": [(OUT, "lftp", "200"), (OUT, "", "200"), (IN, "lftp", "200")],
    "CWD": CWD,
    "DCAU": [(IN, "N", "200"), (IN, "A", "503"), (IN, "S /CN=x", "504"), (IN, "S", "501"), (IN, "X", "501"), (IN, "", "501")],
    "DELE": [(IN, "", "501"), (IN, "/", "553"), (IN, "/missing", "550"), (IN, "/gone", "250")],
    "EPRT": [(IN, "|1|127.0.0.1|40000|", "200"), (IN, "!1!127.0.0.1!40000!", "200"), (IN, "", "501"), (IN, "x", "501"),
             (IN, "|1|10.0.0.1|40000|", "504"), (IN, "|1|127.0.0.1|1023|", "504"), (IN, "|1|127.0.0.1|65536|", "501"),
             (IN, "|1|127.0.0.1|40000", "501"), (IN, "|1|::1|40000|", "501"), (IN, "|1|localhost|40000|", "501"),
             (IN, "|2|::1|40000|", r"522 .*\(1\)"), (IN, "|3|x|40000|", "522"),
             ("EPSV ALL", "|1|127.0.0.1|40000|", "503")],
    "EPSV": [(IN, "", r"229 .*\(\|\|\|\d+\|\)"), (IN, "1", "229"), (IN, "2", r"522 .*\(1\)"), (IN, "3", "501"),
             (IN, "all", "200"), ("EPSV ALL", "", "229")],
    "ERET": [(IN, "", "501"), (IN, "P 1 3 /file", "425"), (DATA, "P 1 3 /file", "150", "ell$", "226"),
             (DATA, "P 2 -1 /file", "150", "llo$", "226"), (DATA, "P 6 -1 /file", "551"), (DATA, "P 0 1 /missing", "550"),
             (DATA, "P 0 1 /dir", "550"), (IN, "P -1 3 /file", "501"), (IN, "P 0 -2 /file", "501"), (IN, "P 0 5", "501"),
             (IN, "P 1 9223372036854775807 /file", "501"), (IN, "X 0 1 /file", "504")],
    "ESTO": [(IN, "", "501"), (IN, "A 0 /extended", "425"), (DATA, "A 0 /extended", "150", "226"), (DATA, "A 3 /file", "553"),
             (DATA, "A 0 /dir", "553"), (IN, "A -1 /x", "501"), (IN, "A 0", "501"), (IN, "X 0 /x", "504")],
    "FEAT": [(OUT, "", "211-"), (IN, "", "211-"), (OUT, "x", "501")],
    "HASH": [(IN, "", "501"), (IN, "/file", f"213 SHA-1 0-5 {HELLO_SHA1} /file"), (IN, "/missing", "550"), (IN, "/dir", "550"),
             ("OPTS HASH md5", "/file", f"213 MD5 0-5 {HELLO_MD5} /file")],
    "HELP": [(OUT, "", "214-"), (OUT, "retr", "214 .*RETR path"), (OUT, "NONE", "502"), (IN, "", "214-")],
    "HOST": [(OUT, "example.org", "220"), (OUT, "", "501"), (OUT + "\nUSER alice", "example.org", "503"), (IN, "x", "503")],
    "LANG": [(OUT, "", "200"), (OUT, "en", "200"), (IN, "en-GB", "200"), (OUT, "de", "504"), (OUT, "en--GB", "501"),
             (OUT, "en GB", "501")],
    "LIST": [*LIST_ROWS, (DATA, "-la -F", "150", "d", "226"), (DATA, "/file", "150", FILE_LINE + "file\r\n", "226"),
             (DATA, "-a", "150", r"(?s).* -a\r\n", "226"), (DATA, "-la -- -a", "150", FILE_LINE + "inside\r\n", "226"),
             (DATA, "-a ./-a", "150", FILE_LINE + "inside\r\n", "226"), (DATA, "-what", "550"),
             (DATA, "/full/", "150", "-", "226")],
    "MDTM": [(IN, "", "501"), (IN, "/file", r"213 \d{14}\r\n"), (IN, "/missing", "550")],
    "MKD": MKD,
    "MLSD": [*LIST_ROWS, (DATA, "/file", "501"), (DATA, "/full", "150", FACTS + "inside\r\n", "226"),
             ("OPTS MLST Size;none;\nEPSV", "/full", "150", "size=5; inside\r\n", "226"),
             (DATA, "-a", "150", FACTS + "inside\r\n", "226")],
    "MLST": [(IN, "/file", rf"250-.*\r\n {FACTS}/file\r\n250 "), (IN, "", "250-"), (IN, "/missing", "550"),
             ("OPTS MLST type;modify;", "/dir", r"250-.*\r\n type=dir;modify=\d{14}; /dir\r\n250 ")],
    "MODE": [(IN, "S", "200"), (IN, "e", "200"), (IN, "B", "504"), (IN, "", "501")],
    "NLST": [*LIST_ROWS, (DATA, "/full", "150", "inside\r\n", "226"), (DATA, "/dir", "150", "$", "226"),
             (DATA, "-1 -CF /file", "150", "file\r\n", "226"), (DATA, "-- -a", "150", "inside\r\n", "226")],
    "NOOP": [(OUT, "", "200"), (IN, "", "200"), (OUT, "x", "200")],
    "OPTS": [(OUT, "UTF8 ON", "200"), (OUT, "utf8", "200"), (OUT, "UTF8 OFF", "504"), (OUT, "", "501"), (OUT, "NONE", "501"),
             (OUT, "MLST size;Type;nonsense;", "200 MLST OPTS type;size;"), (OUT, "MLST", "200 MLST OPTS\r\n"),
             (OUT, "HASH", "200 SHA-1"), (OUT, "HASH SHA-256", "200 SHA-256"), (OUT, "HASH NONE", "501"),
             (OUT, "SIZE x", "501"), (OUT, "RETR Parallelism=4,4,8;", "200"), (OUT, "RETR Parallelism=0;", "501"),
             (OUT, "RETR StripeLayout=Blocked;BlockSize=65536;", "200"), (OUT, "RETR None=1;", "501"), (OUT, "RETR", "501")],
    "PASS": [(OUT, "x", "503"), (OUT + "\nUSER alice", "wrong", "530"), (IN, "x", "503")],
    "PASV": [(IN, "", r"227 .*\(127,0,0,1,\d+,\d+\)"), (IN, "x", "501"), ("EPSV ALL", "", "503")],
    "PBSZ": [(OUT, "0", "503"), (OUT, "", "501"), (IN, "0", "503")],
    "PORT": [(IN, "127,0,0,1,200,1", "200"), (IN, "", "501"), (IN, "127,0,0,1,4", "501"), (IN, "127,0,0,1,4,1,1", "501"),
             (IN, "127,0,0,256,4,1", "501"), (IN, "127,0,0,-1,4,1", "501"), (IN, ",,,,,", "501"), (IN, "x", "501"),
             (IN, "127,0,0,2,200,1", "504"), (IN, "127,0,0,1,3,255", "504"), ("EPSV ALL", "127,0,0,1,200,1", "503")],
    "PROT": [(OUT, "P", "503"), (OUT, "", "501"), (IN, "C", "503")],
    "PWD": PWD,
    "QUIT": [(OUT, "", "221"), (IN, "", "221"), (OUT, "x", "501")],
    "REIN": [(OUT, "", "220"), (OUT + "\nUSER alice", "", "220"), (IN, "", "220"), (IN, "x", "501")],
    "REST": [(IN, "0", "350"), (IN, "0-3,5-9", "350"), (IN, "3-0", "501"), (IN, "0-", "501"),
             (IN, "9223372036854775807", "350"), (IN, "9223372036854775808", "501"), (IN, "-1", "501"),
             (IN, "1.5", "501"), (IN, "", "501"), (IN, "x", "501")],
    "RETR": [(IN, "/file", "425"), (IN, "", "501"), (DATA, "/file", "150", "hello$", "226"), (DATA, "/missing", "550"),
             (DATA, "/dir", "550"), (DATA, "/", "550"), ("REST 3\nEPSV", "/file", "150", "lo$", "226"),
             ("REST 5\nEPSV", "/file", "150", "$", "226"), ("REST 6\nEPSV", "/file", "551"),
             ("REST 3\nPWD\nEPSV", "/file", "150", "hello$", "226"),
             ("MODE E\nEPSV", "/file", "425")],
    "RMD": RMD,
    "RNFR": [(IN, "", "501"), (IN, "/file", "350"), (IN, "/missing", "550"), (IN, "/", "553")],
    "RNTO": [(IN, "/x", "503"), ("RNFR /file\nNOOP", "/x", "503"), ("RNFR /file", "", "501"), ("RNFR /file", "/", "553"),
             ("RNFR /old", "/new name", "250")],
    "SBUF": [(IN, "1048576", "200"), (IN, "0", "200"), (IN, "-1", "501"), (IN, "x", "501"), (IN, "", "501")],
    "SITE": [(IN, "", "501"), (IN, "NONE", "504"), (IN, "HELP", "214-"), (IN, "HELP rdel", "214 "), (IN, "CHMOD 9 /file", "501"),
             (IN, "CHMOD 600", "501"), (IN, "UTIME 2020 /file", "501"), (IN, "RDEL", "501"), (IN, "RDEL /", "553"),
             (IN, "RDEL /missing", "550"), (IN, "RDEL /rdel", "250"), (IN, "CLIENTINFO", "501"), (IN, "TASKID", "501"),
             (IN, "CLIENTINFO a\x1b[31mb", "250"), (IN, "TASKID 7", "250"), (IN, "STORATTR x", "501")],
    "SIZE": [(IN, "", "501"), (IN, "/file", "213 5\r\n"), ("CWD /dir", "../file", "213 5\r\n"), (IN, "/dir", "550"),
             (IN, "/missing", '550-PATH_NOT_FOUND\r\n550-GridFTP-Path: "/missing"\r\n550 End.')],
    "SPAS": [(IN, "", r"229-.*\r\n 127,0,0,1,\d+,\d+\r\n229 "), (IN, "x", "501"), ("EPSV ALL", "", "503")],
    "SPOR": [(IN, "127,0,0,1,200,1", "200"), (IN, "127,0,0,1,200,1 127,0,0,1,200,2", "200"), (IN, "", "501"),
             (IN, "127,0,0,1,200", "501"), (IN, "127,0,0,1,200,1 x", "501"), (IN, "127,0,0,2,200,1", "504"),
             ("EPSV ALL", "127,0,0,1,200,1", "503")],
    "STAT": [(IN, "", r"211-(?s:.*) Logged in as "), (IN, "/missing", "550"), (IN, "/file", rf"213-.*\r\n {FILE_LINE}file\r\n213 "),
             (IN, "-l /full", rf"213-.*\r\n {FILE_LINE}inside\r\n213 "), (IN, "-a -- -a", rf"213-.*\r\n {FILE_LINE}inside\r\n213 ")],
    "STOR": [(IN, "/stored", "425"), (IN, "", "501"), (DATA, "/", "553"), (DATA, "/dir", "553"), (DATA, "/missing/x", "550"),
             (DATA, "/file/x", "55"),
             (DATA, "/stored", "150", "226 .* 5 bytes"), ("ALLO 5\nEPSV", "/stored 2", "150", "226"),
             ("ALLO 4\nEPSV", "/stored 3", "150", "[45]"), ("REST 3\nEPSV", "/file", "553"),
             ("MODE E\nPORT 127,0,0,1,200,1", "/x", "425")],
    "STORATTR": [(IN, "modify=20200102030405;", "200"), (IN, "modify=20200102030405", "200"), (IN, "", "501"),
                 (IN, "modify=20200230000000;", "501"), (IN, "size=5;", "501")],
    "STRU": [(IN, "F", "200"), (IN, "R", "504"), (IN, "", "501")],
    "SYST": [(OUT, "", "215 UNIX"), (OUT, "x", "501")],
    "TYPE": [(IN, "I", "200"), (IN, "A N", "200"), (IN, "l 8", "200"), (IN, "E", "504"), (IN, "L 36", "504"), (IN, "", "501")],
    "USER": [(OUT, "alice", "331"), (OUT, "", "501"), (OUT, "a\0b", "501"), (IN, "bob", "503")],
    "XCRC": [*X_ROWS, (IN, "/file", "250 3610a686")],
    "XCUP": CDUP,
    "XCWD": CWD,
    "XMD5": [*X_ROWS, (IN, '"/file"', f"250 {HELLO_MD5}")],
    "XMKD": MKD,
    "XPWD": PWD,
    "XRMD": RMD,
    "XSHA1": [*X_ROWS, (IN, "/file", f"250 {HELLO_SHA1}"), (IN, "/file 1 4", "250 ")],
    "XSHA256": [*X_ROWS, (IN, '"/file" 0 5', f"250 {HELLO_SHA256}")],
}

# What FEAT lists that is no verb with rows of its own: a line that shows that it works.
FEATURES = {"PARALLEL": ("OPTS RETR Parallelism=2,2,2;", 200), "CKSUM": ("CKSM SHA1 0 -1 /file", 213),
            "TVFS": ("CWD /dir/../full/.", 250), "UTF8": ("SIZE /größe", 213)}


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    # Each row has a connection of its own.
    lines = "end_grace_ms = 15\n[limits]\nconnections_per_minute = 0"
    program = Server(tmp_path_factory.mktemp("server"), box, server_lines=lines)
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module", autouse=True)
def tree(box):
    for name in ("dir", 'qu"ote'):
        box.folder(name)
    for name in ("file", "gone", "old", "größe"):
        box.file(name, b"hello")
    for name in ("full", "-a", "rdel"):
        box.file("inside", b"hello", box.folder(name))


@pytest.fixture
def session(server):
    """Opens sessions, and closes them."""
    opened = []

    def open_session(login=True):
        opened.append(Client(server, login))
        return opened[-1]

    yield open_session
    for client in opened:
        client.close()


def answers(client, before, line):
    """What a line brings after others: replies, and the data between them."""
    data = None
    for earlier in filter(None, before.split("\n")):
        if earlier == DATA:
            data = client.data()
        else:
            code, text = client.command(earlier)
            assert code < 400, f"{earlier}: {text}"
    code, text = client.command(line)
    brought = [text]
    if code == 150:
        with data:
            if line.startswith(("STOR", "ESTO")):
                data.sendall(b"hello")
            else:
                brought.append(b"".join(iter(lambda: data.recv(1 << 16), b"")).decode())
        brought.append(client.reply()[1])
    return brought


@pytest.mark.parametrize("verb", TABLE)
def test_replies(session, verb):
    rows = TABLE[verb]
    if not any(row[0].startswith(OUT) for row in rows):
        rows = [(OUT, "", "530"), (OUT, rows[-1][1], "530"), *rows]
    wrong = []
    for before, argument, *expected in rows:
        before, argument = before.replace("{verb}", verb), argument.replace("{verb}", verb)
        client = session(login=not before.startswith(OUT))
        brought = answers(client, before.removeprefix(OUT), f"{verb} {argument}" if argument else verb)
        patterns = [pattern.replace("{verb}", verb) for pattern in expected]
        if len(brought) != len(patterns) or not all(map(re.match, patterns, brought)):
            wrong.append(f"{before}; {verb} {argument}: {brought}, not {patterns}")
        elif verb != "QUIT" or "501" in expected:
            assert client.command("NOOP")[0] == 200
    assert not wrong, "\n".join(wrong)


def test_every_command_stands_in_the_table(session):
    code, text = session(login=False).command("HELP")
    assert code == 214 and set(" ".join(text.splitlines()[1:-1]).split()) == set(TABLE)
    assert session(login=False).command("ACCT x")[0] == 502


def test_what_is_listed_works_and_has_its_options(session):
    client = session()
    features = {line.split()[0] for line in client.command("FEAT")[1].splitlines()[1:-1]}
    assert features - set(TABLE) == set(FEATURES)
    for line, code in FEATURES.values():
        assert client.command(line)[0] == code
    for feature in features:
        assert client.command(f"OPTS {feature}")[0] == 200, feature


def test_control_characters_reach_no_log(session, server):
    client = session()
    for line in ("SITE TASKID \x1b[31m\x7f\x85end", "SIZE /\x1b]0;title\x07", "USER x"):
        reply = client.command(line)[1]
        assert not re.search("[\x00-\x09\x0b\x0c\x0e-\x1f\x7f-\x9f]", reply), reply
    assert not re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f]", server.log())
    assert "TASKID: \\x1b[31m\\x7f\\xc2\\x85end" in server.log()
