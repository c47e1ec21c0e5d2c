# A milter that changes nothing, and writes down whose mail it was shown.
# Usage: milter.py FILE
# Listens on a free port of 127.0.0.1, which it prints. For each mail FILE gets a line "MAIL FROM:<...>", as
# the client said it, and the header lines.
import socketserver
import struct
import sys


class Filter(socketserver.StreamRequestHandler):
    def handle(self):
        while size := self.rfile.read(4):
            packet = self.rfile.read(struct.unpack(">I", size)[0])
            command, data = packet[:1], packet[1:]
            if command == b"O":
                self.answer(b"O" + struct.pack(">III", struct.unpack(">I", data[:4])[0], 0, 0))
                continue
            if command in b"DAQ":  # Macros, an aborted mail, the end: these have no answer.
                continue
            words = data.split(b"\0")
            if command == b"M":
                self.note("MAIL FROM:%s" % words[0].decode())
            elif command == b"L":
                self.note("%s: %s" % (words[0].decode(), words[1].decode().strip()))
            self.answer(b"c")

    def answer(self, packet):
        self.wfile.write(struct.pack(">I", len(packet)) + packet)

    @staticmethod
    def note(line):
        with open(sys.argv[1], "a") as file:
            file.write(line + "\n")


with socketserver.ThreadingTCPServer(("127.0.0.1", 0), Filter) as server:
    server.daemon_threads = True
    print(server.server_address[1], flush=True)
    server.serve_forever()
