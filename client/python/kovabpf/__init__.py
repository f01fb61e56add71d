"""A client of the Kova BPF service in Python, standard library only.

The same wire protocol and decoders as libkovabpfclient (docs/protocol.md describes the bytes):

    import kovabpf
    with kovabpf.Client() as client:              # KOVA_SOCKET_NAME, or the system's socket
        client.subscribe(kovabpf.TASK_CREATED)
        for event in client.events():             # (id, decoded) pairs, decoded a dict or None
            print(event)

A Client is one connection: subscriptions end with it, and after the service restarts a new Client
must subscribe again. Requests are answered in order; events that arrive while a request waits for
its answer are kept for events().
"""

import os
import socket
import struct

__all__ = [
    "Client", "ServiceError", "decode", "event_name",
    "TASK_CREATED", "TASK_EXITED", "THREAD_COUNT_CHANGED", "RSS_CHANGED", "TOTAL_TIME_IN_STATE",
    "PROCESS_TIME_IN_STATE", "THREAD_TIME_IN_STATE", "TOTAL_TIME_RESET", "PROCESS_TIME_RESET",
    "THREAD_TIME_RESET", "DMABUF_SIZE", "CGROUP_MOVE", "FD_COUNT", "DMABUF_UPDATE",
]

DEFAULT_SOCKET = "/mnt/bpfframework/kovabpfdispatcher"

TASK_CREATED, TASK_EXITED, THREAD_COUNT_CHANGED, RSS_CHANGED = 50001, 50002, 50003, 50004
TOTAL_TIME_IN_STATE, PROCESS_TIME_IN_STATE, THREAD_TIME_IN_STATE = 50005, 50006, 50007
TOTAL_TIME_RESET, PROCESS_TIME_RESET, THREAD_TIME_RESET = 50008, 50009, 50010
DMABUF_SIZE, CGROUP_MOVE, FD_COUNT, DMABUF_UPDATE = 4, 5, 6, 7

_REQUEST, _RESPONSE, _EVENT = 0, 1, 3
_SUBSCRIBE, _UNSUBSCRIBE, _TIME_IN_STATE = 51, 52, 53
_MAX_FRAME = 32768

_NAMES = {
    TASK_CREATED: "task_created", TASK_EXITED: "task_exited", THREAD_COUNT_CHANGED: "thread_count_changed",
    RSS_CHANGED: "rss_changed", TOTAL_TIME_IN_STATE: "total_time_in_state",
    PROCESS_TIME_IN_STATE: "process_time_in_state", THREAD_TIME_IN_STATE: "thread_time_in_state",
    TOTAL_TIME_RESET: "total_time_reset", PROCESS_TIME_RESET: "process_time_reset",
    THREAD_TIME_RESET: "thread_time_reset", DMABUF_SIZE: "dmabuf_size", CGROUP_MOVE: "cgroup_move",
    FD_COUNT: "fd_count", DMABUF_UPDATE: "dmabuf_update",
}
_DMABUF_OPS = {1: "export", 2: "release", 3: "attach", 4: "vmap", 5: "mmap"}


class ServiceError(Exception):
    """The service could not be reached, refused a request, or broke the protocol."""


def event_name(event_id):
    """The short name of a known event id ("task_created", ...), or None."""
    return _NAMES.get(event_id)


# ---------------------------------------------------------------------------------------------------
# Decoders: one per layout, each taking the whole record (id included) and returning a dict, with the
# field names of libkovabpfclient's structs; ValueError when the record is not what its id says.

def _text(raw):
    return raw.split(b"\0", 1)[0].decode("utf-8", "replace")


class _Reader:
    def __init__(self, record, what):
        self.record, self.at, self.what = record, 0, what

    def take(self, layout):
        size = struct.calcsize(layout)
        if self.at + size > len(self.record):
            raise ValueError("%s: %d bytes, too short" % (self.what, len(self.record)))
        values = struct.unpack_from(layout, self.record, self.at)
        self.at += size
        return values

    def end(self):
        if self.at != len(self.record):
            raise ValueError("%s: %d bytes, expected %d" % (self.what, len(self.record), self.at))


def _fixed(record, layout, what):
    reader = _Reader(record, what)
    values = reader.take(layout)
    reader.end()
    return values


def _rss(values):
    file, anon, swap, shmem = values
    return {"file": file, "anon": anon, "swap": swap, "shmem": shmem}


def _decode_task_created(record):
    _, pid, ppid, uid, comm = _fixed(record, "<IiiI16s", "task_created")
    return {"pid": pid, "ppid": ppid, "uid": uid, "comm": _text(comm)}


def _decode_task_exited(record):
    _, pid, comm = _fixed(record, "<Ii16s", "task_exited")
    return {"pid": pid, "comm": _text(comm)}


def _decode_thread_count_changed(record):
    _, pid, ppid, uid, old, now = _fixed(record, "<IiiIii", "thread_count_changed")
    return {"pid": pid, "ppid": ppid, "uid": uid, "oldThreadNum": old, "threadNum": now}


def _decode_rss_changed(record):
    values = _fixed(record, "<IiiI16s4q4q", "rss_changed")
    return {"pid": values[1], "ppid": values[2], "uid": values[3], "comm": _text(values[4]),
            "current": _rss(values[5:9]), "lastReported": _rss(values[9:13])}


def _policies(reader):
    (count,) = reader.take("<I")
    policies = []
    for _ in range(count):
        (frequencies,) = reader.take("<I")
        policies.append(list(reader.take("<%dQ" % frequencies)))
    return policies


def _decode_total_time(record):
    reader = _Reader(record, "total_time_in_state")
    _, timestamp, has_data = reader.take("<IQB")
    policies = _policies(reader) if has_data == 1 else []
    reader.end()
    return {"timestampNs": timestamp, "hasData": has_data == 1, "policies": policies}


def _time_report(record, what, layout, fields, texts):
    reader = _Reader(record, what)
    _, timestamp, reported, total, has_records = reader.take("<IQQQB")
    report = {"timestampNs": timestamp, "reportedTimeNs": reported, "totalTimeNs": total,
              "hasRecords": has_records == 1, "records": [], "hasFrequencyData": False, "frequencies": []}
    if has_records == 1:
        (count,) = reader.take("<I")
        for _ in range(count):
            values = dict(zip(fields, reader.take(layout)))
            for name in texts:
                values[name] = _text(values[name])
            report["records"].append(values)
    (has_frequencies,) = reader.take("<B")
    if has_frequencies == 1:
        report["hasFrequencyData"] = True
        (count,) = reader.take("<I")
        for _ in range(count):
            (key,) = reader.take("<I")
            report["frequencies"].append({"key": key, "policies": _policies(reader)})
    reader.end()
    return report


def _decode_process_time(record):
    return _time_report(record, "process_time_in_state", "<IIQ16s", ("key", "tgid", "timeNs", "name"), ("name",))


def _decode_thread_time(record):
    return _time_report(record, "thread_time_in_state", "<III16sQ16s",
                        ("key", "pid", "tgid", "threadName", "timeNs", "processName"), ("threadName", "processName"))


def _decode_reset(record):
    event_id, timestamp = _fixed(record, "<QQ", "time_reset")
    return {"id": event_id, "timestampNs": timestamp}


def _decode_dmabuf_size(record):
    _, _, timestamp, pid, buffers, size, reported = _fixed(record, "<IIQiIQQ", "dmabuf_size")
    return {"timestampNs": timestamp, "pid": pid, "buffers": buffers, "bytes": size, "reportedBytes": reported}


def _decode_cgroup_move(record):
    _, _, timestamp, cgroup, pid, caller, root, level, comm, path = _fixed(record, "<IIQQiiii16s128s", "cgroup_move")
    return {"timestampNs": timestamp, "pid": pid, "callerPid": caller, "comm": _text(comm), "path": _text(path),
            "level": level, "cgroupId": cgroup, "root": root}


def _decode_fd_count(record):
    _, _, timestamp, pid, _, open_fds, reported, comm = _fixed(record, "<IIQiIqq16s", "fd_count")
    return {"timestampNs": timestamp, "pid": pid, "comm": _text(comm), "openFds": open_fds, "reportedFds": reported}


def _decode_dmabuf_update(record):
    _, _, timestamp, pid, op, inode, size = _fixed(record, "<IIQiIQQ", "dmabuf_update")
    if op not in _DMABUF_OPS:
        raise ValueError("dmabuf_update: unknown operation %d" % op)
    return {"timestampNs": timestamp, "pid": pid, "op": _DMABUF_OPS[op], "inode": inode, "size": size}


_DECODERS = {
    TASK_CREATED: _decode_task_created, TASK_EXITED: _decode_task_exited,
    THREAD_COUNT_CHANGED: _decode_thread_count_changed, RSS_CHANGED: _decode_rss_changed,
    TOTAL_TIME_IN_STATE: _decode_total_time, PROCESS_TIME_IN_STATE: _decode_process_time,
    THREAD_TIME_IN_STATE: _decode_thread_time, TOTAL_TIME_RESET: _decode_reset,
    PROCESS_TIME_RESET: _decode_reset, THREAD_TIME_RESET: _decode_reset, DMABUF_SIZE: _decode_dmabuf_size,
    CGROUP_MOVE: _decode_cgroup_move, FD_COUNT: _decode_fd_count, DMABUF_UPDATE: _decode_dmabuf_update,
}


def decode(record):
    """(id, fields) of a record; fields is None for an id without a decoder. ValueError when a known
    id's record is malformed or the record is shorter than an id."""
    if len(record) < 4:
        raise ValueError("a record of %d bytes has no id" % len(record))
    (event_id,) = struct.unpack_from("<I", record)
    decoder = _DECODERS.get(event_id)
    return event_id, (decoder(record) if decoder else None)


# ---------------------------------------------------------------------------------------------------
# The connection

class Client:
    """One connection to the service. `socket_name`: a file system path, tried first, or an abstract
    name; None takes KOVA_SOCKET_NAME or the system's socket."""

    def __init__(self, socket_name=None, timeout=10.0):
        name = socket_name or os.environ.get("KOVA_SOCKET_NAME") or DEFAULT_SOCKET
        self._socket = None
        for address in (name, "\0" + name):
            candidate = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            candidate.settimeout(timeout)
            try:
                candidate.connect(address)
                self._socket = candidate
                break
            except OSError as error:
                candidate.close()
                failure = error
        if self._socket is None:
            raise ServiceError("cannot connect to %s: %s" % (name, failure))
        self._timeout = timeout
        self._buffer = b""
        self._events = []
        self._next_request = 1

    def close(self):
        if self._socket is not None:
            self._socket.close()
            self._socket = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def subscribe(self, event_id):
        self._request(_SUBSCRIBE, [event_id])

    def unsubscribe(self, event_id):
        self._request(_UNSUBSCRIBE, [event_id])

    def request_time_in_state(self, report_ids):
        """Asks for reports 50005 to 50010; they arrive as events to subscribers of their ids."""
        self._request(_TIME_IN_STATE, list(report_ids))

    def events(self, timeout=None):
        """Yields (id, fields) for every event, in the order the service sent them; ends when `timeout`
        seconds pass without one (None: never) or the service closes the connection."""
        while True:
            while self._events:
                yield decode(self._events.pop(0))
            package = self._next_package(timeout)
            if package is None:
                return
            kind, payload = package
            if kind == _EVENT:
                self._events.append(payload)

    # Sends a request and waits for its response; events meanwhile are kept.
    def _request(self, request_type, words):
        request_id = self._next_request
        self._next_request += 1
        data = struct.pack("<%dI" % len(words), *words)
        payload = struct.pack("<IiI", request_id, request_type, len(data)) + data
        body = struct.pack("<II", _REQUEST, len(payload)) + payload
        self._socket.sendall(struct.pack("<Q", len(body)) + body)
        while True:
            package = self._next_package(self._timeout)
            if package is None:
                raise ServiceError("no response to request %d" % request_type)
            kind, payload = package
            if kind == _EVENT:
                self._events.append(payload)
            elif kind == _RESPONSE and len(payload) >= 12:
                answered, result, _ = struct.unpack_from("<IiI", payload)
                if answered == request_id:
                    if result != 0:
                        raise ServiceError("request %d refused (result %d)" % (request_type, result))
                    return

    # The next package (type, payload), or None on timeout or when the service closed the link.
    def _next_package(self, timeout):
        while True:
            if len(self._buffer) >= 8:
                (size,) = struct.unpack_from("<Q", self._buffer)
                if size < 8 or size + 8 > _MAX_FRAME:
                    raise ServiceError("damaged frame of %d bytes" % size)
                if len(self._buffer) >= 8 + size:
                    kind, length = struct.unpack_from("<II", self._buffer, 8)
                    if length != size - 8:
                        raise ServiceError("frame and package sizes disagree")
                    payload = self._buffer[16:8 + size]
                    self._buffer = self._buffer[8 + size:]
                    return kind, payload
            self._socket.settimeout(timeout)
            try:
                received = self._socket.recv(65536)
            except socket.timeout:
                return None
            if not received:
                return None
            self._buffer += received
