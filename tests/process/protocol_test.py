#!/usr/bin/python3
"""protocol_test.py PAGE VOND: the exchange in docs/protocol.md is what vond says. Sends the page's requests with the
page's files, and compares the answers and the whole log with the page's."""
import pathlib, re, socket, subprocess, sys, tempfile
from markdown_blocks import read_blocks

PAGE, VOND = sys.argv[1:]
HEX_LINE = re.compile(r"\s*([0-9a-f]{2}(?: [0-9a-f]{2})*)(?:  .*)?\n")
TIMEOUT = 60  # seconds


def packet_of(block):
    """A dump's bytes: of each line the hexadecimal pairs before two blanks."""
    packet = b""
    for number, line in enumerate(block.text.splitlines(keepends=True), block.line):
        match = HEX_LINE.fullmatch(line)
        if match is None:
            sys.exit(f"{PAGE}:{number}: not a line of a dump: {line!r}")
        packet += bytes.fromhex(match[1])
    return packet


def compare(block, what, got, wanted):
    if got != wanted:
        sys.exit(f"{PAGE}:{block.line}: {what} is\n{got}\nand the page says\n{wanted}")


blocks = read_blocks(PAGE)
ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
ours.settimeout(TIMEOUT)
with tempfile.TemporaryDirectory() as name:
    folder = pathlib.Path(name)
    log_path = folder / "log"
    arguments = [VOND, "-c", f"{theirs.fileno()}:requests"]
    with log_path.open("wb") as log:
        vond = subprocess.Popen(arguments, pass_fds=[theirs.fileno()], stdin=subprocess.DEVNULL, stdout=log)
    theirs.close()
    requests = answers = 0
    for block in blocks:
        if block.kind == "request":
            files = [open(folder / name, "rb") for name in block.names]
            socket.send_fds(ours, [packet_of(block)], [file.fileno() for file in files])
            requests += 1
            for file in files:
                file.close()
        elif block.kind == "answer":
            compare(block, "the answer", ours.recv(1 << 20).hex(" "), packet_of(block).hex(" "))
            answers += 1
        elif block.kind != "log":
            (folder / block.names[0]).write_text(block.text)
    ours.close()
    status = vond.wait(TIMEOUT)
    if status != 0 or requests < 4 or requests != answers:
        sys.exit(f"exit status {status}; {requests} requests and {answers} answers")
    (log_block,) = [block for block in blocks if block.kind == "log"]
    compare(log_block, "the log", log_path.read_text(), log_block.text)
