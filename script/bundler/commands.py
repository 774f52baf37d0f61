"""How a step is announced, and how other programs are called."""

import contextlib
import logging
import re
import shlex
import subprocess
import time

from .errors import UserError

log = logging.getLogger(__name__)


@contextlib.contextmanager
def step(text):
    """Says how long what is inside took, if it succeeds."""
    start = time.monotonic()
    yield
    log.info("%s: %.1f s", text, time.monotonic() - start)


def log_command(command):
    log.debug("+ %s", " ".join(shlex.quote(str(argument)) for argument in command))


def run(command, **settings):
    """The finished command, with what it printed on both channels in stdout."""
    log_command(command)
    try:
        ended = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="surrogateescape",
            **settings,
        )
    except FileNotFoundError as error:
        raise UserError(f"there is no {error.filename}", "install it, and call again") from error
    if ended.stdout:
        log.debug("%s", ended.stdout.rstrip())
    return ended


def require(problem, command, **settings):
    """What the command prints. If it fails, the problem is raised with the line that tells why."""
    ended = run(command, **settings)
    if ended.returncode:
        raise UserError(f"{problem}: {reason(ended)}")
    return ended.stdout


def reason(ended):
    """The first line that a failed command printed about an error, or else its first line."""
    lines = [line.strip() for line in ended.stdout.splitlines() if line.strip()]
    errors = [line for line in lines if re.search("error|exception|unrecognized", line, re.I)]
    return [*errors, *lines, f"status {ended.returncode}"][0]
