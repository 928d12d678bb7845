"""seeds.py FOLDER: writes FOLDER/TARGET/..., what each fuzz target begins with, from the texts in the tests' own cases.

What no test has as one text, such as a whole request, is in fuzz/corpus.
"""

import hashlib
import pathlib
import re
import shutil
import sys

TESTS = pathlib.Path(__file__).resolve().parent.parent / "tests"
TEXT = re.compile(r'R"\((?P<raw>.*?)\)"|"(?P<plain>(?:[^"\\\n]|\\.)*)"', re.DOTALL)
NODE = b'{"nodes": [\n{"path": "a:b",\n%s}\n]}'

# Target, tests, which of their texts, and what they become.
SEEDS = [
    ("JsonFuzzer", ["unit/ZarkJsonTest", "unit/ZarkValueTest"], rb"^[\[{\"\d-]|^(null|true|false)$", b"%s"),
    ("MultipartFuzzer", ["unit/MultipartParserTest"], rb"--|Content-", b"%s"),
    ("PageFuzzer", ["unit/PageParserTest", "http/PagesTest"], rb"<", b"%s"),
    ("TreeFuzzer", ["unit/TreeFileTest"], rb'^\s*\{"nodes"', b"%s"),
    ("TreeFuzzer", ["unit/TreeFileTest"], rb'^\s*"', NODE),
    ("CertificateFuzzer", ["unit/DeviceCertificateTest"], rb"subject=|:|^\d", b"%s"),
    ("RequestFuzzer", ["http/AuthorizationTest"], rb"HMAC_SHA256|\.", b"a%s"),
    ("RequestFuzzer", ["http/DataApiTest", "http/EventsTest"], rb"^\{", b"b%s"),
    ("RequestFuzzer", ["http/EventsTest"], rb"^\[|^\{", b"e%s"),
    ("RequestFuzzer", ["unit/ReverseProxyHandlerTest", "http/ProxyTest"], rb"[.:]", b"f%s"),
    ("RequestFuzzer", ["http/AddressesTest", "http/GuardTest"], rb"^[^ /]*[.:\d][^ /]*$", b"h%s"),
    ("RequestFuzzer", ["unit/CMPathTest"], rb"[:/]", b"p%s"),
    ("RequestFuzzer", ["http/DataApiTest"], rb"=", b"q%s"),
    ("RequestFuzzer", ["unit/ByteRangeTest", "http/StaticFilesTest"], rb"bytes|items", b"r%s"),
    ("RequestFuzzer", ["http/GuardTest"], rb"\r\n\r\n", b"vGET / HTTP/1.1\r\nHost: x\r\n%s"),
]


def texts(test):
    source = (TESTS / (test + ".cpp")).read_text(encoding="utf-8")
    source = re.sub(r"^#include.*$", "", source, flags=re.MULTILINE)
    for found in TEXT.finditer(source):
        if found["raw"] is not None:
            yield found["raw"].encode()
        else:
            yield found["plain"].encode().decode("unicode_escape", "ignore").encode("latin-1", "ignore")


def main(folder):
    for target in {seed[0] for seed in SEEDS}:
        shutil.rmtree(folder / target, ignore_errors=True)
    for target, tests, wanted, form in SEEDS:
        place = folder / target
        place.mkdir(parents=True, exist_ok=True)
        for text in (text for test in tests for text in texts(test) if re.search(wanted, text)):
            seed = form % text
            (place / hashlib.sha1(seed).hexdigest()[:12]).write_bytes(seed)


main(pathlib.Path(sys.argv[1]))
