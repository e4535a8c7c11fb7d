"""One ping without a program: starting one takes longer here than the answer."""

from __future__ import annotations

import os
import socket
import struct
import time

ECHO_REQUEST, ECHO_REPLY = 8, 0
HEADER = struct.Struct("!BBHHH")
PAYLOAD = bytes(56)


def answers(address: str, source: str = "", within: float = 1.0) -> bool:
    """Returns whether an address answers in time; `source` is the sender's address."""
    identifier = int.from_bytes(os.urandom(2), "big")
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as pinger:
        try:
            pinger.bind((source, 0))
            pinger.sendto(_request(identifier), (address, 0))
        except OSError:  # no way to go, or none yet
            return False
        limit = time.monotonic() + within
        while (left := limit - time.monotonic()) > 0:
            pinger.settimeout(left)
            try:
                packet, (sender, _) = pinger.recvfrom(2048)
            except OSError:
                return False
            if sender == address and _is_reply(packet, identifier):
                return True
    return False


def _request(identifier: int) -> bytes:
    header = HEADER.pack(ECHO_REQUEST, 0, 0, identifier, 1)
    return HEADER.pack(ECHO_REQUEST, 0, _checksum(header + PAYLOAD), identifier, 1) + PAYLOAD


def _is_reply(packet: bytes, identifier: int) -> bool:
    body = packet[(packet[0] & 15) * 4:]
    kind, _, _, found, _ = HEADER.unpack_from(body)
    return kind == ECHO_REPLY and found == identifier


def _checksum(data: bytes) -> int:
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    total = (total >> 16) + (total & 0xFFFF)
    return ~(total + (total >> 16)) & 0xFFFF
