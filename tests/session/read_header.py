"""Makes bindings from velmora.h as a plain reader of C declarations would, and uses them: no preprocessor, no compiler.

usage: read_header.py HEADER LIBRARY
"""

import ctypes
import re
import sys

BASE = {
    "void": None, "char": ctypes.c_char, "double": ctypes.c_double, "size_t": ctypes.c_size_t,
    "uint8_t": ctypes.c_uint8, "uint16_t": ctypes.c_uint16, "uint32_t": ctypes.c_uint32, "uint64_t": ctypes.c_uint64,
    "int16_t": ctypes.c_int16, "int32_t": ctypes.c_int32, "int64_t": ctypes.c_int64,
}
SIZES = {"velmora_error": 512, "velmora_port": 768, "velmora_found": 80, "velmora_wanted": 32, "velmora_headset": 88,
         "velmora_record": 320, "velmora_statistics": 120, "velmora_headset_statistics": 824}


def read(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"^\s*#.*$", "", text, flags=re.M).replace('extern "C" {', "")
    types, constants, functions = dict(BASE), {}, {}

    def type_of(words):
        stars = words.count("*")
        names = [w for w in words.replace("*", " ").split() if w not in ("const", "struct")]
        kind = types[names[0]]
        if stars and kind in (None, ctypes.c_char):
            kind, stars = (ctypes.c_void_p if kind is None else ctypes.c_char_p), stars - 1
        for _ in range(stars):
            kind = ctypes.POINTER(kind)
        return kind

    for body in re.findall(r"enum\s*\{(.*?)\}\s*;", text, flags=re.S):
        for name, value in re.findall(r"(\w+)\s*=\s*(-?\d+)", body):
            constants[name] = int(value)
    declaration = re.compile(
        r"typedef struct (?P<struct>\w+)\s*\{(?P<body>.*?)\}\s*\w+\s*;"
        r"|typedef struct (?P<opaque>\w+) \w+\s*;"
        r"|typedef void \(\*(?P<callback>\w+)\)"
        r"|typedef (?P<old>\w+) (?P<alias>\w+)\s*;"
        r"|VELMORA_PUBLIC (?P<result>[\w\s\*]+?)\s*\b(?P<function>velmora_\w+)\((?P<arguments>.*?)\)\s*;", re.S)
    for found in declaration.finditer(text):
        if found["struct"]:
            fields = []
            for member in found["body"].split(";"):
                if member.strip():
                    kind, name, count = re.match(r"\s*(.*?)(\w+)\s*(?:\[(\w+)\])?\s*$", member, re.S).groups()
                    base = type_of(kind)
                    if count:
                        base = base * (int(count) if count.isdigit() else constants[count])
                    fields.append((name, base))
            types[found["struct"]] = type(found["struct"], (ctypes.Structure,), {"_fields_": fields})
        elif found["opaque"]:
            types[found["opaque"]] = type(found["opaque"], (ctypes.Structure,), {})
        elif found["callback"]:
            types[found["callback"]] = ctypes.c_void_p
        elif found["alias"]:
            types[found["alias"]] = types[found["old"]]
        else:
            arguments = [a.strip() for a in found["arguments"].split(",") if a.strip() != "void"]
            functions[found["function"]] = (type_of(found["result"]),
                                            [type_of(re.sub(r"\w+$", "", a)) for a in arguments])
    return types, constants, functions


def main(header, library):
    with open(header, encoding="utf-8") as file:
        types, constants, functions = read(file.read())
    for name, size in SIZES.items():
        assert ctypes.sizeof(types[name]) == size, (name, ctypes.sizeof(types[name]))
    loaded = ctypes.CDLL(library)
    for name, (result, arguments) in functions.items():
        function = getattr(loaded, name)
        function.restype, function.argtypes = result, arguments
    assert len(functions) == 25, sorted(functions)
    assert loaded.velmora_version().startswith(b"0."), loaded.velmora_version()
    assert loaded.velmora_status_text(constants["VELMORA_TIMEOUT"]) == b"time-out"
    print(len(types), "types,", len(constants), "constants,", len(functions), "functions")


main(*sys.argv[1:])
