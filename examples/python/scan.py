#!/usr/bin/python3
"""A small agent that shares no code with ours: starts vond, gives it the rules of one file, has files scanned one after
another, prints what matched.

    scan.py [-t SECONDS] VOND RULES FILE...

SECONDS is the time-out of one scan, 30 by default. Exit status: 0 nothing matched, 1 something matched, 2 a file was
not scanned, 3 the rules were refused, 4 vond did not start, died or hung, 64 wrong usage."""
import argparse, contextlib, json, os, pathlib, socket, stat, subprocess, sys
from google.protobuf import descriptor_pb2, message_factory
from google.protobuf.message import DecodeError

CLEAN, MATCHED, NOT_SCANNED, REFUSED, VOND_FAILED, USAGE = 0, 1, 2, 3, 4, 64
POLICY_DEADLINE = 300  # seconds; thousands of rules take their time to compile
FILE_TYPE = 0  # any number; it only chooses among the policy's rule sets
BLOCK = 0
SCHEMAS = ["korvo_common/proto/KorvoDaemon.proto", "static_pattern_matching/proto/StaticPatternMatching.proto"]


def load_messages():
    """The schemas' message types by their full names."""
    top = pathlib.Path(__file__).resolve().parents[2]
    if (top / "proto").is_dir():  # installed
        top /= "proto"
    protoc = ["protoc", f"--proto_path={top}", "--include_imports", "-o/dev/stdout", *SCHEMAS]
    schemas = descriptor_pb2.FileDescriptorSet.FromString(subprocess.check_output(protoc))
    return message_factory.GetMessages(schemas.file)


class VondFailed(Exception):
    """No answer will come any more."""


class Vond:
    """A running vond, our end of its channel, and one request at a time on it."""

    def __init__(self, path, messages):
        self.messages = messages
        self.last_id = 0
        self.channel, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with theirs:  # the daemon gets a copy, and ends when our end closes
            for end in (self.channel, theirs):  # an answer larger than the buffer is lost
                end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 22)
            arguments = [path, "-c", f"{theirs.fileno()}:requests"]
            try:  # its log goes to our standard error, which somebody reads; a full pipe would stall it
                self.process = subprocess.Popen(
                    arguments, pass_fds=[theirs.fileno()], stdin=subprocess.DEVNULL, stdout=sys.stderr)
            except OSError as error:
                raise VondFailed(f"cannot start {path}: {error.strerror}") from error

    def close(self):
        """Ends vond, which stops by itself when our end closes."""
        self.channel.close()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def ask(self, file, deadline, **data):
        """Sends one packet with one open file; returns the packet that comes back."""
        self.last_id += 1
        request = self.messages["korvo_daemon.Request"](header={"id": self.last_id}, **data)
        self.channel.settimeout(deadline)
        try:
            socket.send_fds(self.channel, [request.SerializeToString()], [file])
            packet, _, flags, _ = self.channel.recvmsg(1 << 24)
        except TimeoutError:
            self.process.kill()  # it hangs, or has lost the answer
            raise VondFailed("vond has not answered in time") from None
        except OSError as error:
            raise VondFailed(f"the channel to vond has failed: {error.strerror}") from error
        if not packet:
            raise VondFailed("vond has ended")
        try:
            response = self.messages["korvo_daemon.Response"].FromString(packet)
        except DecodeError:
            response = None
        if response is None or flags & socket.MSG_TRUNC or response.header.id != self.last_id:
            raise VondFailed("vond's answer is not one to our request")
        return response

    def apply_policy(self, rules, timeout):
        document = {
            "yara_timeout_in_seconds": timeout,
            "rule_sets": [{"file_type": FILE_TYPE, "rule_type": "Block", "fd_index": 0}],
        }
        config = {"log_level": 3, "user_config": {"data": json.dumps(document)}}  # 3: errors only
        return self.ask(rules, POLICY_DEADLINE, config=config).config_result.success

    def scan(self, file, timeout):
        """The rules that match; or throws ValueError, since what was not scanned is not clean."""
        request = self.messages["static_pattern_matching_proto.ScanRequest"](file_type=FILE_TYPE, rule_type=[BLOCK])
        data = {"data": request.SerializeToString()}
        # The engine looks at its clock now and then only, so vond's own word on a time-out may be late.
        answer = self.ask(file, 2 * timeout + 2, generic_data_request=data).generic_data_response
        response = self.messages["static_pattern_matching_proto.ScanResponse"].FromString(answer.data)
        if response.status != 0 or BLOCK not in response.results:
            raise ValueError(f"response status {response.status}")
        entry = response.results[BLOCK]
        if entry.status != 0 or entry.result.error != 0:
            raise ValueError(f"scan status {entry.status}, engine error {entry.result.error}")
        return entry.result.matched_rules


def open_file(path):
    """Opens a regular file, without waiting for the other end of a FIFO. vond would see all else as an empty file."""
    file = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK)
    if not stat.S_ISREG(os.fstat(file).st_mode):
        os.close(file)
        raise OSError(0, "not a regular file")
    return file


def action(rule):
    """What the agent is to do about a match; vond takes no rule without it."""
    return next((item.value.string_value for item in rule.metadata_items if item.key == "action"), "")


def scan_file(vond, path, timeout):
    try:
        file = open_file(path)
        try:
            matches = vond.scan(file, timeout)
        finally:
            os.close(file)  # vond has a copy of its own
    except (OSError, ValueError, DecodeError) as error:
        print(f"{path}: not scanned: {getattr(error, 'strerror', None) or error}", file=sys.stderr)
        return NOT_SCANNED
    names = ", ".join(f"{rule.name} ({action(rule)})" for rule in matches)
    print(f"{path}: matches {names}" if matches else f"{path}: clean")
    return MATCHED if matches else CLEAN


def run(arguments):
    try:
        rules = open_file(arguments.rules)
    except OSError as error:
        print(f"{arguments.rules}: {error.strerror}", file=sys.stderr)
        return REFUSED
    messages = load_messages()
    status = CLEAN
    waiting = arguments.files
    try:
        with contextlib.closing(Vond(arguments.vond, messages)) as vond:
            if not vond.apply_policy(rules, arguments.timeout):
                print(f"{arguments.rules}: refused; vond's log above says why", file=sys.stderr)
                return REFUSED
            while waiting:
                status = max(status, scan_file(vond, waiting[0], arguments.timeout))
                waiting = waiting[1:]
    except VondFailed as error:
        for path in waiting:
            print(f"{path}: not scanned: {error}", file=sys.stderr)
        return VOND_FAILED
    finally:
        os.close(rules)
    return status


class Parser(argparse.ArgumentParser):
    def error(self, message):
        self.exit(USAGE, f"{self.format_usage()}{message}\n")


def seconds(text):
    if not 1 <= int(text) <= 86400:
        raise ValueError
    return int(text)


parser = Parser()
parser.add_argument("-t", dest="timeout", type=seconds, default=30, metavar="SECONDS")
parser.add_argument("vond")
parser.add_argument("rules")
parser.add_argument("files", nargs="+")
sys.exit(run(parser.parse_args()))
