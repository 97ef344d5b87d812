"""Fails on an include that points the wrong way.

usage: layers.py ROOT        check the project below ROOT
       layers.py --self-test  check that each rule can fail

Prints one line per finding, "file:line: rule", and exits with 1 when there is one.
"""

import os
import re
import sys
import tempfile

# Room -> the rooms whose headers it may include. A room's folder is its include prefix, but for libs/.
ROOMS = {
    "qnc": ["qnc"],
    "mpl": ["mpl", "qnc"],
    "platform": ["platform", "qnc"],
    "platform/host": ["platform/host", "platform"],
    "platform/transfer": ["platform/transfer", "platform", "qnc"],
    "playlist": ["playlist", "platform", "platform/host", "qnc"],
    "engine": ["engine", "playlist", "platform", "platform/host", "qnc"],
    "cli": ["cli", "engine", "playlist", "platform", "platform/host", "platform/transfer", "qnc"],
    "examples": ["examples", "engine", "playlist", "platform", "platform/host"],
}
FOLDERS = {"libs/qnc/src/qnc": "qnc", "libs/mpl/src/mpl": "mpl"}
FOLDERS.update({room: room for room in ROOMS if room not in ("qnc", "mpl")})

# The parsers meet the model here and nowhere else.
PARSER_USERS = re.compile(r"playlist/(QNImpl_\w+|QNPlaylistFactory)\.(h|cpp)$")

# Third-party header -> the files that may include it.
THIRD_PARTY = {
    r"libxml/": r"libs/qnc/",
    r"utf8(\.h$|/)": r"libs/qnc/",
    r"nlohmann/": r"platform/JSON\.cpp$",
    r"systemd/": r"platform/NetworkManagerMonitor\.cpp$",
    r"unicode/": r"platform/host/QNPlayerUtils\.cpp$",
    r"curl/": r"platform/transfer/",
    r"sqlite3\.h$": r"platform/transfer/",
    r"zlib\.h$": r"platform/transfer/",
    r"(xxhash|xxh_x86dispatch)\.h$": r"platform/ContentHash\.cpp$",
    r"CLI/": r"cli/",
    r"microhttpd\.h$": r"cli/",
}

# The C library and the kernel. What is neither here, nor above, nor C++'s own is not known to the project.
SYSTEM = re.compile(
    r"(sys|netinet|arpa|linux|net)/\w+\.h$"
    r"|(dirent|dlfcn|errno|fcntl|ifaddrs|limits|netdb|poll|pthread|pwd|sched|signal|spawn|stdint|stdio|stdlib|string|time"
    r"|unistd)\.h$")
STANDARD = re.compile(r"[a-z_0-9]+$")

INCLUDE = re.compile(r'\s*#\s*include\s*([<"])([^>"]+)[>"]')
SOURCE = re.compile(r"\.(h|hpp|cpp|cc|c)$")


def longest(prefixes, path):
    fitting = [prefix for prefix in prefixes if path.startswith(prefix + "/")]
    return max(fitting, key=len, default=None)


def room_of_file(path):
    return FOLDERS.get(longest(FOLDERS, path))


def room_of_include(name):
    return longest(ROOMS, name)


def check_own(path, room, name):
    target = room_of_include(name)
    if target is None:
        return f'"{name}" is not written by room'
    if target == "mpl" and room not in ("mpl", "qnc") and PARSER_USERS.match(path):
        return None
    if target not in ROOMS[room]:
        return f'{room} may not include {target} ("{name}")'
    return None


def check_foreign(path, name):
    for header, users in THIRD_PARTY.items():
        if re.match(header, name):
            return None if re.match(users, path) else f"<{name}> belongs to {users} alone"
    if SYSTEM.match(name) or STANDARD.match(name):
        return None
    if room_of_include(name):
        return f'a room\'s header is included with quotes: "{name}"'
    return f"<{name}> is a third-party header without a room"


def check_public(name, is_own, public):
    if is_own and name not in public:
        return f'a public header includes "{name}", which is not installed'
    if not is_own and not STANDARD.match(name):
        return f"a public header includes <{name}>"
    return None


def check_include(path, bracket, name, public):
    is_own = bracket == '"'
    found = check_own(path, room_of_file(path), name) if is_own else check_foreign(path, name)
    if found is None and path in public:
        found = check_public(name, is_own, public)
    return found


def public_headers(root):
    with open(os.path.join(root, "cmake/QNPublicHeaders.cmake"), encoding="utf-8") as file:
        return set(re.findall(r"^\s*(\S+\.h)\s*\)?$", file.read(), re.MULTILINE))


def sources(root):
    for folder in sorted({folder.split("/")[0] for folder in FOLDERS}):
        for directory, _, names in os.walk(os.path.join(root, folder)):
            for name in sorted(names):
                path = os.path.relpath(os.path.join(directory, name), root)
                if SOURCE.search(name) and room_of_file(path):
                    yield path


def check_tree(root):
    public = public_headers(root)
    findings = [f"cmake/QNPublicHeaders.cmake:0: {name} does not exist"
                for name in sorted(public) if not os.path.exists(os.path.join(root, name))]
    count = 0
    for path in sources(root):
        count += 1
        with open(os.path.join(root, path), encoding="utf-8") as file:
            for number, line in enumerate(file, 1):
                match = INCLUDE.match(line)
                found = match and check_include(path, match[1], match[2], public)
                if found:
                    findings.append(f"{path}:{number}: {found}")
    if count == 0:
        findings.append(f"{root}:0: no sources found")
    return findings


# path, include, the beginning of the rule that it breaks or None
CASES = [
    ("libs/qnc/src/qnc/a.cpp", "<libxml/tree.h>", None),
    ("libs/qnc/src/qnc/a.cpp", "<utf8.h>", None),
    ("libs/qnc/src/qnc/a.cpp", '"platform/URL.h"', "qnc may not include platform"),
    ("libs/mpl/src/mpl/dash/a.cpp", '"qnc/qncUri.h"', None),
    ("libs/mpl/src/mpl/dash/a.cpp", '"platform/Error.h"', "mpl may not include platform"),
    ("libs/mpl/src/mpl/dash/a.cpp", "<libxml/tree.h>", "<libxml/tree.h> belongs to"),
    ("platform/a.cpp", '"platform/transfer/B.h"', "platform may not include platform/transfer"),
    ("platform/a.cpp", '"platform/host/QNLog.h"', "platform may not include platform/host"),
    ("platform/a.cpp", '"engine/X.h"', "platform may not include engine"),
    ("platform/a.cpp", "<nlohmann/json.hpp>", "<nlohmann/json.hpp> belongs to"),
    ("platform/JSON.cpp", "<nlohmann/json.hpp>", None),
    ("platform/a.cpp", "<curl/curl.h>", "<curl/curl.h> belongs to"),
    ("platform/transfer/a.cpp", "<curl/curl.h>", None),
    ("platform/transfer/a.cpp", "<sqlite3.h>", None),
    ("platform/transfer/a.cpp", "<sys/epoll.h>", None),
    ("platform/host/a.cpp", '"qnc/qncUri.h"', "platform/host may not include qnc"),
    ("playlist/QNTrack.cpp", '"mpl/dash/X.h"', "playlist may not include mpl"),
    ("playlist/QNImpl_DASH.h", '"mpl/dash/X.h"', None),
    ("playlist/QNTrack.cpp", '"engine/X.h"', "playlist may not include engine"),
    ("engine/a.cpp", '"mpl/Exception.h"', "engine may not include mpl"),
    ("engine/a.cpp", '"platform/transfer/B.h"', "engine may not include platform/transfer"),
    ("engine/a.cpp", "<sqlite3.h>", "<sqlite3.h> belongs to"),
    ("engine/a.cpp", "<sys/socket.h>", None),
    ("cli/a.cpp", '"engine/X.h"', None),
    ("cli/a.cpp", '"mpl/dash/X.h"', "cli may not include mpl"),
    ("examples/host/main.cpp", '"qnc/qncUri.h"', "examples may not include qnc"),
    ("engine/a.cpp", '"../platform/URL.h"', '"../platform/URL.h" is not written by room'),
    ("engine/a.cpp", '"X.h"', '"X.h" is not written by room'),
    ("engine/a.cpp", "<platform/URL.h>", "a room's header is included with quotes"),
    ("engine/a.cpp", "<boost/any.hpp>", "<boost/any.hpp> is a third-party header without a room"),
    ("engine/a.cpp", "<vector>", None),
    # headers that are installed
    ("platform/Public.h", '"platform/Public2.h"', None),
    ("platform/Public.h", "<vector>", None),
    ("platform/Public.h", '"qnc/qncUri.h"', 'a public header includes "qnc/qncUri.h"'),
    ("platform/Public.h", '"platform/Private.h"', 'a public header includes "platform/Private.h"'),
    ("platform/Public.h", "<unistd.h>", "a public header includes <unistd.h>"),
]


def check_case(path, include, expected):
    with tempfile.TemporaryDirectory() as root:
        listed = ["platform/Public.h", "platform/Public2.h"]
        files = {name: "#pragma once\n" for name in listed}
        files["cmake/QNPublicHeaders.cmake"] = "set(X\n  " + "\n  ".join(listed) + ")\n"
        files[path] = f"// one line before\n  #  include {include}\n"
        for name, content in files.items():
            os.makedirs(os.path.dirname(os.path.join(root, name)), exist_ok=True)
            with open(os.path.join(root, name), "w", encoding="utf-8") as file:
                file.write(content)
        found = check_tree(root)
    wanted = [] if expected is None else [f"{path}:2: {expected}"]
    good = len(found) == len(wanted) and all(f.startswith(w) for f, w in zip(found, wanted))
    return None if good else f"{path} with {include}: wanted {wanted}, found {found}"


def self_test():
    failures = [failure for case in CASES if (failure := check_case(*case))]
    with tempfile.TemporaryDirectory() as root:
        os.makedirs(os.path.join(root, "cmake"))
        with open(os.path.join(root, "cmake/QNPublicHeaders.cmake"), "w", encoding="utf-8") as file:
            file.write("set(X\n  platform/Gone.h)\n")
        if len(check_tree(root)) != 2:
            failures.append("an empty tree, or a listed header that does not exist, passed")
    return failures


def main():
    findings = self_test() if sys.argv[1] == "--self-test" else check_tree(sys.argv[1])
    print("\n".join(findings))
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
