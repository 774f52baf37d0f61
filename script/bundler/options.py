"""The command line of script/bundle."""

import argparse
import pathlib
import re

from .errors import UserError

USAGE = """script/bundle [--main-jar JAR [--input PATH]...] [OPTION]...
       script/bundle --train DIRECTORY/Orvane.app [--training-...]..."""
DESCRIPTION = """\
Makes DEST/Orvane.app: the launcher, the service's jars, a Java runtime with the modules they use, and in
it a CDS archive of the classes that the service loads. For that the real service is run twice here, with
its ports and data. Paths count from the current directory; an option with ... may be repeated."""
WITH_TRAIN = re.compile("--(train|training-.*|verbose|force)")  # what --train can be given with


def text_like(pattern, description):
    """A type of option values: a text that matches the pattern."""

    def convert(value):
        if not re.fullmatch(pattern, value):
            raise argparse.ArgumentTypeError(f"'{value}' is not {description}")
        return value

    return convert


VERSION = text_like(r"[0-9]+(\.[0-9]+){0,2}", "a version; give one such as 2.1.0")
IDENTIFIER = text_like(
    r"[A-Za-z0-9-]+(\.[A-Za-z0-9-]+)+", "a bundle identifier; give one such as com.example.backup"
)
# Bytes that are not UTF-8 arrive as surrogates; U+FFFE and U+FFFF cannot be in a property list.
LINE = text_like("[^\x00-\x1f\x7f\ud800-\udfff\ufffe\uffff]+", "one line of UTF-8; give one")
UTF8 = text_like("[^\ud800-\udfff]+", "UTF-8; give what is")
SECONDS = text_like("[1-9][0-9]{0,8}", "a time; give a whole number above 0")
PATH = pathlib.Path


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise UserError(message.replace("argument ", "", 1))


def make_parser():
    """The parser, and its options by their names."""
    parser = Parser(
        usage=USAGE,
        description=DESCRIPTION,
        formatter_class=lambda prog: argparse.RawDescriptionHelpFormatter(
            prog, max_help_position=31, width=112
        ),
        allow_abbrev=False,
        add_help=False,
    )
    add = parser.add_argument_group("options").add_argument
    repeated = {"action": "append", "default": []}
    declared = [
        add(
            "--main-jar",
            metavar="JAR",
            type=PATH,
            help="the service's jar, with com.vaultory.service.QRService; the sample's by default",
        ),
        add(
            "--input",
            metavar="PATH...",
            type=PATH,
            help="a jar that it needs, or a directory of them",
            **repeated,
        ),
        add(
            "--lang",
            metavar="DIR",
            type=PATH,
            help="the directory of its texts, last on the class path",
        ),
        add(
            "--conf",
            metavar="DIR",
            type=PATH,
            help="its default configuration, with service.log.xml; the sample's by default",
        ),
        add("--bin", metavar="DIR", type=PATH, help="programs that it calls"),
        add("--frameworks", metavar="DIR", type=PATH, help="its native libraries"),
        add(
            "--app-version",
            metavar="N",
            type=VERSION,
            help="the product's version, such as 2.1.0; the launcher's by default",
        ),
        add("--copyright", metavar="TEXT", type=LINE, default="© Vaultory", help="one line"),
        add(
            "--mac-package-identifier",
            metavar="ID",
            type=IDENTIFIER,
            default="com.vaultory.orvane",
            help="such as com.example.backup",
        ),
        add(
            "--executable",
            metavar="FILE",
            type=PATH,
            help="the launcher; by default it is built in build/release",
        ),
        add(
            "--jdk",
            metavar="DIR",
            type=PATH,
            help="the JDK, 11 or later; JAVA_HOME or the javac on the path by default",
        ),
        add(
            "--jmods",
            metavar="DIR",
            type=PATH,
            help="jmods of a JDK of that version for the executable's platform, if not this one",
        ),
        add(
            "--add-modules",
            metavar="NAME...",
            help="modules that are not found, separated by commas; ALL-DEFAULT for jpackage's",
            **repeated,
        ),
        add(
            "--include-locales",
            metavar="LIST",
            help="languages whose data the runtime has, such as de,pt-BR,*-CH; all by default",
        ),
        add(
            "--java-options",
            metavar="OPTION...",
            type=UTF8,
            help="a VM option stored in the runtime; JDK 17 or later",
            **repeated,
        ),
        add("--no-runtime", action="store_true", help="leave the runtime out"),
        add(
            "--no-archive",
            action="store_true",
            help="do not run the service: no archive, and no modules but jdeps's and yours",
        ),
        add(
            "--training-argument",
            metavar="TEXT...",
            help="an argument of the launcher in these runs",
            **repeated,
        ),
        add(
            "--training-command",
            metavar="COMMAND",
            help="a client for the shell, started when main is about to run; the run ends with it",
        ),
        add(
            "--training-seconds",
            metavar="N",
            type=SECONDS,
            default="30",
            help="how long each run may take before SIGTERM ends it; 30 by default",
        ),
        add(
            "--train",
            metavar="APP",
            type=PATH,
            help="only make the archive of a bundle made elsewhere, before it is signed",
        ),
        add(
            "--dest",
            metavar="DIR",
            type=PATH,
            default=pathlib.Path("dist"),
            help="where Orvane.app is made; dist by default",
        ),
        add(
            "--tarball",
            action="store_true",
            help="pack it there as well, as Orvane-VERSION-OS-ARCH.tar.gz",
        ),
        add("--force", action="store_true", help="replace a signed bundle"),
        add("--verbose", action="store_true", help="print the commands, and what they print"),
        add("--help", action="help", help="print this"),
    ]
    return parser, {action.option_strings[0]: action for action in declared}


def join_values(arguments, declared):
    """Each option and its value as one word, "NAME=VALUE": argparse would take a separate value that
    begins with "-", as VM options do, for another option."""
    joined, rest = [], iter(arguments)
    for word in rest:
        name, equals, value = word.partition("=")
        if name not in declared:
            raise UserError(f"{name}: no such option", "--help lists all")
        if declared[name].nargs == 0:
            if equals:
                raise UserError(f"{name}: takes no value")
            joined.append(name)
            continue
        if not equals:
            value = next(rest, "")
        if not value:
            raise UserError(f"{name}: give a value")
        joined.append(f"{name}={value}")
    return joined


def parse(arguments):
    """The values of the options, as argparse names them."""
    parser, declared = make_parser()
    if "--help" in arguments:
        arguments = ["--help"]
    options = parser.parse_args(join_values(arguments, declared))
    if options.train:
        for name, action in declared.items():
            given = getattr(options, action.dest, action.default) != action.default
            if given and not WITH_TRAIN.fullmatch(name):
                raise UserError(f"{name}: has no meaning with --train", "leave one out")
    if options.input and not options.main_jar:
        raise UserError("--input: the sample needs none", "give --main-jar as well")
    return options


def source_date_epoch(environment):
    """The latest time that a file of the bundle may have, or None."""
    text = environment.get("SOURCE_DATE_EPOCH", "")
    if not re.fullmatch("[0-9]*", text):
        raise UserError(f"SOURCE_DATE_EPOCH: '{text}' is not a time", "give seconds since 1970")
    return int(text) if text else None
