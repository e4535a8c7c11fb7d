"""A name server that answers every question with SERVFAIL."""

import socket
import sys

RESPONSE = 0x80
RECURSION_AVAILABLE_AND_SERVFAIL = 0x82


def main() -> None:
    """Serves on the loopback address until it is killed."""
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind(("127.0.0.1", 53))
    print("serving", file=sys.stderr, flush=True)
    while True:
        question, client = server.recvfrom(512)
        reply = bytearray(question)
        reply[2] |= RESPONSE
        reply[3] = RECURSION_AVAILABLE_AND_SERVFAIL
        server.sendto(reply, client)


if __name__ == "__main__":
    main()
