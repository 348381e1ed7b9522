import os
import signal
import subprocess
import sys
import time

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))

from peers import built, require  # noqa: E402


class NbdServer:
    """nbdkit serving one disk through the built plugin on a unix socket in
    the test's folder. It dies with the test process (--exit-with-parent),
    and the fixture stops it at the end of each test in any case."""

    def __init__(self, folder, disk, *params, readonly=False):
        self.folder = str(folder)
        self.socket = os.path.join(self.folder, "nbd.sock")
        self.pidfile = os.path.join(self.folder, "nbdkit.pid")
        self.log = os.path.join(self.folder, "nbdkit.log")
        for stale in (self.socket, self.pidfile):
            if os.path.exists(stale):
                os.unlink(stale)
        command = [require("nbdkit"), "--exit-with-parent", "-f", "-U", self.socket, "-P", self.pidfile]
        if readonly:
            command.append("-r")
        command += [built("ZARN_NBDKIT_PLUGIN"), "file=" + str(disk), *params]
        with open(self.log, "w") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        deadline = time.monotonic() + 30
        while not os.path.exists(self.pidfile):
            if self.process.poll() is not None:
                return  # refused to start: returncode and log tell why
            if time.monotonic() > deadline:
                self.stop()
                raise AssertionError("nbdkit did not get ready: " + self.log_text())
            time.sleep(0.02)

    @property
    def uri(self):
        return "nbd+unix:///?socket=" + self.socket

    @property
    def started(self):
        return self.process.poll() is None

    def log_text(self):
        with open(self.log) as f:
            return f.read()

    def stop(self):
        """Ends the server as an operator would (SIGTERM), so that every
        connection closes its disk; returns its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        return self.process.returncode

    def kill(self):
        self.process.kill()
        self.process.wait()


@pytest.fixture
def serve(tmp_path):
    servers = []

    def start(disk, *params, readonly=False):
        server = NbdServer(tmp_path, disk, *params, readonly=readonly)
        servers.append(server)
        return server

    yield start
    for server in servers:
        server.stop()
