# Attacks on a lookup service: what its clients could do to it.
import random
import socket
import sys
import time


def framed(request):
    return b"%d:%s," % (len(request), request)


class Client:
    """One connection of a mail server."""

    def __init__(self, path):
        self.connection = socket.socket(socket.AF_UNIX)
        self.connection.settimeout(60)
        self.connection.connect(path)
        self.received = b""

    def send(self, *requests):
        self.connection.sendall(b"".join(framed(request) for request in requests))

    def reply(self):
        while True:
            colon = self.received.find(b":")
            if colon > 0:
                end = colon + 2 + int(self.received[:colon])
                if len(self.received) >= end:
                    reply = self.received[colon + 1 : end - 1]
                    self.received = self.received[end:]
                    return reply
            more = self.connection.recv(1 << 20)
            if not more:
                sys.exit("the connection was ended")
            self.received += more

    def ask(self, request):
        self.send(request)
        return self.reply()


def slowest_percent(path, seconds):
    """The 99th percentile of the time of a lookup, in microseconds."""
    client = Client(path)
    times = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        start = time.perf_counter()
        client.ask(b"alias team@example.com")
        times.append(time.perf_counter() - start)
        time.sleep(0.0005)
    times.sort()
    return times[len(times) * 99 // 100] * 1e6


def extensions(path, seconds):
    """Asks for a long list with a new extension each time, as much as the service takes."""
    client = Client(path)
    client.connection.setblocking(False)
    end = time.monotonic() + seconds
    number = 0
    waiting = b""
    while time.monotonic() < end:
        if not waiting:
            waiting = b"".join(
                framed(b"alias big+%d@example.com" % (number + i)) for i in range(2000)
            )
            number += 2000
        try:
            waiting = waiting[client.connection.send(waiting) :]
        except BlockingIOError:
            pass
        try:
            while client.connection.recv(1 << 20):
                pass
        except BlockingIOError:
            time.sleep(0.0002)


def storm(path, seconds, tables):
    """Asks for everything, spelled in every way."""
    end = time.monotonic() + seconds
    maps = [b"alias", b"mask_public", b"mask_private", b"mailbox", b"domain"]
    asked = 0
    while time.monotonic() < end:
        client = Client(path)
        for _ in range(200):
            table = random.choice([b"", b".", b":", b".t%d", b":t%d"])
            if b"%" in table:
                table = table % random.randrange(tables)
            local = random.choice(
                [b"list", b"big", b"x" * random.randrange(1, 1000), b"u%d" % random.getrandbits(30)]
            )
            tag = random.choice([b"", b"+%d" % random.getrandbits(20)])
            at = random.choice([b"@example.com", b"@EXAMPLE.com", b"@x%d.example" % asked, b""])
            reply = client.ask(random.choice(maps) + table + b" " + local + tag + at)
            if reply.split(b" ")[0] not in (b"OK", b"NOTFOUND", b"TEMP", b"PERM"):
                sys.exit("what is this? %r" % reply)
            asked += 1
    print(asked)


if __name__ == "__main__":
    attack, path, seconds = sys.argv[1], sys.argv[2], float(sys.argv[3])
    if attack == "storm":
        storm(path, seconds, int(sys.argv[4]))
    elif attack == "extensions":
        extensions(path, seconds)
    else:
        print(round(slowest_percent(path, seconds)))
