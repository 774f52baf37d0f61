"""What the caller of script/bundle can correct."""

import contextlib
import shutil


class UserError(Exception):
    """What is wrong and where, what to do about it, and the lines that a program printed about it."""

    def __init__(self, message, remedy="", printed=()):
        super().__init__(f"{message}; {remedy}" if remedy else message)
        self.printed = list(printed)


@contextlib.contextmanager
def file_errors(subject, remedy=""):
    """Turns an error of the file system into one line about this option or directory."""
    try:
        yield
    except shutil.Error as error:  # of a copied directory: a list of (source, target, reason)
        source, _, reason = error.args[0][0]
        raise UserError(f"{subject}: '{source}': {reason}", remedy) from error
    except OSError as error:
        file = error.filename2 or error.filename
        raise UserError(f"{subject}: '{file}': {error.strerror}", remedy) from error
