"""Decodes records given as hex, one a line on stdin, and prints each as one JSON line (id and fields).
The C++ tests feed it records built from the service's own structs."""

import json
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import kovabpf  # noqa: E402

for line in sys.stdin:
    event_id, fields = kovabpf.decode(bytes.fromhex(line.strip()))
    print(json.dumps({"id": event_id, "name": kovabpf.event_name(event_id), "fields": fields}, sort_keys=True))
