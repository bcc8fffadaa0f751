#!/usr/bin/env python3
"""A whole front-end: opens a scanner, sends a command, takes an answer.
    front_end.py usb:1a2b:3c4d "1b 53 02" 512 > answer.bin"""
import collections, contextlib, select, socket, struct, subprocess, sys, threading

HEADER = struct.Struct(">IIiII")  # id, code, error, size, value
OPEN, SEND, RECV = 4, 6, 7
PIECE = 65536  # bytes asked for at a time, which is what a failure can lose
START_TIME, ANSWER_TIME = 10, 180  # s; a plugin may make several transfers for one request, each up to its time-out


class FrontEnd:
    def __init__(self, program="tvkintif"):
        self.process = subprocess.Popen([program], stdout=subprocess.PIPE)
        ready, _, _ = select.select([self.process.stdout], [], [], START_TIME)
        line = self.process.stdout.readline() if ready else b"nothing"
        if not line.strip().isdigit() or int(line) == 0:
            self.process.kill()
            raise OSError(f"start {program}: expected a port, got {line!r}")
        # A plugin may write there too, and would hang once the pipe is full.
        threading.Thread(target=collections.deque, args=(self.process.stdout, 0), daemon=True).start()
        self.wire = socket.create_connection(("127.0.0.1", int(line)), ANSWER_TIME)

    def request(self, step, code, payload=b"", value=0):
        try:
            self.wire.sendall(HEADER.pack(1, code, 0, len(payload), value) + payload)
            _, _, error, size, _ = HEADER.unpack(self.exactly(HEADER.size))
            answer = self.exactly(size)
        except OSError as lost:
            raise OSError(f"{step}: {lost}") from lost
        if error:
            raise OSError(f"{step}: answered with {'nak' if answer else 'ng'}")
        return answer

    def exactly(self, count):
        data = b""
        while len(data) < count:  # a reply may come in any number of pieces
            data += (piece := self.wire.recv(count - len(data)))
            if not piece:
                raise OSError(f"the connection ended after {len(data)} of {count} bytes")
        return data

    def close(self):
        self.wire.close()  # whatever happened before, the program then stops the plugin and ends
        if self.process.wait(ANSWER_TIME) != 0:
            raise OSError(f"tvkintif ended with status {self.process.returncode}")


if len(sys.argv) != 4:
    sys.exit(__doc__)
try:
    udi, command, count = sys.argv[1], bytes.fromhex(sys.argv[2]), int(sys.argv[3])
    with contextlib.closing(FrontEnd()) as scanner:
        scanner.request(f"open {udi}", OPEN, udi.encode())
        scanner.request(f"send {len(command)} bytes", SEND, command)
        for start in range(0, count, PIECE):
            size = min(PIECE, count - start)
            sys.stdout.buffer.write(scanner.request(f"receive {size} bytes", RECV, value=size))
except (OSError, ValueError, subprocess.TimeoutExpired) as error:
    sys.exit(f"front_end.py: {error}")
