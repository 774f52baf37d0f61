"""What the launcher writes to the console and calls of the runtime. Texts of the console and options
are bytes, calls are lines of the stand-in's record (see runtime/runtime.h).

home is b"" for a system-wide run and the home directory for a per-user run, such as b"/Users/alice".
lines are those of the override file, None if there is no file."""

import pathlib

CLASS_PATH = b"-Djava.class.path=../Resources/lib/com.vaultory.desktop.jar:../Resources/lang"
STARTING = b"Starting service.\n"
COMPLETE = b"Service is complete.\n"

_DEFAULTS = pathlib.Path(__file__).with_name("default_options.txt")

# What a line of the override file may begin with.
PREFIXES = pathlib.Path(__file__).with_name("allowed_prefixes.txt").read_bytes().splitlines()


def options(home=b"", lines=None):
    """The VM options in order, less the class path, which goes ahead of them."""
    defaults = _DEFAULTS.read_bytes().replace(b"{home}", home).splitlines()
    return defaults + list(lines or []) + ([b"-Duser.install=1"] if home else [])


def launching(home=b"", lines=None):
    """Standard output up to where the override file has been opened, or has not."""
    return (
        b"Launching as "
        + (b"user" if home else b"system")
        + b"\n"
        + (b"" if lines is None else b"jvm_args file found, loading arguments\n")
    )


def listing(home=b"", lines=None, arguments=()):
    parts = [b"JVM arguments in use: ", *options(home, lines), b"Arguments in use: ", *arguments]
    return b"".join(part + b"\n" for part in [*parts, b""])


def before_vm(home=b"", lines=None, arguments=()):
    """Standard output at the time the VM is created."""
    return launching(home, lines) + listing(home, lines, arguments)


def stdout(home=b"", lines=None, arguments=()):
    """Standard output of a run whose Java main returned, having written nothing."""
    return before_vm(home, lines, arguments) + STARTING + COMPLETE


def rejected_argument(argument):
    return b"Illegal argument encountered: '" + argument + b"'.\n"


def rejected_line(line):
    return b"Invalid parameter found inside jvm_args file: '" + line + b"'\n"


def vm_error(message):
    return b"Error while interacting with the JVM: \n" + message + b"\n"


def creation(home=b"", lines=None):
    """The call that creates the VM, as the stand-in records it, without its result."""
    records = [CLASS_PATH, *options(home, lines)]
    texts = ", ".join(recorded(record.split(b"\0")[0]) for record in records)
    return (
        f"JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, "
        f"nOptions={len(records)}, [{texts}])"
    )


def calls(home=b"", lines=None, arguments=()):
    """Every call of a run whose Java main returned."""
    elements = []
    for index, argument in enumerate(arguments):
        string = f"string#{index + 2}"
        elements += [
            f"env#2: NewStringUTF({recorded(argument)}) = {string}",
            f"env#2: SetObjectArrayElement(array#1, {index}, {string})",
        ]
    array = ", ".join(recorded(argument) for argument in arguments)
    return [
        creation(home, lines) + " = env#1",
        'env#1: FindClass("com/vaultory/service/QRService") = class#1',
        'env#1: GetStaticMethodID(class#1, "main", "([Ljava/lang/String;)V") = method#1',
        "AttachCurrentThread(null) = env#2",
        'env#2: FindClass("java/lang/String") = class#2',
        'env#2: NewStringUTF("") = string#1',
        f"env#2: NewObjectArray({len(arguments)}, class#2, string#1) = array#1",
        *elements,
        f"env#2: CallStaticVoidMethod(class#1, method#1, array#1 [{array}])",
        "env#2: DeleteLocalRef(array#1)",
        "DetachCurrentThread() = 0",
        "DestroyJavaVM() = 0",
    ]


def recorded(text):
    """A string as the stand-in records it."""

    def escaped(byte):
        if byte in b'"\\':
            return "\\" + chr(byte)
        return chr(byte) if 0x20 <= byte <= 0x7E else f"\\x{byte:02x}"

    return '"' + "".join(map(escaped, text)) + '"'
