"""How the bundler writes a jar."""

import zipfile


def write_jar(path, manifest, entries=None):
    """A jar that always has the same bytes."""
    text = "".join(manifest_line(*pair) for pair in {"Manifest-Version": "1.0", **manifest}.items())
    path.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(path, "w") as jar:
        for name, data in {"META-INF/MANIFEST.MF": text + "\r\n", **(entries or {})}.items():
            jar.writestr(zipfile.ZipInfo(name), data, zipfile.ZIP_DEFLATED)


def manifest_line(key, value):
    """A line of a manifest has 72 bytes at most, and is continued on lines that begin with a space."""
    line = f"{key}: {value}"
    rest = [line[at : at + 71] for at in range(72, len(line), 71)]
    return "\r\n ".join([line[:72], *rest]) + "\r\n"
