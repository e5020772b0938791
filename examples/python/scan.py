#!/usr/bin/python3
"""Scans a file without our library: scan.py VOND RULES FILE. Exits 0 clean, 10 matched, otherwise not scanned."""
import json, pathlib, socket, subprocess, sys
from google.protobuf import descriptor_pb2, message_factory

vond, rules, target = sys.argv[1:]
schemas = ["korvo_common/proto/KorvoDaemon.proto", "static_pattern_matching/proto/StaticPatternMatching.proto"]
protoc = ["protoc", f"--proto_path={pathlib.Path(__file__).resolve().parents[2]}", "--include_imports", "-o/dev/stdout"]
descriptors = descriptor_pb2.FileDescriptorSet.FromString(subprocess.check_output(protoc + schemas))
message = message_factory.GetMessages(descriptors.file)  # message types by their full names

ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
subprocess.Popen([vond, "-c", f"{theirs.fileno()}:requests"], pass_fds=[theirs.fileno()], stdout=sys.stderr)
theirs.close()  # the daemon has its copy, and ends when ours closes with this process


def ask(path, request_id, **data):  # one packet with one open file there, one packet back
    if not pathlib.Path(path).is_file():
        sys.exit(f"{path}: not a regular file, which would scan as an empty one")
    with open(path, "rb") as file:
        request = message["korvo_daemon.Request"](header={"id": request_id}, **data)
        socket.send_fds(ours, [request.SerializeToString()], [file.fileno()])
    return message["korvo_daemon.Response"].FromString(ours.recv(1 << 20))


document = {"yara_timeout_in_seconds": 30, "rule_sets": [{"file_type": 0, "rule_type": "Block", "fd_index": 0}]}
if not ask(rules, 1, config={"log_level": 3, "user_config": {"data": json.dumps(document)}}).config_result.success:
    sys.exit(f"{rules}: policy refused")
request = message["static_pattern_matching_proto.ScanRequest"](file_type=0, rule_type=[0])
answer = ask(target, 2, generic_data_request={"data": request.SerializeToString()}).generic_data_response
response = message["static_pattern_matching_proto.ScanResponse"].FromString(answer.data)
if response.status != 0 or 0 not in response.results:
    sys.exit(f"{target}: not scanned, response status {response.status}")
entry = response.results[0]
if entry.status != 0 or entry.result.error != 0:
    sys.exit(f"{target}: not scanned, scan status {entry.status}, engine error {entry.result.error}")
matches = [rule.name for rule in entry.result.matched_rules]
print(f"{target}: matches {', '.join(matches)}" if matches else f"{target}: clean")
sys.exit(10 if matches else 0)
