# A private cluster, and a primary with a replica, as the scenarios see them: what they say, and what
# is done to them.
import json
import os
import re
import secrets
import shutil
import signal
import socket
import subprocess
import time

# Seconds within which everything that was broken must be well again.
PATIENCE = 90


def wait_until(condition, what, seconds=PATIENCE):
    """Waits until `condition` is true; what it throws counts as false."""
    end = time.monotonic() + seconds
    while True:
        try:
            if condition():
                return
            error = None
        except (subprocess.SubprocessError, OSError) as failed:
            error = failed
        if time.monotonic() > end:
            raise SystemExit("not within %d s: %s (%s)" % (seconds, what, error))
        time.sleep(0.05)


def free_ports(count):
    """Ports of 127.0.0.1 that nobody uses."""
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


def has_ended(pid):
    """True when the process is gone, or waits to be collected by its parent."""
    try:
        with open("/proc/%d/stat" % pid) as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] == "Z"
    except FileNotFoundError:
        return True


def write_option_file(path, ports, user):
    """An option file with the hosts in this order. `user` has the lines for user and password."""
    with open(path, "w") as file:
        os.chmod(path, 0o600)
        hosts = ",".join("127.0.0.1:%d" % port for port in ports)
        # The time for connecting is shared by the hosts.
        file.write("[client]\nhost=%s\n%s\nconnect-timeout=3\n" % (hosts, user))
    return path


class Servers:
    """Servers on this machine, by their ports."""

    SERVICE_OPTIONS = ()
    primary = 0  # Where to write.

    def __init__(self, tool, directory, ports, user):
        self.tool = tool
        self.directory = directory
        self.ports = ports
        self.user = user

    def option_file(self, first):
        """An option file whose list begins with the server `first`."""
        ports = self.ports[first:] + self.ports[:first]
        return write_option_file("%s/first-%d.cnf" % (self.directory, first + 1), ports, self.user)

    def sql(self, server, statement, seconds=10):
        """The rows that the server answers, each a list of texts."""
        command = ["mariadb", *self.login(server), "--connect-timeout=2"]
        command += ["--default-character-set=utf8mb4", "-N", "-B", "--raw", "-e", statement]
        done = subprocess.run(command, capture_output=True, text=True, timeout=seconds, check=True)
        return [line.split("\t") for line in done.stdout.splitlines()]

    def used_by(self, pid):
        """The server that the process is connected to; the first one when it is connected to none."""
        lines = subprocess.run(["ss", "-Htnp"], capture_output=True, text=True, check=True).stdout
        for line in lines.splitlines():
            peer = re.search(r"127\.0\.0\.1:(\d+) +users:.*pid=%d," % pid, line)
            if peer and int(peer[1]) in self.ports:
                return self.ports.index(int(peer[1]))
        return 0

    def rows(self, server):
        """The aliases of the server, with their members."""
        statement = "select name, members from ts_address_map.alias order by name"
        return [(name, members.split(",")) for name, members in self.sql(server, statement, 30)]

    def remove(self, names):
        """Removes the aliases."""
        texts = ",".join("'%s'" % name for name in names)
        self.sql(self.primary, "delete from ts_address_map.alias where name in (%s)" % texts, 60)


class Cluster(Servers):
    """Three nodes, which `local start` has started."""

    def __init__(self, tool, directory):
        self.tool = tool
        self.place = directory + "/cluster"
        self.local("start", "--nodes", "3")
        with open(self.place + "/client.cnf") as file:
            user = "\n".join(re.findall(r"^(?:user|password)=.*$", file.read(), re.M))
        ports = [node["port"] for node in self.nodes()]
        super().__init__(tool, directory, ports, user)
        self.admin = write_option_file(directory + "/admin.cnf", ports[:1], user)

    def login(self, node):
        return ["--defaults-file=" + self.admin, "-h127.0.0.1", "-P%d" % self.ports[node]]

    def local(self, *words):
        command = [self.tool, "local", *words, "--local=" + self.place]
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout

    def nodes(self):
        return json.loads(self.local("status", "--json"))["nodes"]

    def pid(self, node):
        return self.nodes()[node]["pid"]

    def signal(self, node, number):
        os.kill(self.pid(node), number)

    def shut_down(self, node):
        pid = self.pid(node)
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: has_ended(pid), "the shutdown of node %d" % (node + 1))

    def empty(self, node):
        """Takes away all data of a node that does not run."""
        data = "%s/node-%d/data" % (self.place, node + 1)
        for name in os.listdir(data):
            path = os.path.join(data, name)
            shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)

    def provider(self, node, option):
        self.sql(node, "set global wsrep_provider_options = '%s'" % option)

    def is_whole(self):
        # A node that was left out for long may end by itself when it notices, or stay alone.
        if any(not node["pid"] for node in self.nodes()):
            self.local("start")
        whole = [str(len(self.ports)), "Synced", "ON"]
        for node in range(len(self.ports)):
            state = dict(self.sql(node, "show status like 'wsrep_%'"))
            if state["wsrep_connected"] == "OFF":
                print("node %d has left for good, and is restarted" % (node + 1))
                self.shut_down(node)
            names = ("wsrep_cluster_size", "wsrep_local_state_comment", "wsrep_ready")
            if [state[name] for name in names] != whole:
                raise OSError("node %d: %s" % (node + 1, [state[name] for name in names]))
        return True

    def catch_up(self):
        """Waits until each node has applied what the others have confirmed."""
        for node in range(len(self.ports)):
            self.sql(node, "set wsrep_sync_wait=7; select 1 from mysql.user limit 1", 60)

    def heal(self):
        """Starts what does not run, and waits until all nodes are members again."""
        wait_until(self.is_whole, "all nodes are members")

    def stop(self):
        self.local("stop")


class Pair(Servers):
    """A primary and a replica, made of two private servers that get a port."""

    SERVICE_OPTIONS = ("--max-lag", "2s")

    def __init__(self, tool, directory):
        self.tool = tool
        self.homes = [directory + "/first", directory + "/second"]
        self.processes = [None, None]
        self.primary = 0
        ports = free_ports(2)
        password = secrets.token_hex(16)
        super().__init__(tool, directory, ports, "user=tsl\npassword=" + password)
        # How a private server is started, but for its port and its log of changes.
        self.commands = []
        for home, port in zip(self.homes, ports):
            pid = self.local(home, "start")["pid"]
            with open("/proc/%d/cmdline" % pid) as file:
                command = [word for word in file.read().split("\0") if word]
            self.local(home, "stop")
            command += ["--skip-networking=0", "--bind-address=127.0.0.1", "--port=%d" % port]
            command += ["--server-id=%d" % port, "--log-bin=binlog", "--log-slave-updates"]
            # Until it is known to be the primary.
            command += ["--read-only"]
            self.commands.append(command)
        for server in range(2):
            self.begin(server)
            for statement in (
                "set sql_log_bin = 0",
                "create user tsl@'127.0.0.1' identified by '%s'" % password,
                "grant all on ts_address_map.* to tsl@'127.0.0.1'",
                "grant select on mysql.* to tsl@'127.0.0.1'",
                "grant replica monitor, replication slave on *.* to tsl@'127.0.0.1'",
            ):
                self.sql(server, "set sql_log_bin = 0; " + statement)
        self.password = password
        self.follow()

    def local(self, home, word):
        command = [self.tool, "local", word, "--json", "--local=" + home]
        done = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True)
        return json.loads(done.stdout)

    def login(self, server):
        return ["--defaults-file=%s/client.cnf" % self.homes[server]]

    def begin(self, server):
        self.processes[server] = subprocess.Popen(self.commands[server], stderr=subprocess.DEVNULL)
        wait_until(lambda: self.sql(server, "select 1"), "the server answers")

    @property
    def replica(self):
        return 1 - self.primary

    def follow(self, delay=0):
        """Makes the other server the replica, which applies changes `delay` seconds late."""
        self.sql(self.primary, "set global read_only = 0")
        self.sql(
            self.replica,
            "set global read_only = 1; stop slave; change master to master_host='127.0.0.1',"
            " master_port=%d, master_user='tsl', master_password='%s', master_connect_retry=1,"
            " master_delay=%d, master_use_gtid=slave_pos; start slave"
            % (self.ports[self.primary], self.password, delay),
        )

    def promote(self):
        """The replica becomes the primary, and the primary its replica, without losing anything."""
        self.sql(self.primary, "set global read_only = 1")
        self.catch_up()
        self.sql(self.replica, "stop slave; reset slave all")
        self.sql(self.primary, "set global gtid_slave_pos = @@gtid_binlog_pos")
        self.primary = self.replica
        self.follow()

    def catch_up(self):
        """Waits until the replica has what the primary has now."""
        position = self.sql(self.primary, "select @@gtid_binlog_pos")[0][0]
        waited = self.sql(self.replica, "select master_gtid_wait('%s', 60)" % position, 70)
        if waited != [["0"]]:
            raise SystemExit("the replica does not follow")

    def shut_down(self, server):
        self.processes[server].terminate()
        self.processes[server].wait()

    def heal(self):
        for server, process in enumerate(self.processes):
            if process.poll() is not None:
                self.begin(server)
                self.follow()
        self.catch_up()

    def stop(self):
        for process in self.processes:
            process.terminate()
            process.wait()
