"""What the caller of script/bundle can correct."""

import contextlib
import errno
import os
import re
import shutil


class UserError(Exception):
    """What is wrong and where, what to do about it, and the lines that a program printed about it."""

    def __init__(self, message, remedy="", printed=()):
        super().__init__(f"{message}; {remedy}" if remedy else message)
        self.printed = list(printed)


@contextlib.contextmanager
def file_errors(option, remedy=""):
    """Turns an error about a file that this option names into one line. A full disk is left to full_disk."""
    try:
        yield
    except OSError as error:
        if error.errno == errno.ENOSPC:
            raise
        raise UserError(f"{option}: '{error.filename}': {error.strerror}", remedy) from error


@contextlib.contextmanager
def full_disk(option, directory, megabytes, remedy):
    """Turns the error of a full disk, on which this directory is, into one line."""
    try:
        yield
    except OSError as error:
        if error.errno != errno.ENOSPC:
            raise
        raise UserError(
            f"{option}: no space is left in '{directory}'",
            f"free {megabytes} MB there, or {remedy}",
        ) from error


def nearest_existing(path):
    """The path, or the directory above it in which it would be made."""
    while not os.path.exists(path):
        path = path.parent
    return path


def copy_tree(source, target):
    """Copies a directory with its links as they are; its first error as the system reported it."""
    try:
        shutil.copytree(source, target, symlinks=True)
    except shutil.Error as error:
        file, copy, reason = error.args[0][0]
        number = re.match(r"\[Errno (\d+)\]", str(reason))
        if not number:
            raise
        code = int(number[1])
        raise OSError(code, os.strerror(code), str(file), None, str(copy)) from error
