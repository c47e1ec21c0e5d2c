# What goes on while servers fail: lookups, and writes by the tool, each counted.
import json
import os
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../serve"))
from attack import Client  # noqa: E402

# Aliases that nobody changes while the load runs. More than are made between two checks, which then
# remove those: a service does not believe that a table has lost half of its rows.
STEADY = 1500


def run_tool(tool, option_file, *words, text=None):
    """Exit status and messages of the tool."""
    command = [tool, "--option-file", option_file, *words]
    done = subprocess.run(command, capture_output=True, text=True, input=text, timeout=300)
    return done.returncode, done.stderr.strip()


class Lookups:
    """The program cluster_lookups, from the service when a socket is given, or from the library."""

    def __init__(self, program, option_file, socket=None):
        environment = dict(os.environ, TSL_DATABASE_OPTION_FILE=option_file)
        words = [program, str(STEADY)] + ([socket] if socket else [])
        pipe = subprocess.PIPE
        self.process = subprocess.Popen(words, env=environment, stdin=pipe, stdout=pipe, text=True)
        self.pid = self.process.pid

    def report(self):
        """Counts and times since the last report."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def stop(self):
        self.process.stdin.close()
        self.process.wait()


class Writer(threading.Thread):
    """Makes aliases of its own, and adds members to an alias that others change too."""

    def __init__(self, tool, name, option_file):
        super().__init__(daemon=True)
        self.tool, self.name_, self.option_file = tool, name, option_file
        self.stopping = threading.Event()
        self.acknowledged = []  # (alias, member), since the last check.
        self.total = 0  # How many have been acknowledged.
        self.failed = []  # (alias, member, seconds, message)
        self.gap = 0  # The longest time between two acknowledgements since the last report.
        self.last = time.monotonic()
        self.start()

    def run(self):
        number = 0
        while not self.stopping.wait(0.02):
            number += 1
            self.write("set", "w%s-%d" % (self.name_, number), "v%s-%d" % (self.name_, number))
            # Another one now and then, so that it does not grow as long as the run.
            self.write("add", "shared-%d" % (number // 100), "a%s-%d" % (self.name_, number))

    def write(self, command, alias, member):
        alias, member = alias + "@example.com", member + "@example.com"
        start = time.monotonic()
        status, message = run_tool(self.tool, self.option_file, "alias", command, alias, member)
        end = time.monotonic()
        if status == 0:
            self.acknowledged.append((alias, member))
            self.total += 1
            self.gap = max(self.gap, end - self.last)
            self.last = end
        else:
            self.failed.append((alias, member, end - start, message))

    def take_gap(self):
        gap, self.gap = self.gap, 0
        return gap

    def stop(self):
        self.stopping.set()
        self.join()


class Changes(threading.Thread):
    """Changes an alias by the tool, and asks services until they all have the change."""

    ALIAS = "changing@example.com"

    def __init__(self, tool, option_files, sockets):
        super().__init__(daemon=True)
        self.tool, self.option_files, self.sockets = tool, option_files, sockets
        self.stopping = threading.Event()
        self.attempted = 0
        self.seen = [0] * len(sockets)
        self.delays = []  # Seconds until a change was served everywhere.
        self.failed = []  # What the tool said.
        self.wrong = []  # What a service answered that was never so, or is not so any more.
        self.start()

    def run(self):
        clients = [Client(socket) for socket in self.sockets]
        while not self.stopping.wait(0.2):
            self.attempted += 1
            value = "v%d@example.com" % self.attempted
            option_file = self.option_files[self.attempted % len(self.option_files)]
            status, message = run_tool(self.tool, option_file, "alias", "set", self.ALIAS, value)
            written = time.monotonic()
            if status:
                self.failed.append(message)
            else:
                for index, client in enumerate(clients):
                    while self.ask(index, client) < self.attempted:
                        time.sleep(0.01)
                        if time.monotonic() > written + 60:
                            self.wrong.append("v%d is not served after 60 s" % self.attempted)
                            break
                self.delays.append(time.monotonic() - written)

    def ask(self, index, client):
        reply = client.ask(b"alias " + self.ALIAS.encode()).decode()
        if reply.startswith("TEMP") or (reply.startswith("NOTFOUND") and not self.seen[index]):
            return 0
        word = reply.split()[-1]
        number = int(word[1:].split("@")[0]) if reply.startswith("OK v") else -1
        if not self.seen[index] <= number <= self.attempted:
            self.wrong.append("%s after v%d of v%d" % (reply, self.seen[index], self.attempted))
        self.seen[index] = max(self.seen[index], number)
        return number

    def take_slowest(self):
        delays, self.delays = self.delays, []
        return max(delays, default=0)

    def stop(self):
        self.stopping.set()
        self.join()


class Service:
    """A lookup service."""

    def __init__(self, tool, directory, name, option_file, *options):
        self.socket = "%s/%s.sock" % (directory, name)
        self.log = "%s/%s.log" % (directory, name)
        command = [tool, "serve", "--listen", "unix:" + self.socket, *options]
        environment = dict(os.environ, TSL_DATABASE_OPTION_FILE=option_file)
        with open(self.log, "w") as log:
            self.process = subprocess.Popen(command, env=environment, stderr=log)
        self.pid = self.process.pid

    def has(self, address, want):
        """True when the service answers with the address `want`."""
        return Client(self.socket).ask(b"alias " + address.encode()) == b"OK " + want.encode()

    def stop(self):
        self.process.terminate()
        self.process.wait()
