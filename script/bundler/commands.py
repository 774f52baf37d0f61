"""How a step is announced, and how other programs are called."""

import contextlib
import errno
import logging
import os
import re
import shlex
import subprocess
import time

from .errors import UserError

log = logging.getLogger(__name__)

# What java and the VM print around the reason for which the VM does not start.
VM_FAILED = re.compile(
    "Error: Could not create the Java Virtual Machine"
    "|Error: A fatal exception has occurred"
    "|Error occurred during initialization of VM"
)


@contextlib.contextmanager
def step(text):
    """Says how long what is inside took, if it succeeds."""
    start = time.monotonic()
    yield
    log.info("%s: %.1f s", text, time.monotonic() - start)


def log_command(command):
    log.debug("+ %s", " ".join(shlex.quote(str(argument)) for argument in command))


@contextlib.contextmanager
def execution_errors(command):
    """Turns the error of a program that cannot be executed into one line."""
    try:
        yield
    except FileNotFoundError as error:
        raise UserError(f"there is no {command[0]}", "install it, and call again") from error
    except OSError as error:
        raise UserError(f"'{command[0]}' cannot be executed: {error.strerror}") from error


def run(command, **settings):
    """The finished command, with what it printed on both channels in stdout."""
    log_command(command)
    with execution_errors(command):
        ended = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="surrogateescape",
            **settings,
        )
    if ended.stdout:
        log.debug("%s", ended.stdout.rstrip())
    no_space = os.strerror(errno.ENOSPC)
    if ended.returncode and no_space in ended.stdout:
        raise OSError(errno.ENOSPC, no_space)
    return ended


def require(problem, command, **settings):
    """What the command prints. If it fails, the problem is raised with the line that tells why."""
    try:
        ended = run(command, **settings)
    except subprocess.TimeoutExpired as error:
        raise UserError(f"{problem}: it has not ended after {error.timeout:.0f} s") from error
    if ended.returncode:
        raise UserError(f"{problem}: {reason(ended)}")
    return ended.stdout


def reason(ended):
    """The first line that a failed command printed about an error, or else its first line."""
    lines = [
        line.strip()
        for line in ended.stdout.splitlines()
        if line.strip() and not VM_FAILED.match(line)
    ]
    errors = [line for line in lines if re.search("error|exception|unrecognized", line, re.I)]
    return [*errors, *lines, f"status {ended.returncode}"][0]
