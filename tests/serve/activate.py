"""Runs a service behind a socket that stays open while the service restarts, as systemd does with a socket
unit: activate.py SOCKET GROUP COMMAND... . SIGHUP restarts the service, SIGTERM ends it and this program."""
import grp, os, signal, socket, sys, time

path, group = sys.argv[1:3]
listener = socket.socket(socket.AF_UNIX)
listener.bind(path)
os.chown(path, -1, grp.getgrnam(group).gr_gid)
os.chmod(path, 0o660)
listener.listen(4096)


def start():
    child = os.fork()
    if child == 0:
        signal.pthread_sigmask(signal.SIG_SETMASK, [])
        os.dup2(listener.fileno(), 3)
        os.set_inheritable(3, True)  # It may have been 3 before.
        os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1")
        os.execv(sys.argv[3], sys.argv[3:])
    return child


signals = [signal.SIGHUP, signal.SIGTERM]
signal.pthread_sigmask(signal.SIG_BLOCK, signals)
child = start()
while True:
    number = signal.sigwait(signals)
    os.kill(child, signal.SIGTERM)
    os.waitpid(child, 0)
    if number == signal.SIGTERM:
        break
    # Nobody answers for a moment, and connections wait.
    time.sleep(0.2)
    child = start()
os.unlink(path)
