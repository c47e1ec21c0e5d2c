# Breaks the servers of a private cluster, and of a primary with a replica, under load, and counts what
# goes wrong.
# Usage: faults.py [--scenario NAME]... [--seconds N] [--spoil]
# TSL_TOOL and TSL_LOOKUPS are the paths of tsl-address-map and of cluster_lookups. Without --seconds
# each scenario runs once; with it, all are repeated in random order until that time is over. Prints a
# table, a line for each run, and then one for all runs of a scenario. With --spoil the tables are broken
# at the end, to see that this would be noticed. Exit status 1: an answer was wrong, or a write was lost,
# doubled, or done although it was refused.
import argparse
import collections
import os
import random
import signal
import sys
import tempfile
import time

from load import STEADY, Changes, Lookups, Service, Writer, run_tool
from servers import Cluster, Pair, wait_until

# A call of the library takes no longer than one time-out for connecting and one for reading, in
# microseconds, and a second for the work of busy processors.
LONGEST_CALL = (3 + 30 + 1) * 1e6


# Each scenario is given the servers, and the one that the service reads from.


def kill(cluster, used):
    """The node in use is killed."""
    cluster.signal(used, signal.SIGKILL)
    time.sleep(3)


def suspend(cluster, used, seconds=5):
    """The node in use stands still, without closing its connections."""
    cluster.signal(used, signal.SIGSTOP)
    time.sleep(seconds)
    cluster.signal(used, signal.SIGCONT)


def suspend_long(cluster, used):
    """The same for longer than every time-out."""
    suspend(cluster, used, 45)


def shut_down(cluster, used):
    """The node in use is shut down."""
    cluster.shut_down(used)
    time.sleep(2)


def isolate(cluster, used):
    """The node in use is cut off from the others, and still accepts connections."""
    cluster.provider(used, "gmcast.isolate=1")
    time.sleep(5)
    cluster.provider(used, "gmcast.isolate=0")


def quorum(cluster, used):
    """Two nodes are killed, so that the third one refuses everything."""
    for node in (used, (used + 1) % 3):
        cluster.signal(node, signal.SIGKILL)
    time.sleep(6)


def rolling(cluster, _):
    """Each node is restarted, one after the other."""
    for node in range(3):
        cluster.shut_down(node)
        cluster.heal()


def join(cluster, used):
    """A node that lost its data takes them from another one."""
    node = (used + 1) % 3
    cluster.shut_down(node)
    cluster.empty(node)


def replica_stop(pair, _):
    """The replica is stopped and started."""
    pair.shut_down(pair.replica)
    time.sleep(4)


def replica_lag(pair, _):
    """The replica applies changes 10 seconds late."""
    pair.follow(delay=10)
    time.sleep(25)
    pair.follow()


def promote(pair, _):
    """The replica becomes the primary, and the other way round."""
    pair.promote()


def primary_stop(pair, _):
    """The primary is stopped: nobody can write until it is back."""
    pair.shut_down(pair.primary)
    time.sleep(4)


SCENARIOS = {
    Cluster: {
        "kill": kill,
        "suspend": suspend,
        "suspend-long": suspend_long,
        "shutdown": shut_down,
        "isolate": isolate,
        "quorum": quorum,
        "rolling": rolling,
        "join": join,
    },
    Pair: {
        "replica-stop": replica_stop,
        "replica-lag": replica_lag,
        "promote": promote,
        "primary-stop": primary_stop,
    },
}

# Lookups through the service and through the library, in milliseconds; writes of the tool, and the
# longest time in seconds in which none was acknowledged, and until a change was served everywhere.
COLUMNS = (
    "scenario", "service 50%", "99.9%", "longest", "TEMP", "library 50%", "99.9%", "longest", "failed",
    "writes", "failed", "gap", "change", "wrong", "not there", "lost", "doubled", "untold",
)
WIDTHS = ("99 suspend-long", *(title.rjust(7) for title in COLUMNS[1:]))
# Of lookups and of writes; "untold": refused, and done all the same.
FAULTS = ("wrong", "not there", "lost", "doubled", "untold")
# How the tool says that a write may have been done.
UNKNOWN = "check whether the change was made"


class Trial:
    """The load on servers of the type `kind`, and what came of it."""

    def __init__(self, kind, directory):
        tool, lookups = os.environ["TSL_TOOL"], os.environ["TSL_LOOKUPS"]
        self.scenarios, self.servers = SCENARIOS[kind], kind(tool, directory)
        files = [self.servers.option_file(first) for first in range(len(self.servers.ports))]
        for words in (["init"], ["alias", "import", "-"]):
            text = "".join("s%d@example.com:m%d@example.com\n" % (i, i) for i in range(STEADY))
            status, message = run_tool(tool, files[0], *words, text=text)
            if status:
                sys.exit(message)
        self.services = [
            Service(tool, directory, name, file, *self.servers.SERVICE_OPTIONS)
            for name, file in zip(("one", "two"), files)
        ]
        sockets = [service.socket for service in self.services]
        for service in self.services:
            want = ("s0@example.com", "m0@example.com")
            wait_until(lambda service=service: service.has(*want), "the service answers", 20)
        self.by_service = Lookups(lookups, files[0], sockets[0])
        self.by_library = Lookups(lookups, files[0])
        self.writers = [Writer(tool, "a", files[0]), Writer(tool, "b", files[1])]
        self.changes = Changes(tool, files, sockets)
        self.checked = (0, 0)
        self.reported = set()
        self.faults = collections.Counter()
        self.messages = []

    def take_counts(self):
        """What happened since the last call, as a row of the table without its name."""
        for thread in (*self.writers, self.changes):
            if not thread.is_alive() and not thread.stopping.is_set():
                sys.exit("a part of the load has ended")
        service, library = self.by_service.report(), self.by_library.report()
        acknowledged = sum(writer.total for writer in self.writers)
        failures = [failure for writer in self.writers for failure in writer.failed]
        before = self.checked
        self.checked = (acknowledged, len(failures))
        lost, doubled, refused = self.check_writes()
        wrong, self.changes.wrong = self.changes.wrong, []
        self.messages += wrong
        too_long = library["slowest"] > LONGEST_CALL
        if too_long:
            self.messages.append("a call of the library took %.1f s" % (library["slowest"] / 1e6))
        counts = {
            "wrong": service["wrong"] + library["wrong"] + len(wrong) + too_long,
            "not there": service["notThere"] + library["notThere"],
            "lost": lost,
            "doubled": doubled,
            "untold": refused,
        }
        self.faults.update(counts)
        times = []
        for report in (service, library):
            times += ["%.2f" % (report[key] / 1e3) for key in ("median", "slow", "slowest")]
            times.append(report["failed"])
        return [
            *times,
            acknowledged - before[0],
            len(failures) - before[1],
            "%.1f" % max(writer.take_gap() for writer in self.writers),
            "%.2f" % self.changes.take_slowest(),
            *counts.values(),
        ]

    def check_writes(self):
        """How many writes are newly found lost, doubled, or done although they were refused."""
        # What is acknowledged or refused after this may differ from what is read.
        lists = [list(writer.acknowledged) for writer in self.writers]
        acknowledged = [write for writes in lists for write in writes]
        refused = [
            failure[:2]
            for writer in self.writers
            for failure in list(writer.failed)
            if UNKNOWN not in failure[3]
        ]
        found = {"lost": set(), "doubled": set(), "refused and done": set()}
        self.servers.catch_up()
        for server in range(len(self.servers.ports)):
            rows = collections.defaultdict(list)
            for name, members in self.servers.rows(server):
                rows[name] += members
            found["lost"].update(w for w in acknowledged if w[1] not in rows.get(w[0], []))
            found["refused and done"].update(w for w in refused if w[1] in rows.get(w[0], []))
            found["doubled"].update(
                (name, "") for name, members in rows.items() if len(members) != len(set(members))
            )
        counts = []
        for fault, writes in found.items():
            new = {(fault, *write) for write in writes} - self.reported
            self.reported |= new
            self.messages += ["%s: %s %s" % fault for fault in sorted(new)]
            counts.append(len(new))
        for writer, writes in zip(self.writers, lists):
            del writer.acknowledged[: len(writes)]
        # Aliases that others may still be changing stay.
        names = {alias for alias, _ in acknowledged if not alias.startswith("shared")}
        if names:
            self.servers.remove(names)
        return counts

    def run(self, name):
        time.sleep(random.uniform(0, 1))
        try:
            self.scenarios[name](self.servers, self.servers.used_by(self.services[0].pid))
            self.servers.heal()
        except SystemExit as exit:
            sys.exit("%s: %s" % (name, exit))
        time.sleep(1)
        return [name, *self.take_counts()]

    def tell(self):
        """Prints why writes failed, and what was wrong."""
        failed = [failure[3] for writer in self.writers for failure in writer.failed]
        failed += self.changes.failed
        reasons = collections.Counter(message.split("; statement")[0] for message in failed)
        for reason, count in reasons.most_common():
            print("%d write(s) failed: %s" % (count, reason))
        for message, count in collections.Counter(self.messages).most_common(20):
            print("%d time(s): %s" % (count, message))

    def spoil(self):
        """Breaks the tables, and ends the program unless each count notices."""
        time.sleep(1)  # For writes that can be lost.
        for writer in self.writers:
            writer.stop()
        for statement in (
            "delete from ts_address_map.alias where name like 's1%'",
            "update ts_address_map.alias set members='wrong@example.com' where name like 's2%'",
            "delete from ts_address_map.alias where name like 'w%@example.com'",
            "update ts_address_map.alias set members=concat(members, ',', members)"
            " where name like 'shared-%'",
        ):
            self.servers.sql(0, statement)
        time.sleep(3)
        self.writers[0].failed.append(("s0@example.com", "m0@example.com", 0, "refused"))
        counts = dict(zip(FAULTS, self.take_counts()[-len(FAULTS):]))
        if not all(counts.values()):
            sys.exit("spoiled tables are not noticed: %s" % counts)

    def stop(self):
        threads = [*self.writers, self.changes]
        for thread in threads:
            thread.stopping.set()
        for thread in threads:
            thread.join()
        for part in (self.by_service, self.by_library, *self.services, self.servers):
            part.stop()


def show(row):
    """A line of the table."""
    print(" ".join("%*s" % (len(title), cell) for title, cell in zip(WIDTHS, row)), flush=True)


def summary(runs):
    """A line for all runs of a scenario: the sums of what is counted, and the largest times."""
    name, *columns = zip(*runs)
    cells = (
        sum(cells) if isinstance(cells[0], int) else max(cells, key=float) for cells in columns
    )
    return ["%d %s" % (len(name), name[0]), *cells]


def try_out(kind, names, seconds, spoil):
    """Runs the scenarios on servers of the type `kind`. How often each fault was seen."""
    with tempfile.TemporaryDirectory(prefix="tsl-cluster-", dir="/tmp") as directory:
        os.chmod(directory, 0o711)  # The nodes may run as another user.
        trial = Trial(kind, directory)
        try:
            show(COLUMNS)
            time.sleep(2)
            trial.take_counts()
            time.sleep(3)
            show(["idle", *trial.take_counts()])
            end = time.monotonic() + seconds
            runs = {name: [] for name in names}
            while True:
                for name in random.sample(names, len(names)):
                    runs[name].append(trial.run(name))
                    show(runs[name][-1])
                if time.monotonic() >= end:
                    break
            if seconds:
                for name in names:
                    show(summary(runs[name]))
            trial.tell()
            faults = trial.faults.copy()
            if spoil:
                trial.spoil()
        finally:
            trial.stop()
    return faults


def main():
    parser = argparse.ArgumentParser()
    every = [name for scenarios in SCENARIOS.values() for name in scenarios]
    parser.add_argument("--scenario", action="append", choices=every)
    parser.add_argument("--seconds", type=float, default=0)
    parser.add_argument("--spoil", action="store_true")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("terminated"))
    wanted = {
        kind: [name for name in scenarios if name in (arguments.scenario or every)]
        for kind, scenarios in SCENARIOS.items()
    }
    kinds = [kind for kind, names in wanted.items() if names]
    faults = collections.Counter()
    for kind in kinds:
        seconds = arguments.seconds / len(kinds)
        faults.update(try_out(kind, wanted[kind], seconds, arguments.spoil))
    print(", ".join("%s: %d" % (name, faults[name]) for name in FAULTS))
    sys.exit(any(faults.values()))


if __name__ == "__main__":
    main()
