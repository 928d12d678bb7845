"""porting.py MODULE: writes docs/porting.md to standard output, from what the module takes of the framework's libraries
and from what the framework's headers say of it."""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES = [ROOT / "src/modules/webserver", ROOT / "src/certificates"]
LIBRARIES = ["thrift_api", "api", "crypto", "http_client", "processhandler"]
INTRODUCTION = """\
# Building the web server for a device

<!-- Made by packaging/porting.py; ./dev check compares. -->

The module is built against the framework of a device in place of the stand-in:

```sh
cmake -B build/device -G Ninja -DCMAKE_BUILD_TYPE=Release -DZARK_FRAMEWORK=system -DCMAKE_PREFIX_PATH=/path/of/the/framework
ninja -C build/device zark_webserver
```

That takes the headers from `include/zark/` or `include/`, and `libzark_thrift_api.so`, `libzark_api.so`, `libzark_crypto.so`,
`libzark_http_client.so` and `libzark_processhandler.so` from the libraries. Nothing else of the repository is built. The
module is `lib/libzark_webserver.so`; `worker_create` is all that it exports. Besides the framework it needs Qt 5.15,
libsoup 2.4, GLib, log4cplus and OpenSSL's libcrypto, and an event loop that runs GLib.

Below is what the module takes of the framework: each header that it includes, and each operation that it calls, with
what the stand-in's header says of it. A framework that does something else at one of them has to be told apart there, and
nowhere else. The known paths (`ZarkPaths.h`) are those of [operations.md](operations.md#settings).
"""


END = "the end of a class"
ACCESS = ("public:", "protected:", "private:", "public Q_SLOTS:", "Q_SIGNALS:")
CLASS = re.compile(r"(?:class|struct|template <.*> class) (\w+)[^;()]*\{$")


def text_of(paths):
    files = (file for path in paths for file in sorted(path.rglob("*.*")) if file.suffix in (".h", ".cpp"))
    return "\n".join(file.read_text() for file in files)


def used_symbols(module):
    """Names that the module leaves undefined, without parameters and without the tables of classes."""
    listing = subprocess.run(["nm", "-DC", "--undefined-only", module], check=True, capture_output=True, text=True).stdout
    lines = (line.split(" U ", 1)[1] for line in listing.splitlines() if "@ZARK_" in line)
    return {re.sub(r"\(.*|@.*", "", re.sub(r"\[abi:\w+\]", "", line)) for line in lines}


def statements(header):
    """(comment, declaration) of each, in order. "class X {" is one of its own, and so is its end; bodies of
    functions are left out, values of enumerations are not."""
    comment, declaration, in_body = [], "", False
    for line in header.read_text().splitlines():
        bare = line.strip()
        if line.startswith("}"):
            yield [], END
            comment, declaration, in_body = [], "", False
        elif in_body:
            in_body = bare != "}"
        elif bare.startswith("///"):
            comment.append(bare[3:].removeprefix(" "))
        elif bare in ACCESS:
            yield [], bare
        elif not bare or bare.startswith(("#", "//", "Q_OBJECT", "Q_DECLARE", "Q_DISABLE")):
            comment = []
        else:
            code, _, trailing = bare.partition("///<")
            declaration = f"{declaration} {code.strip()}".strip()
            enumeration = declaration.startswith("enum ")
            of = f"{code.split()[0].strip(',')}: " if enumeration and code[:1].isalpha() else ""
            comment += [of + trailing.strip()] if trailing else []
            if declaration.endswith(";") or (declaration.endswith(("{", "}")) and not enumeration):
                in_body = declaration.endswith("{") and not CLASS.match(declaration)
                yield comment, re.sub(r"([({]) ", r"\1", declaration) if not enumeration else declaration
                comment, declaration = [], ""


def is_needed(declaration, name, used, sources):
    """Whether the module calls it, or may: of what is inline the libraries know nothing."""
    called = re.search(r"([~\w]+)\(", declaration)
    if declaration.startswith("enum "):
        return bool(re.search(rf"\b{name or declaration.split()[1]}::", sources))
    if not called or "= delete" in declaration or declaration.startswith(("using", "typedef", "friend", "Q_")):
        return False
    if (f"{name}::{called[1]}" if name else called[1]) in used:
        return True
    return declaration.endswith(("}", "{", "= 0;")) and called[1] != name and f"{called[1]}(" in sources


def signature(declaration):
    if declaration.startswith("enum "):
        return declaration.rstrip(";").replace(", }", " }")
    return re.sub(r" (\{.*|: m_.*|= default;|= 0;)$|;$", "", declaration.replace("= {}", "={}")).replace("={}", "= {}")


def operations(header, used, sources):
    """(class, its comment, [(signature, comment)]) in the order of the header; free functions have no class."""
    name, about, found, visible = "", [], [], True
    for comment, declaration in statements(header):
        opened = CLASS.match(declaration)
        if opened and name and not visible:
            continue
        if opened or declaration == END:
            yield name, about, found
            name, about, found, visible = opened[1] if opened else "", comment, [], True
        elif declaration in ACCESS:
            visible = declaration not in ("private:", "protected:")
        elif visible and is_needed(declaration, name, used, sources):
            found.append((signature(declaration), comment))
    yield name, about, found


def prose(lines):
    """A comment as Markdown: what is a table there stays as it stands."""
    text = "\n".join(lines)
    return re.sub(r"((?:^\|.*\n?)+)", r"\n```text\n\1\n```\n", text, flags=re.M).replace("\n\n```\n", "\n```\n")


def included_headers(sources, used):
    """Names of the framework's headers that the sources include, and of those that come with them and whose classes
    the module calls, names or knows as the base of others."""
    paths = {path.name: path for path in (ROOT / "src/framework").rglob("*.h")}
    seen, ahead = set(), [sources]
    while ahead:
        new = (set(re.findall(r'#include "(\w+\.h)"', ahead.pop())) & paths.keys()) - seen
        seen |= new
        ahead += [paths[name].read_text() for name in new]
    bases = " ".join(re.findall(r"public (\w+)", "\n".join(paths[name].read_text() for name in seen)))
    known = sources + bases + " ".join(used)
    return {name for name in seen if f'"{name}"' in sources
            or any(re.search(rf"\b{kind}\b", known) for kind in re.findall(r"(?:class|struct) (\w+)[^;]*\{", paths[name].read_text()))}


def main(module):
    used, sources = used_symbols(module), text_of(SOURCES)
    included = included_headers(sources, used)
    print(INTRODUCTION)
    for library in LIBRARIES:
        print(f"## libzark_{library}.so\n")
        for header in sorted((ROOT / "src/framework" / library).glob("*.h")):
            if header.name not in included:
                continue
            offered = list(operations(header, used, sources))
            if not any(found for _, _, found in offered):
                continue
            print(f"### {header.name}\n")
            for name, about, found in offered:
                if name and (about or found):
                    print(f"**{name}.** {prose(about)}".strip() + "\n")
                for operation, comment in found:
                    print(f"- `{operation}`" + (f": {' '.join(comment)}" if comment else ""))
                if found:
                    print()


main(sys.argv[1])
