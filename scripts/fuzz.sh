#!/usr/bin/env bash
# Fuzzes octunnel: builds the fuzz targets (to-native and to-oc, XML and
# JSON; serve-rpc, a session of the agent through its relay's guard and
# request handlers; gnmi-path, the gNMI front's paths and values) with
# clang, libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer in
# build-fuzz, and runs each for SECONDS (default 60) from the seeds (golden
# cases, examples and the agent tests' requests) and what earlier runs
# found, with a dictionary of the models', NETCONF's and gNMI's words.  Each
# target checks its promise itself (see tests/fuzz/translate_fuzzer.cpp,
# tests/fuzz/serve_rpc_fuzzer.cpp and tests/fuzz/gnmi_path_fuzzer.cpp).
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# An input that breaks the promise is written to build-fuzz/findings/ and
# the script fails; turn it into a regression case by copying it to
# tests/fuzz/regressions/<target>/, where the tests replay it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(to-native-xml to-native-json to-oc-xml to-oc-json serve-rpc gnmi-path)

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOCTUNNEL_FUZZ=ON \
  -DOCTUNNEL_SANITIZE=ON >/dev/null
names=()
for t in "${targets[@]}"; do names+=("fuzz_${t//-/_}"); done
cmake --build "$build" -j"$(nproc)" --target "${names[@]}" >/dev/null

python3 tools/fuzz_corpus.py "$build/seeds"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=0
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t" findings="$build/findings/$t"
  mkdir -p "$corpus" "$findings"
  dirs=("$corpus" "$build/seeds/$t")
  [ -d "tests/fuzz/regressions/$t" ] && dirs+=("tests/fuzz/regressions/$t")
  echo "== $t: ${seconds}s"
  if ! "$build/fuzz_${t//-/_}" -max_total_time="$seconds" -max_len=70000 -timeout=10 \
      -rss_limit_mb=4096 -dict="$build/seeds/octunnel.dict" -artifact_prefix="$findings/" \
      -print_final_stats=1 "${dirs[@]}" >"$build/$t.log" 2>&1; then
    failed=1
    grep -E "octunnel broke|ERROR|SUMMARY|==[0-9]+==" "$build/$t.log" | head -20 || true
    echo "$t: a finding, in $findings/"
  fi
  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" "$build/$t.log" || true
  echo "corpus: $(find "$corpus" -type f | wc -l) inputs"
done
exit $failed
