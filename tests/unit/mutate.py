"""Makes mutants of src/, builds each with the unit tests of its module, and names the survivors.

A mutant is one small change of the text: an operator, a constant, a text, a condition inverted, a
statement removed, two calls swapped. Mutants that do not build, or that the compiler turns into the
very same code, do not count. What survives an optimised build is tried once more with the sanitizers.
"""

import concurrent.futures
import os
import pathlib
import queue
import re
import resource
import shutil
import subprocess
import sys
from collections import Counter, namedtuple

TESTS = {
    "kelo-monitord": ["kelo-monitord_test", "calls_test"],
    "platform": ["platform_test", "signal_test", "calls_test"],
    "ipinfo": ["ipinfo_test", "ipinfo_tables_test", "ipinfo_model_test",
               "ipinfo_operations_test", "calls_test"],
    "display": ["display_test", "display_pipe_test", "display_signal_test", "signal_test", "calls_test",
                "display_count_test"],
    "netinfo": ["netinfo_test", "calls_test"],
    "input": ["input_test", "calls_test"],
}
EXPLAINED = pathlib.Path("tests/unit/mutants")
FOLDER = pathlib.Path("build/mutate")
SANITIZERS = "-O1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=all"
CPU_SECONDS = 5  # four times that with the sanitizers
WALL_SECONDS = 120

Mutant = namedtuple("Mutant", "module start end text line key")
Statement = namedtuple("Statement", "start end indent")


def masked(source):
    """The source with comments, texts and preprocessor lines blanked, offsets unchanged."""
    pattern = r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\])*\"|'(?:\\.|[^'\\])*'|^#[^\n]*"
    blank = lambda match: re.sub(r"[^\n]", "~", match.group())
    return re.sub(pattern, blank, source, flags=re.S | re.M)


SWAPS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "<<": ">>", ">>": "<<",
    "+=": "-=", "-=": "+=", "<<=": ">>=", ">>=": "<<=",
}


def operators(code):
    # Binary operators stand between spaces, which sets them apart from references and templates.
    for match in re.finditer(r"(?<= )(==|!=|<<=|>>=|<=|>=|&&|\|\||<<|>>|\+=|-=|[-+*/%&|<>])(?=[ \n])", code):
        yield match.start(), match.end(), SWAPS[match.group()]
    for match in re.finditer(r"\+\+|--(?!\w)", code):
        yield match.start(), match.end(), "--" if match.group() == "++" else "++"
    for match in re.finditer(r"!(?=[\w(])", code):
        yield match.start(), match.end(), ""
    for match in re.finditer(r"\b(true|false)\b", code):
        yield match.start(), match.end(), "false" if match.group() == "true" else "true"
    for match in re.finditer(r"\bexit(?=\()", code):
        yield match.start(), match.end(), "_exit"


def constants(code):
    for match in re.finditer(r"(?<![\w.])(0b[01]+|\d+\.\d+F|\d+)(?![\w.])", code):
        text = match.group()
        if text.startswith("0b"):
            yield match.start(), match.end(), text[:-1] + ("0" if text[-1] == "1" else "1")
        elif text.endswith("F"):
            yield match.start(), match.end(), "{}F".format(float(text[:-1]) + 0.5)
        else:
            octal = re.fullmatch("0[0-7]+", text)
            number = int(text, 8 if octal else 10)
            for other in {number + 1, max(number - 1, 1)} - {number}:
                yield match.start(), match.end(), f"0{other:o}" if octal else str(other)


def texts(source):
    for match in re.finditer(r"//[^\n]*|^#include[^\n]*|\"((?:\\.|[^\"\\])*)\"", source, flags=re.M):
        if match.group(1) and source[match.start() - 7:match.start()] != "extern ":
            yield match.start() + 1, match.start() + 1, "x"


def conditions(code):
    for match in re.finditer(r"\b(?:if|while) \(", code):
        end = closing(code, match.end() - 1)
        condition = code[match.end():end]
        negated = condition[0] == "!" and " && " not in condition and " || " not in condition
        if not negated and " *const " not in condition and " = " not in condition:
            yield match.end(), match.end(), "!("  # closed below, by the one who knows the end
    for match in re.finditer(r"\? ([^?:;,()]+(?:\([^()]*\))?) : ([^?:;,()]+(?:\([^()]*\))?)(?=[,;)])", code):
        yield match.start(), match.end(), "? {} : {}".format(match.group(2), match.group(1))


def closing(code, opening):
    depth = 0
    for at in range(opening, len(code)):
        depth += {"(": 1, ")": -1}.get(code[at], 0)
        if depth == 0:
            return at
    raise ValueError("no closing parenthesis")


def statements(code):
    """What ends in a semicolon inside of functions."""
    found = []
    start = None
    depth = 0
    offset = 0
    for line in code.splitlines(keepends=True):
        stripped = line.strip()
        indent = len(line) - len(line.lstrip())
        if start is None and indent >= 4 and stripped and stripped[0] not in "~}#":
            header = re.match(r"(?:\} )?(?:if|while|for|switch) \(|else\b|case |default:", stripped)
            if not header or depth:
                start = offset + indent
                first_indent = indent
        if start is not None:
            depth += line.count("(") - line.count(")")
            if stripped.endswith(";") and depth == 0:
                found.append(Statement(start, offset + len(line.rstrip()), first_indent))
                start = None
            elif depth == 0 and stripped.endswith(("{", "}", ":")):
                start = None
        elif stripped:
            depth = max(0, depth + line.count("(") - line.count(")"))
        offset += len(line)
    return found


CALL = re.compile(r"(?:[A-Za-z_]\w*(?:\.|->|::))*[A-Za-z_]\w*\(")
ASSIGNMENT = re.compile(r"[\w\[\].>*-]+ (?:[-+|&]|<<|>>)?= |[\w\[\].>-]+(?:\+\+|--);")
JUMP = re.compile(r"(?:return|break|continue);")


def removals(code):
    for start, end, _ in statements(code):
        text = code[start:end]
        if CALL.match(text) or ASSIGNMENT.match(text) or JUMP.match(text):
            yield start, end, ";" + "\n" * text.count("\n")


def swaps(source, code):
    found = statements(code)
    for one, two in zip(found, found[1:]):
        between = code[one.end:two.start]
        first, second = code[one.start:one.end], code[two.start:two.end]
        if one.indent == two.indent and between.strip() == "" and CALL.match(first) and CALL.match(second):
            swapped = source[two.start:two.end] + source[one.end:two.start] + source[one.start:one.end]
            yield one.start, two.end, swapped


def function_at(code, offset):
    names = re.findall(r"^[A-Za-z][^\n;={]*?\b(\w+)\([^;{]*\)\n\{", code[:offset], flags=re.M)
    inside = code.rfind("\n{", 0, offset) > code.rfind("\n}", 0, offset)
    return names[-1] if names and inside else "file"


def mutants(module):
    source = pathlib.Path("src", module + ".cpp").read_text()
    code = masked(source)
    changes = []
    for change in [*operators(code), *constants(code), *texts(source), *conditions(code),
                   *removals(code), *swaps(source, code)]:
        start, end, text = change
        if text == "!(":
            end = closing(code, start - 1)
            text = "!(" + source[start:end] + ")"
        changes.append((start, end, text))
    result = []
    for start, end, text in sorted(set(changes)):
        first = source.rfind("\n", 0, start) + 1
        last = source.find("\n", end)
        squeeze = lambda lines: re.sub(r"\s+", " ", lines).strip()
        before = squeeze(source[first:last])
        after = squeeze(source[first:start] + text + source[end:last])
        key = f"{module}.cpp {function_at(code, start)}: {before} => {after}"
        result.append(Mutant(module, start, end, text, source.count("\n", 0, start) + 1, key))
    return result


class Workshop:
    """A copy of the tree with a build of its own, in which one mutant after the other is made."""

    def __init__(self, number, sanitize):
        self.limits = [(resource.RLIMIT_CPU, CPU_SECONDS * (4 if sanitize else 1)),
                       (resource.RLIMIT_FSIZE, 1 << 26), (resource.RLIMIT_CORE, 0)]
        if not sanitize:  # whose runtime reserves more
            self.limits.append((resource.RLIMIT_AS, 1 << 31))
        self.tree = FOLDER / ("sanitized" if sanitize else "plain") / str(number)
        self.build = self.tree / "build"
        self.recent = {module: [] for module in TESTS}
        files = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                               check=True, capture_output=True, text=True).stdout.split("\0")
        self.tree.mkdir(parents=True, exist_ok=True)
        for name in filter(None, files):
            self.take(pathlib.Path(name))
        options = ["-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]  # no run after each link
        options += [f"-DCMAKE_CXX_FLAGS={SANITIZERS}", "-DCMAKE_BUILD_TYPE=Debug"] if sanitize else []
        subprocess.run(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", *options],
                       check=True, stdout=subprocess.DEVNULL)

    def take(self, name):
        """Copies a file unless it is there already, so that little is built anew."""
        copy = self.tree / name
        if name.is_file() and not (copy.is_file() and copy.read_bytes() == name.read_bytes()):
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(name, copy)

    def prepare(self, modules):
        """Builds the unit tests of the modules as they are, and expects them to pass."""
        self.objects = {}
        self.tests = {}
        for module in modules:
            if not self.ninja([f"unit_{test}" for test in TESTS[module]]):
                sys.exit(f"the unit tests of {module} do not build")
            self.objects[module] = self.object(module).read_bytes()
            self.tests[module] = [(test, name) for test in TESTS[module] for name in self.names(test)]
            failed = self.first_failure(module)
            if failed:
                sys.exit(f"{failed} fails without a mutant")

    def object(self, module):
        return self.build / f"tests/unit/CMakeFiles/{module}_object.dir/__/__/src/{module}.cpp.o"

    def ninja(self, targets):
        done = subprocess.run(["ninja", "-C", self.build, "-j1", *map(str, targets)], capture_output=True)
        return done.returncode == 0

    def program(self, test):
        return self.build / f"tests/unit/unit_{test}"

    def names(self, test):
        listed = subprocess.run([self.program(test), "--gtest_list_tests"], check=True,
                                capture_output=True, text=True).stdout
        suite = ""
        for line in listed.splitlines():
            name = line.split("#")[0].strip()
            if line.startswith(" "):
                yield suite + name
            elif name.endswith("."):
                suite = name

    def passes(self, test, name):
        def limit():
            for what, most in self.limits:
                resource.setrlimit(what, (most, most))
        try:
            return subprocess.run([self.program(test), f"--gtest_filter={name}", "--gtest_brief=1"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  timeout=WALL_SECONDS, preexec_fn=limit).returncode == 0
        except subprocess.TimeoutExpired:
            return False

    def first_failure(self, module):
        """Tries first what failed for the mutants before, and builds no program before its turn."""
        recent = self.recent[module]
        chosen = recent + [other for other in self.tests[module] if other not in recent]
        built = None
        for one in sorted(chosen, key=lambda one: TESTS[module].index(one[0])):
            if one[0] != built and not self.ninja([f"unit_{one[0]}"]):
                return f"{one[0]} does not build"
            built = one[0]
            if not self.passes(*one):
                self.recent[module] = [one] + [other for other in recent if other != one][:20]
                return "{}: {}".format(*one)
        return None

    def judge(self, mutant):
        path = self.tree / "src" / (mutant.module + ".cpp")
        source = path.read_text()
        path.write_text(source[:mutant.start] + mutant.text + source[mutant.end:])
        try:
            if not self.ninja([self.object(mutant.module).relative_to(self.build)]):
                return "not built"
            if self.object(mutant.module).read_bytes() == self.objects[mutant.module]:
                return "same code"
            return "killed" if self.first_failure(mutant.module) else "survived"
        finally:
            path.write_text(source)


def judge_all(candidates, sanitize):
    """What became of each, by mutant."""
    modules = sorted({mutant.module for mutant in candidates}, key=list(TESTS).index)
    count = min(os.cpu_count() or 1, len(candidates))
    workshops = queue.SimpleQueue()

    def prepare(number):
        workshop = Workshop(number, sanitize)
        workshop.prepare(modules)
        workshops.put(workshop)

    def judge(mutant):
        workshop = workshops.get()
        try:
            result = workshop.judge(mutant)
            if result == "survived":
                print(f"   src/{mutant.module}.cpp:{mutant.line}: {mutant.key}", file=sys.stderr, flush=True)
            return result
        finally:
            workshops.put(workshop)

    with concurrent.futures.ThreadPoolExecutor(max(count, 1)) as pool:
        list(pool.map(prepare, range(count)))
        return dict(zip(candidates, pool.map(judge, candidates)))


def explanations():
    """By key, from the list: a reason on lines of its own that begin with #, then what it is for."""
    found = {}
    reason = []
    fresh = False
    for line in EXPLAINED.read_text().splitlines() if EXPLAINED.exists() else []:
        if line.startswith("#"):
            reason = (reason if fresh else []) + [line[1:].strip()]
            fresh = True
        elif line.strip():
            if not reason:
                sys.exit(f"{EXPLAINED}: no reason for {line}")
            found[line.strip()] = " ".join(reason)
            fresh = False
        else:
            fresh = False
    return found


def quick_share(candidates):
    """One in ten, from commit to commit other ones."""
    commit = subprocess.run(["git", "rev-parse", "HEAD"], check=True, capture_output=True, text=True).stdout
    return candidates[int(commit, 16) % 10::10]


def main():
    quick = sys.argv[1:2] == ["--quick"]
    modules = sys.argv[1 + quick:] or list(TESTS)
    for module in modules:
        if module not in TESTS:
            sys.exit(f"no such module: {module}")
    candidates = [mutant for module in modules for mutant in mutants(module)]
    if quick:
        candidates = quick_share(candidates)
    print(f"== {len(candidates)} mutants", file=sys.stderr, flush=True)
    results = judge_all(candidates, sanitize=False)
    explained = explanations()
    survivors = [mutant for mutant in candidates if results[mutant] == "survived"
                 and not (quick and mutant.key in explained)]
    print(f"== {len(survivors)} survivors tried with the sanitizers", file=sys.stderr, flush=True)
    if survivors:
        results.update(judge_all(survivors, sanitize=True))

    counts = Counter()
    bad = 0
    used = set()
    for mutant in candidates:
        result = results[mutant]
        if result == "survived" and mutant.key in explained:
            used.add(mutant.key)
            result = "explained"
        counts[mutant.module, result] += 1
        if result == "survived":
            bad += 1
            print(f"src/{mutant.module}.cpp:{mutant.line}: survived: {mutant.key}")
    for key in explained:
        if not quick and key not in used and key.split(".cpp ")[0] in modules:
            bad += 1
            print(f"{EXPLAINED}: explains no survivor: {key}")
    columns = ["killed", "explained", "survived", "same code", "not built"]
    print("{:<15}".format("module") + "".join(f"{name:>11}" for name in columns))
    for module in [*modules, "all"]:
        chosen = modules if module == "all" else [module]
        print(f"{module:<15}" + "".join(f"{sum(counts[one, name] for one in chosen):>11}" for name in columns))
    sys.exit(1 if bad else 0)


main()
