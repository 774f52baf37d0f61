"""What was tried on the launcher: each variant is built out of the tree from a copy of the
source, with the product's own commands, less or more some text, and measured beside it."""

import json
import re
import shlex
import shutil

AS_IT_IS = "as it is"

# Name: replacements in the source (file, text, other), in the words of each compilation and in
# those of linking. An empty text appends. A text that is not found ends the run.
LAST_OPTIONS = """    return {std::make_move_iterator(std::begin(options)),
            std::make_move_iterator(std::end(options))};"""
IN_FRONT = """    std::vector<std::string> jvmArgs = getJVMArgsFromFile(isUser);
    // In front: behind the defaults, any number of lines would move to new memory.
    jvmArgs.insert(jvmArgs.begin(), std::make_move_iterator(defaults.begin()),
                   std::make_move_iterator(defaults.end()));"""
BEHIND = """    std::vector<std::string> jvmArgs = defaults;
    const std::vector<std::string> fileArgs = getJVMArgsFromFile(isUser);
    jvmArgs.insert(jvmArgs.end(), fileArgs.begin(), fileArgs.end());"""
VARIANTS = {
    AS_IT_IS: ([], [], []),
    "shared C++ library": ([], [], [("-static-libstdc++", "")]),
    "unwinder linked in too": ([], [], [("-static-libstdc++", "-static-libstdc++ -static-libgcc")]),
    "symbols of the C++ library not hidden": ([], [], [("-Wl,--exclude-libs,ALL", "")]),
    "undefined symbols of the runtime library looked for":
        ([], [], [("-Wl,--allow-shlib-undefined", "")]),
    "link-time optimisation": ([], [("", "-flto")], [("", "-flto")]),
    "list of defaults copied": ([("jvmargs/jvmargs.cpp", LAST_OPTIONS,
                                  "    return {std::begin(options), std::end(options)};")], [], []),
    "lines copied behind the defaults": ([("launcher/main.cpp", IN_FRONT, BEHIND)], [], []),
    "each line moved into the list": ([
        ("launcher/main.cpp", "fileArgs.push_back(line);", "fileArgs.push_back(std::move(line));"),
    ], [], []),
    "VM's copy of the options moved in": ([
        ("launcher/main.cpp", "const std::vector<std::string> jvmArgs =",
         "std::vector<std::string> jvmArgs ="),
        ("jvm/jvm.cpp", ": jvmOptions(options, classPath)",
         ": jvmOptions(std::move(const_cast<std::vector<std::string>&>(options)), classPath)"),
    ], [], []),
    "no section collection": ([], [], [("-Wl,--gc-sections", "")]),
    "a section for each function, collected":
        ([], [("", "-ffunction-sections -fdata-sections")], []),
    "both hash tables": ([], [], [("", "-Wl,--hash-style=both")]),
    "old hash table": ([], [], [("", "-Wl,--hash-style=sysv")]),
    "binding lazily": ([], [], [("-Wl,-z,now", "-Wl,-z,lazy")]),
    "relocations not packed": ([], [], [("-Wl,-z,pack-relative-relocs", "")]),
    "libc not first": ([], [], [("-l:libc.so.6", "")]),
    "-O2": ([], [("-O3", "-O2")], []),
    "-Os": ([], [("-O3", "-Os")], []),
    "code beside data, fewer pages": ([], [], [("", "-Wl,-z,noseparate-code")]),
    "no stack protector": ([], [("-fstack-protector-strong", "")], []),
}
TARGET = "OrvaneService"
KEPT, NOTHING = "the product has the better", "nothing a whole run would show"
# Why each is not what the product does.
VERDICTS = {
    AS_IT_IS: "",
    "shared C++ library": KEPT,
    "unwinder linked in too": "an error thrown in the VM's C++ library could not be caught",
    "symbols of the C++ library not hidden": "hidden for safety: the VM may bring its own",
    "undefined symbols of the runtime library looked for": KEPT,
    "list of defaults copied": KEPT,
    "lines copied behind the defaults": KEPT,
    "VM's copy of the options moved in": "the VM gets a copy, and the launcher's list stays whole",
    "no section collection": KEPT,
    "old hash table": KEPT,
    "binding lazily": "binding at the start lets the tables be made read-only",
    "relocations not packed": KEPT,
    "libc not first": KEPT,
    "-Os": "slower lines",
    "no stack protector": "a protection is worth it",
}


def edited(text, edits, where):
    for old, new in edits:
        if old not in text:
            raise SystemExit(f"{where}: no '{old}' to replace")
        text = text.replace(old, new) if old else f"{text.strip()} {new}"
    return text


def build(bench, name):
    """Builds a variant into a folder of its own; its stripped executable."""
    source_edits, compile_edits, link_edits = VARIANTS[name]
    folder = bench.WORK / "variants" / re.sub("[^a-zA-Z0-9+ -]", "", name)
    source = bench.SOURCE / "src"
    shutil.copytree(source, folder / "src")
    for file, old, new in source_edits:
        path = folder / "src" / file
        path.write_text(edited(path.read_text(), [(old, new)], path.name))

    archives = {}
    entries = json.loads((bench.BUILD / "compile_commands.json").read_text())
    for entry in entries:
        output = re.search(r" -o (\S+) ", entry["command"])[1]
        target = re.search(r"CMakeFiles/([^/]+)\.dir/", output)[1]
        if not entry["directory"].endswith("/src"):
            continue
        words = shlex.split(edited(entry["command"], compile_edits, name))
        words = [word.replace(str(source), str(folder / "src")) for word in words]
        (folder / output).parent.mkdir(parents=True, exist_ok=True)
        bench.run(*words, cwd=folder)
        archives.setdefault(target, []).append(output)
    for target, objects in archives.items():
        if target != TARGET:
            bench.run("gcc-ar", "qc", f"lib{target}.a", *objects, cwd=folder)

    link = (bench.BUILD / f"src/CMakeFiles/{TARGET}.dir/link.txt").read_text()
    words = shlex.split(edited(link, link_edits, name))
    bench.run(*words, "-Wl,-Map=map", cwd=folder)
    return folder / TARGET


def measure(bench):
    """{name: {size, instructions, and the medians of ratios to the product as it is: time and
    memory of a start alone, and the time with many lines by their length}}"""
    programs = {name: build(bench, name) for name in VARIANTS}
    product = bench.BUILD / "src" / TARGET
    if programs[AS_IT_IS].stat().st_size != product.stat().st_size:
        raise SystemExit("the variants are not built as the product is")
    idle = bench.WORK / "idle/MacOS"
    found = {name: {"size": program.stat().st_size,
                    "instructions": bench.instructions(program, idle), "lines": {},
                    "verdict": VERDICTS.get(name, NOTHING)}
             for name, program in programs.items()}
    runs = bench.interleaved({name: bench.Command([program], idle)
                              for name, program in programs.items()}, 3 * bench.LINE_ROUNDS)
    for name in programs:
        ratios = bench.ratios(runs[name], runs[AS_IT_IS])
        found[name] |= {"start": ratios["wall"][0], "memory": ratios["memory"][0]}
    count = 100_000
    for length, line in bench.LINES.items():
        file = bench.lines_file(line, count)
        runs = bench.interleaved({name: bench.Command([program], idle, file=file)
                                  for name, program in programs.items()}, bench.LINE_ROUNDS)
        for name in programs:
            found[name]["lines"][length] = bench.ratios(runs[name], runs[AS_IT_IS])["wall"][0]
    return found


def composition(folder):
    """{whose: {kind: bytes}} of what the linker kept, read off its map."""
    text = (folder / "map").read_text()
    text = text[text.index("Linker script and memory map"):]
    found = {}
    for section, size, file in re.findall(
            r"^ (\.\S+)\s+0x[0-9a-f]+\s+0x([0-9a-f]+) (\S.*)$", text, re.M):
        kind = next((kind for kind, prefixes in KINDS.items() if section.startswith(prefixes)), None)
        if kind and int(size, 16):
            sizes = found.setdefault(origin(file), dict.fromkeys(KINDS, 0))
            sizes[kind] += int(size, 16)
    return found


KINDS = {
    "code": (".text", ".init", ".plt"),
    "constants": (".rodata",),
    "unwinding": (".eh_frame", ".gcc_except_table"),
    "data": (".data", ".tdata", ".ctors"),
}


def origin(file):
    if "libstdc++" in file:
        return "C++ library"
    if file.startswith("CMakeFiles") or re.match(r"lib(jvm|jvmargs|executable_path)\.a\(", file):
        return "the launcher's own"
    return "start-up code and compiler support"
