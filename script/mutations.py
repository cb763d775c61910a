"""Small mistakes in a copy of the module's code, one at a time: mutations.py [COUNT [SEED]].

Lists those that no test finds. A mistake is a comparison that takes or leaves its bound, a number
that is one off, a condition that is turned round, or a call that is not made.
"""
import os
import random
import re
import shutil
import subprocess
import sys

COPY = "build/mutations"
PRODUCT = "linux_xen/extensions"
# What waits for seconds comes last, and only for what the others do not find.
SLOW = "*ListedSwitchBridgesAreBounded:*HasFiveSeconds*:*LateRepliesWithoutEnd"
RUNS = ("--gtest_filter=-" + SLOW, 30), ("--gtest_filter=" + SLOW, 60)
# A mistake could kill every process it can reach: so that is those of a namespace alone, whose
# first one, which orphans fall to, is not the test. Nor may it take all memory.
ALONE = ["unshare", "--map-root-user", "--pid", "--fork", "--kill-child", "--mount-proc",
         "sh", "-c", "ulimit -v 4000000; \"$0\" \"$@\"; exit $?"]

NO_CODE = re.compile(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])*'"
                     r"|^#[^\n]*|static_assert\([^;]*;", re.DOTALL | re.MULTILINE)
BOUNDS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}


def turn_bound(match, _):
    return " %s " % BOUNDS[match[1]]


def shift_number(match, chance):
    base = 16 if match[0].lower().startswith("0x") else 10
    value = int(match[0], base) + chance.choice((1, -1))
    return "%#x" % value if base == 16 else "%d" % value


KINDS = (
    (re.compile(r" ([<>]=?|[=!]=) "), turn_bound),
    (re.compile(r"\b(?:0[xX][0-9a-fA-F]+|0|[1-9][0-9]*)\b(?![.'])"), shift_number),
    (re.compile(r" (&&|\|\|) "), lambda match, _: " || " if match[1] == "&&" else " && "),
    (re.compile(r"(?<=\bif )\(((?:[^()]|\((?:[^()]|\([^()]*\))*\))*)\)"),
     lambda match, _: "(!(%s))" % match[1]),
    (re.compile(r"(?<=[;{}\n])(\s+)(?!return\b)[\w:>.-]+\([^;{}]*\);"),
     lambda match, _: match[1] + ";"),
)


def sites(path):
    """Yields the kind and the match of every place in a file where a mistake can be made."""
    with open(path, encoding="utf-8") as source:
        code = NO_CODE.sub(lambda match: re.sub(r"[^\n]", "\1", match[0]), source.read())
    for kind, (pattern, _) in enumerate(KINDS):
        for match in pattern.finditer(code):
            yield kind, match.start(), match.end()


def run(command, seconds):
    try:
        return subprocess.run(command, cwd=COPY + "/tree", timeout=seconds,
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def build():
    return run(["ninja", "-C", "build", "function_tests"], 600)


def code():
    """The machine code of the whole module."""
    objects = COPY + "/tree/build/CMakeFiles/core.dir/" + PRODUCT
    contents = []
    for name in sorted(os.listdir(objects)):
        with open("%s/%s" % (objects, name), "rb") as made:
            contents.append(made.read())
    return contents


def is_found():
    return not all(run(ALONE + ["build/tests/function_tests", choice], limit)
                   for choice, limit in RUNS)


def make_copy():
    shutil.rmtree(COPY, ignore_errors=True)
    for path in subprocess.check_output(["git", "ls-files", "-co", "--exclude-standard"],
                                        text=True).splitlines():
        os.makedirs(os.path.dirname("%s/tree/%s" % (COPY, path)), exist_ok=True)
        shutil.copy(path, "%s/tree/%s" % (COPY, path))
    configured = run(["cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                      "-DCMAKE_CXX_FLAGS=-O1 -g0 -Wno-error"], 600)
    if not configured or not build() or is_found():
        sys.exit("script/mutations: the tests do not pass without a mistake")


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 300
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(1 << 31)
    chance = random.Random(seed)
    make_copy()
    right_code = code()
    drawn = [[] for _ in KINDS]
    for name in sorted(os.listdir("%s/tree/%s" % (COPY, PRODUCT))):
        path = "%s/%s" % (PRODUCT, name)
        for kind, start, end in sites("%s/tree/%s" % (COPY, path)):
            drawn[kind].append((path, start, end))
    for places in drawn:
        chance.shuffle(places)
    found = survivors = same = broken = 0
    while found + survivors < count and any(drawn):
        kind = chance.choice([kind for kind, places in enumerate(drawn) if places])
        path, start, end = drawn[kind].pop()
        with open("%s/tree/%s" % (COPY, path), encoding="utf-8") as source:
            right = source.read()
        pattern, change = KINDS[kind]
        wrong = right[:start] + change(pattern.search(right, start), chance) + right[end:]
        with open("%s/tree/%s" % (COPY, path), "w", encoding="utf-8") as source:
            source.write(wrong)
        if not build():
            broken += 1
        elif code() == right_code:
            same += 1
        elif is_found():
            found += 1
        else:
            survivors += 1
            first = right.rfind("\n", 0, start + 1) + 1
            last = right.find("\n", end - 1)
            print("%s:%d\n-%s\n+%s" % (path, right.count("\n", 0, start) + 1, right[first:last],
                                       wrong[first:last + len(wrong) - len(right)]), flush=True)
        with open("%s/tree/%s" % (COPY, path), "w", encoding="utf-8") as source:
            source.write(right)
    print("%d mistakes by seed %d: %d found, %d survive (%d same code, %d not compiled)" % (
        found + survivors, seed, found, survivors, same, broken))


if __name__ == "__main__":
    main()
