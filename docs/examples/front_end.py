#!/usr/bin/env python3
"""A whole front-end: opens a scanner, sends a command, takes an answer.

    front_end.py usb:1a2b:3c4d "1b 53 02" 512 > answer.bin
"""
import socket
import struct
import subprocess
import sys

OPEN, CLOSE, SEND, RECV = 4, 5, 6, 7
HEADER = struct.Struct(">IIiII")  # id, code, error, size, value


class FrontEnd:
    def __init__(self, program="tvkintif"):
        self.process = subprocess.Popen([program], stdout=subprocess.PIPE)
        port = int(self.process.stdout.readline() or -1)
        if port == -1:
            raise OSError(f"{program} could not start: see its log")
        self.wire = socket.create_connection(("127.0.0.1", port))

    def request(self, code, payload=b"", value=0):
        """Sends one request and returns the reply's payload, None for ng and nak."""
        self.wire.sendall(HEADER.pack(1, code, 0, len(payload), value) + payload)
        _, _, error, size, _ = HEADER.unpack(self.exactly(HEADER.size))
        answer = self.exactly(size)
        return answer if error == 0 else None

    def exactly(self, count):
        data = bytearray()
        while len(data) < count:
            piece = self.wire.recv(count - len(data))
            if not piece:
                raise EOFError(f"connection ended after {len(data)} of {count} bytes")
            data += piece
        return bytes(data)

    def close(self):
        """Tells the program to end, which has no reply, and returns its exit status."""
        self.wire.sendall(HEADER.pack(1, CLOSE, 0, 0, 0))
        self.wire.close()
        return self.process.wait()


def main(udi, command, count):
    scanner = FrontEnd()
    if scanner.request(OPEN, udi.encode()) is None:
        sys.exit(f"{udi} did not open: tvkctl explain {udi} tells why")
    if scanner.request(SEND, bytes.fromhex(command)) is None:
        sys.exit("the plugin did not take the command")
    answer = scanner.request(RECV, value=int(count))
    if answer is None:
        sys.exit("the plugin brought no answer")
    sys.stdout.buffer.write(answer)
    return scanner.close()


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
