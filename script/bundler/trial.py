"""A copy of the bundle, in which the service is run: it is thrown away with what the service writes."""

import logging
import os
import re
import shutil

from .commands import run
from .errors import UserError, copy_tree
from .layout import SERVICE
from .service import ServiceRun, last_lines

log = logging.getLogger(__name__)

VM_OPTIONS = "JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "CLASSPATH"
# An option that every VM rejects. One that it does not know is not rejected if the vendor has stored
# -XX:+IgnoreUnrecognizedVMOptions in the runtime: the service would run, without a limit.
REJECTED = "-Xmx1wrong"
# How the launcher's options name the place that the bundle is meant for.
INSTALLED = re.compile(f"=.*/Applications/Orvane.app/{SERVICE}(?=/)")


class Trial:
    """The copy, with one runtime or another, and how the service is run in it."""

    def __init__(self, contents, work, plan):
        self.work, self.plan = work, plan
        self.contents = work / "training/Contents"
        self.directory = self.contents / "MacOS"
        self.temporary = work / "tmp"
        self.launcher = ["./OrvaneService", *plan.arguments]
        self.java = self.contents / "Resources/jre/bin/java"
        self.options = [f"-Djava.io.tmpdir={self.temporary}"]  # after the launcher's
        copy_tree(contents, self.contents)
        self.temporary.mkdir()
        self.environment = {
            name: value for name, value in os.environ.items() if name not in VM_OPTIONS
        }
        self.environment.update(TMPDIR=str(self.temporary), ORVANE_TRAINING=str(work))

    def use_runtime(self, home):
        link = self.contents / "Resources/jre"
        if link.is_symlink():
            link.unlink()
        link.symlink_to(home)

    def run_java(self, *arguments):
        """Runs the java of the copy's runtime in the launcher's directory."""
        return run([self.java, *arguments], cwd=self.directory, env=self.environment)

    def relocate_options(self, java_options):
        """VM options name the place that the bundle is meant for: those of the launcher and the stored ones
        are repeated with the place of the copy in each run."""
        # The launcher prints its options before the VM rejects this one.
        environment = {**self.environment, "JAVA_TOOL_OPTIONS": REJECTED}
        printed = run(self.launcher, cwd=self.directory, env=environment).stdout
        if "JVM arguments in use" not in printed:
            raise UserError(
                "--training-argument: the launcher rejects these, see above",
                "give others",
                last_lines(printed),
            )
        for option in [*" ".join(java_options).split(), *printed.splitlines()]:
            if INSTALLED.search(option):
                self.options.append(INSTALLED.sub(f"={self.contents}", option))

    def run_service(self, name, remedy, options=(), last_options=()):
        """Runs the service with more VM options, before and after the launcher's; a ServiceRun that ended
        well. NAME is what messages call this run."""
        files = {*self.contents.rglob("*"), self.temporary}
        service = ServiceRun(self, options, last_options)
        try:
            service.execute()
        finally:
            self.remove_what_was_written(files)
        service.check(name, remedy)
        return service

    def remove_what_was_written(self, files):
        """Removes all but these files, and names it."""
        found = {*self.contents.rglob("*"), *self.temporary.iterdir()}
        for path in sorted(found - files):
            if not os.path.lexists(path):  # it was in a directory that has been removed
                continue
            name = path.relative_to(self.work)
            log.warning("Written by the service or its client, removed: %s", name)
            if path.is_dir() and not path.is_symlink():
                shutil.rmtree(path)
            else:
                path.unlink()
