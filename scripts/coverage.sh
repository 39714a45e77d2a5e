#!/usr/bin/env bash
# Line and branch coverage of src/ by the test suite, per folder, from clang's
# source-based coverage and Debian's llvm-14 tools. Usage: scripts/coverage.sh
# (builds the coverage preset, starts the test services, runs every test but
# the fuzz runs, and prints the table; the merged profile stays in
# build/coverage/suite.profdata for llvm-cov-14 show).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh coverage
profiles=build/coverage/profiles
rm -rf "$profiles" && mkdir -p "$profiles"
source scripts/services.sh
trap services_stop EXIT
services_start
# Every process the tests start (agents, examples) writes its own profile.
ctest --preset coverage --parallel "$(nproc)" >build/coverage/ctest.log || {
  tail -n 30 build/coverage/ctest.log
  exit 1
}
llvm-profdata-14 merge -sparse "$profiles"/*.profraw -o build/coverage/suite.profdata
llvm-cov-14 export -summary-only -instr-profile=build/coverage/suite.profdata \
  build/coverage/libZintaroCore.so >build/coverage/summary.json
python3 - build/coverage/summary.json "$PWD/src/" <<'PY'
import json, sys
from collections import defaultdict
data, root = json.load(open(sys.argv[1])), sys.argv[2]
folders = defaultdict(lambda: [0, 0, 0, 0])  # lines covered, lines, branches covered, branches
for f in data["data"][0]["files"]:
    if not f["filename"].startswith(root):
        continue
    folder = f["filename"][len(root):].split("/")[0]
    s = f["summary"]
    for row in (folders[folder], folders["(all)"]):
        row[0] += s["lines"]["covered"]; row[1] += s["lines"]["count"]
        row[2] += s["branches"]["covered"]; row[3] += s["branches"]["count"]
pct = lambda a, b: f"{100 * a / b:5.1f}%" if b else "    -"
print(f"{'folder':<10} {'lines':>7} {'of':>7} {'branches':>9} {'of':>7}")
for name in sorted(folders, key=lambda n: (n == "(all)", n)):
    lc, l, bc, b = folders[name]
    print(f"{name:<10} {pct(lc, l):>7} {l:>7} {pct(bc, b):>9} {b:>7}")
PY
