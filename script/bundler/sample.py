"""The sample service of this checkout, where no --main-jar is given."""

from .commands import require, step
from .inputs import LISTING_JAR, MAIN_CLASS
from .jars import write_jar
from .launcher import ROOT

DIRECTORY = ROOT / "service"


def compile_sample(jdk, version, work):
    """The sample's jar, made in the work directory."""
    classes = work / "sample/classes"
    with step("Compiling the sample service"):
        require(
            "--jdk: its javac cannot compile the sample",
            jdk.tool(
                "javac",
                *["--release", "8", "-encoding", "UTF-8", "-Xlint:all,-options", "-Werror"],
                *["-d", classes],
                *sorted(DIRECTORY.rglob("*.java")),
            ),
        )
    jar = work / "sample" / LISTING_JAR
    manifest = {
        "Implementation-Title": "Sample service",
        "Implementation-Version": version,
        "Main-Class": MAIN_CLASS,
    }
    files = sorted(classes.rglob("*.class"))
    write_jar(
        jar, manifest, {file.relative_to(classes).as_posix(): file.read_bytes() for file in files}
    )
    return jar
