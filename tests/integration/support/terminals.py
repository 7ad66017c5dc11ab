# SPDX-License-Identifier: Apache-2.0
"""What programs write to a terminal."""
import fcntl
import os
import pty
import struct
import subprocess
import termios
import threading

END = b"\0"  # which no program writes


def run(command, stream, columns=80, **settings):
    """Runs a command with one stream ("stdout" or "stderr") on a terminal. Returns what it wrote there, what it wrote to
    the stream that `settings` makes a pipe, if any, and its exit status."""
    controller, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, **{stream: terminal}, **settings) as process:
        # The terminal stays open until everything is read. Once it is closed, systems differ in what can still be read.
        ending = threading.Thread(target=lambda: (process.wait(), os.write(terminal, END)))
        ending.start()
        written = b""
        while not written.endswith(END):
            written += os.read(controller, 65536)
        ending.join()
        piped = process.stdout.read() if process.stdout else None
    os.close(terminal)
    os.close(controller)
    return written.removesuffix(END), piped, process.returncode
