"""The Java runtime of the bundle, linked by the JDK's jlink."""

import shutil

from .commands import require, step


def link_runtime(jre, names, jdk, java_options, starts_in=None):
    """Makes a runtime with these modules and the stored VM options, whose only program is java. If it can
    be executed here, it is started once, in the directory STARTS_IN."""
    options = ["--add-modules", ",".join(sorted(names)), "--output", jre]
    if jdk.jmods:
        options += ["--module-path", jdk.jmods]
    if java_options:
        # After a space: jlink itself would take a first one that begins with "--".
        options.append("--add-options= " + " ".join(java_options))
    if jdk.jmods:
        problem = f"--jmods: jlink cannot link '{jdk.jmods}'; name a complete JDK's"
    else:
        problem = "--jdk: jlink fails"
    with step("Linking the runtime"):
        shutil.rmtree(jre, ignore_errors=True)
        require(
            problem,
            jdk.tool("jlink", "--strip-debug", "--no-header-files", "--no-man-pages", *options),
        )
        for program in list((jre / "bin").iterdir()):
            if program.name != "java":
                program.unlink()
    if starts_in:
        option = "--java-options" if java_options else "--jdk"
        require(
            f"{option}: the linked runtime does not start",
            [jre / "bin/java", "-version"],
            cwd=starts_in,
        )
