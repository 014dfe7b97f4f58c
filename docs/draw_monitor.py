#!/usr/bin/env python3
"""Draws docs/monitor.svg: what a session of the monitor writes to a terminal, as it is.
Usage: docs/draw_monitor.py DIRECTORY_OF_THE_PROGRAMS"""
import fcntl
import html
import os
import pathlib
import pty
import re
import struct
import subprocess
import sys
import tempfile
import termios

COLUMNS, CHARACTER, LINE = 145, 7.22, 17  # the last two in pixels
COLOURS = {"1;31": "#ff5f56", "31": "#e06c75", "32": "#98c379", "33": "#e5c07b", "36": "#56b6c2"}
COMMAND = ["--security", "--fault", "dp:/res/pm/fm"]
EVENTS = [
    "--kind device --event-id 0x80E01801 --severity 2 --name overtemperature --device-id 3 --serial 41",
    "--kind device --event-id 0x80E01801 --severity 2 --name overtemperature --device-id 3 --serial 42 --assertion 0",
    "--kind device --event-id 0x80CB8009 --severity 1 --name lüfter-2 --node-id 1 --serial 43",
    "--kind fault --event-id 0x1001 --name stopped --uds-id 0x22 --did 0xF190=0a0b",
]


def publish(programs, resource, events):
    """Serves the resource and publishes the events as soon as somebody reads."""
    publisher = str(programs / "report-event-publish")
    records = [subprocess.check_output([publisher, "--print", *event.split()], text=True) for event in events]
    process = subprocess.Popen([publisher, "--resource", resource, "--wait", "--serve", "--quiet", "--from", "-"],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    process.stdin.write("".join(records))
    process.stdin.close()
    process.stdout.readline()  # it serves now
    return process


def session(programs):
    """What the monitor writes until Ctrl-C, the loss of the process manager included."""
    pm = publish(programs, "dp:/res/pm/fm", EVENTS)
    security = publish(programs, "dp:/res/iam/sec_event", ["--kind security --event-id 0x5001 --severity 0 --name login"])
    pid, terminal = pty.fork()
    if pid == 0:
        fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, COLUMNS, 0, 0))
        os.execv(programs / "report-event-monitor", ["report-event-monitor", *COMMAND])
    text, steps = "", {"stopped": pm.kill, "is gone": lambda: os.write(terminal, b"\x03")}
    try:
        while part := os.read(terminal, 4096):
            text += part.decode()
            if "login" in text:
                for sign in [sign for sign in steps if sign in text]:
                    steps.pop(sign)()
    except OSError:  # the end of a terminal
        pass
    os.waitpid(pid, 0)
    security.kill()
    return text


def spans(line):
    """The line in SVG, its colours as they were asked for."""
    drawn, colour = "", "#d4d4d4"
    for code, text in re.findall(r"(?:\033\[([0-9;]*)m)?([^\033]*)", line):
        if code:
            colour = COLOURS.get(code, "#d4d4d4")
        if text:
            drawn += f'<tspan fill="{colour}">{html.escape(text)}</tspan>'
    return drawn


def main():
    with tempfile.TemporaryDirectory() as runtime:
        os.environ.update(IAM_RUNTIME_DIR=runtime, TZ="UTC")
        text = session(pathlib.Path(sys.argv[1]))
    lines = ["$ report-event-monitor " + " ".join(COMMAND), *text.replace("^C", "").splitlines()]
    width, height = int(COLUMNS * CHARACTER) + 24, LINE * len(lines) + 24
    with open(pathlib.Path(__file__).parent / "monitor.svg", "w", encoding="utf-8") as drawing:
        drawing.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}">\n'
                      '<rect width="100%" height="100%" rx="6" fill="#1e1e1e"/>\n'
                      '<g font-family="monospace" font-size="12" xml:space="preserve">\n')
        for number, line in enumerate(lines):
            drawing.write(f'<text x="12" y="{24 + LINE * number}">{spans(line)}</text>\n')
        drawing.write("</g>\n</svg>\n")


if __name__ == "__main__":
    main()
