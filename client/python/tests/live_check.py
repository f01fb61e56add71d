"""Against a running service (KOVA_SOCKET_NAME): subscribes to process births and to the total CPU time
report, says "subscribed", prints the pid and parent of the first process born under the name argv[1],
then asks for the report (the service answers the request; the report itself comes only while it
tracks CPU time). Exits 1 when the birth does not come within 20 seconds."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import kovabpf  # noqa: E402

with kovabpf.Client() as client:
    client.subscribe(kovabpf.TASK_CREATED)
    client.subscribe(kovabpf.TOTAL_TIME_IN_STATE)
    print("subscribed", flush=True)
    for event_id, fields in client.events(timeout=20):
        if event_id == kovabpf.TASK_CREATED and fields["comm"] == sys.argv[1]:
            print("created", fields["pid"], fields["ppid"], flush=True)
            break
    else:
        sys.exit(1)
    client.request_time_in_state([kovabpf.TOTAL_TIME_IN_STATE])
    print("report requested", flush=True)
