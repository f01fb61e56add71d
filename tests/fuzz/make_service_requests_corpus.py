#!/usr/bin/env python3
"""Writes the seed corpus of service_requests_fuzzer: one small program per file, each a case of the
service's request handling worth starting from. The program format is described at the top of
service_requests_fuzzer.cpp.

    tests/fuzz/make_service_requests_corpus.py [DIR]   (default: tests/fuzz/corpus/service_requests)
"""

import os
import struct
import sys

NO_SETTLE, SPLIT, WIDE = 0x20, 0x40, 0x80
SUBSCRIBE, UNSUBSCRIBE, REPORTS_A, REPORTS_B = 0, 1, 2, 3  # request type selectors: 51 to 54
# Event id indexes: 50001 + i for i < 10.
TASK_CREATE, TASK_EXIT, THREADS, RSS, TOTAL_TIME, PROCESS_TIME, THREAD_TIME = range(7)


def op(kind, slot=0, flags=0):
    return bytes([kind | slot << 3 | flags])


def open_(slot):
    return op(0, slot)


def close(slot, settle=True, half_request=False, shutdown=False):
    flags = (0 if settle else NO_SETTLE) | (0x40 if half_request else 0) | (0x80 if shutdown else 0)
    return op(1, slot, flags)


def data(id_index=None, literal=None):
    """A data pattern byte (and its literal bytes): one event id repeated, or literal bytes repeated."""
    if literal is not None:
        return bytes([0x80 | len(literal)]) + literal
    return bytes([id_index])


def size_bytes(size, wide):
    return struct.pack("<H", size) if wide else bytes([size])


def request(slot, type_selector, req_id, size, pattern, settle=True, split=False):
    wide = size > 255
    flags = (0 if settle else NO_SETTLE) | (SPLIT if split else 0) | (WIDE if wide else 0)
    return op(2, slot, flags) + bytes([type_selector, req_id]) + size_bytes(size, wide) + pattern


def subscribe(slot, id_index, req_id=1, **kwargs):
    return request(slot, SUBSCRIBE, req_id, 4, data(id_index), **kwargs)


def unsubscribe(slot, id_index, req_id=2, **kwargs):
    return request(slot, UNSUBSCRIBE, req_id, 4, data(id_index), **kwargs)


def ids(*values):
    return b"".join(struct.pack("<i", v) for v in values)


def event(id_index, size, count_byte=None, fill=0):
    wide = size > 255
    flags = (0x20 if count_byte is not None else 0) | (0x40 if wide else 0)
    body = bytes([id_index]) + size_bytes(size, wide) + (bytes([count_byte]) if count_byte is not None else b"")
    return op(3, 0, flags) + body + bytes([fill])


def frame(slot, package_type, size, pattern, skew=0, settle=True):
    wide = size > 255
    flags = (0 if settle else NO_SETTLE) | (WIDE if wide else 0)
    return op(4, slot, flags) + bytes([package_type]) + size_bytes(size, wide) + pattern + struct.pack("<b", skew)


def oversized(slot, size_byte):
    return op(5, slot) + bytes([size_byte])


def take():
    return op(6)


def check():
    return op(7)


CORPUS = {
    "subscribe_then_events": open_(0) + subscribe(0, TASK_CREATE) + event(TASK_CREATE, 32)
    + event(TASK_EXIT, 24) + check(),
    "subscribe_twice_delivers_once": open_(0) + subscribe(0, RSS) + subscribe(0, RSS, req_id=9)
    + event(RSS, 96) + check(),
    "unsubscribe_stops_delivery": open_(0) + subscribe(0, THREADS) + event(THREADS, 24)
    + unsubscribe(0, THREADS) + event(THREADS, 24) + check(),
    "unsubscribe_never_subscribed": open_(0) + unsubscribe(0, TOTAL_TIME) + check(),
    "unknown_request_types": open_(0) + request(0, 4, 1, 0, data(0)) + request(0, 5, 2, 4, data(0))
    + request(0, 6, 3, 8, data(1)) + request(0, 7, 4, 0, data(0)) + request(0, 200, 5, 3, data(literal=b"\x01"))
    + check(),
    "two_requests_one_batch": open_(0) + subscribe(0, TASK_CREATE, settle=False)
    + request(0, 99, 8, 0, data(0), settle=False) + check(),
    "report_types_queued": open_(0) + request(0, REPORTS_A, 1, 8, data(literal=ids(50005, 50007)))
    + request(0, REPORTS_B, 2, 4, data(TOTAL_TIME + 3)) + take() + check(),
    "report_request_without_ids": open_(1) + request(1, REPORTS_A, 3, 0, data(0)) + take(),
    "report_queue_overflows": open_(0) + request(0, REPORTS_A, 1, 2400, data(PROCESS_TIME))
    + request(0, REPORTS_A, 2, 2400, data(PROCESS_TIME)) + request(0, REPORTS_B, 3, 400, data(THREAD_TIME))
    + take() + request(0, REPORTS_A, 4, 4800, data(TOTAL_TIME)) + request(0, REPORTS_A, 5, 4, data(0)),
    "report_sizes_not_multiple_of_four": open_(0) + request(0, REPORTS_A, 1, 3, data(TOTAL_TIME))
    + request(0, REPORTS_B, 2, 5, data(literal=b"\x55\xc3")) + request(0, REPORTS_A, 3, 7, data(TOTAL_TIME))
    + take(),
    "subscribe_short_and_long_data": open_(0) + request(0, SUBSCRIBE, 1, 0, data(0))
    + request(0, SUBSCRIBE, 2, 1, data(literal=b"\x07")) + request(0, SUBSCRIBE, 3, 2, data(TASK_CREATE))
    + request(0, SUBSCRIBE, 4, 3, data(literal=b"\x51\xc3\x00")) + request(0, SUBSCRIBE, 5, 12, data(RSS))
    + event(10, 8) + event(13, 8) + event(TASK_CREATE, 32) + check(),
    "closed_client_leaves_nothing": open_(0) + subscribe(0, TASK_EXIT) + subscribe(0, RSS, req_id=2) + close(0)
    + event(TASK_EXIT, 24) + check(),
    "descriptor_reused_starts_clean": open_(0) + subscribe(0, TASK_EXIT) + close(0) + open_(1)
    + event(TASK_EXIT, 24) + subscribe(1, TASK_EXIT) + event(TASK_EXIT, 24) + check(),
    "events_for_a_closing_client": open_(0) + open_(1) + subscribe(0, TASK_CREATE) + subscribe(1, TASK_CREATE)
    + close(0, settle=False) + event(TASK_CREATE, 32, count_byte=200) + check(),
    "close_with_half_a_request": open_(0) + subscribe(0, TASK_CREATE) + close(0, half_request=True)
    + event(TASK_CREATE, 32) + open_(0) + check(),
    "write_side_shut_down": open_(2) + subscribe(2, RSS) + event(RSS, 96) + close(2, shutdown=True)
    + event(RSS, 96) + check(),
    "request_in_two_pieces": open_(0) + subscribe(0, THREADS, split=True)
    + request(0, REPORTS_A, 7, 300, data(TOTAL_TIME), split=True) + event(THREADS, 24) + take(),
    "fan_out_to_two": open_(0) + open_(1) + subscribe(0, TOTAL_TIME) + subscribe(1, TOTAL_TIME)
    + event(TOTAL_TIME, 200, fill=7) + unsubscribe(0, TOTAL_TIME) + event(TOTAL_TIME, 13) + check(),
    "subscriptions_from_two_in_one_batch": open_(0) + open_(1) + open_(2)
    + subscribe(2, TASK_CREATE) + subscribe(1, TASK_CREATE, settle=False) + subscribe(0, TASK_CREATE, settle=False)
    + check() + event(TASK_CREATE, 32),
    "requests_then_close_in_one_batch": open_(0) + subscribe(0, TASK_CREATE, settle=False)
    + request(0, REPORTS_A, 2, 4, data(TOTAL_TIME), settle=False) + close(0) + event(TASK_CREATE, 32) + take(),
    "packages_of_other_types": open_(0) + frame(0, 1, 12, data(0)) + frame(0, 2, 0, data(0))
    + frame(0, 3, 32, data(TASK_CREATE)) + frame(0, 4, 5, data(literal=b"ab")) + frame(0, 255, 40, data(1))
    + subscribe(0, TASK_CREATE) + check(),
    "oversized_frames": open_(0) + oversized(0, 0) + subscribe(0, TASK_CREATE) + oversized(0, 0x90)
    + oversized(0, 0xc0) + oversized(0, 0xc7) + event(TASK_CREATE, 32) + check(),
    "largest_request": open_(0) + request(0, SUBSCRIBE, 1, 32740, data(TASK_CREATE))
    + request(0, REPORTS_B, 2, 32740, data(THREAD_TIME)) + event(TASK_CREATE, 32) + take(),
    "largest_frame_of_another_type": open_(0) + frame(0, 3, 32752, data(0)) + subscribe(0, RSS) + check(),
    # A package no frame holds, at the head of a queue, must not keep the packages behind it waiting.
    "oversized_event_at_the_head": open_(0) + subscribe(0, PROCESS_TIME) + event(PROCESS_TIME, 32753)
    + event(PROCESS_TIME, 40) + check(),
    "largest_event_and_one_too_large": open_(0) + subscribe(0, PROCESS_TIME) + event(PROCESS_TIME, 32752)
    + event(PROCESS_TIME, 40) + event(PROCESS_TIME, 32753) + event(PROCESS_TIME, 40) + check(),
    "queue_trimmed_for_a_slow_client": open_(0) + open_(1) + subscribe(0, TASK_CREATE) + subscribe(1, TASK_EXIT)
    + event(TASK_CREATE, 8, count_byte=250) + event(TASK_EXIT, 24) + check(),
    "events_between_unanswered_requests": open_(0) + subscribe(0, RSS) + subscribe(0, TASK_CREATE, settle=False)
    + event(RSS, 96) + request(0, 50, 3, 4, data(0), settle=False) + event(TASK_CREATE, 32) + event(RSS, 96)
    + check(),
    "report_requests_from_two_clients": open_(0) + open_(1)
    + request(0, REPORTS_A, 1, 8, data(TOTAL_TIME), settle=False)
    + request(1, REPORTS_B, 2, 8, data(PROCESS_TIME), settle=False) + take(),
    "client_send_buffer_full": open_(0) + b"".join(
        request(0, 60 + i, i, 32740, data(literal=bytes([i])), settle=False) for i in range(10))
    + subscribe(0, TASK_CREATE) + event(TASK_CREATE, 32) + check(),
    "events_shorter_than_an_id": open_(0) + request(0, SUBSCRIBE, 1, 0, data(0)) + event(10, 0) + event(10, 3)
    + event(10, 4) + check(),
    "four_clients": open_(0) + open_(1) + open_(2) + open_(3) + subscribe(0, TASK_CREATE)
    + subscribe(1, TASK_EXIT) + subscribe(2, TASK_CREATE) + subscribe(3, RSS) + event(TASK_CREATE, 32)
    + close(2) + event(TASK_CREATE, 32) + event(RSS, 96) + close(0, settle=False) + close(1, settle=False)
    + open_(2) + subscribe(2, RSS) + event(RSS, 96) + check(),
}


def main():
    root = os.path.dirname(os.path.abspath(__file__))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "corpus", "service_requests")
    os.makedirs(out, exist_ok=True)
    for name, program in sorted(CORPUS.items()):
        with open(os.path.join(out, name), "wb") as f:
            f.write(program)
    print(f"{len(CORPUS)} inputs in {out}")


if __name__ == "__main__":
    main()
