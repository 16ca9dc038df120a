#!/usr/bin/env bash
# Measures what the test suite catches: applies each fault of
# scripts/mutations.txt in turn to a scratch copy of the tree, builds
# incrementally, runs the suite until its first failure and reports the
# fault as caught or missed. A catch counts only when the failing tests fail
# again on a second run, so a flaky test never passes for a catch.
#   scripts/mutate.sh [--check] [--all] [--list FILE] [NAME-PATTERN]
#     --check         only say which faults no longer apply to the tree
#     --all           run the whole suite for each fault and name every test
#                     that fails (which tests catch which faults: what a
#                     test adds to the suite), instead of stopping at the first
#     NAME-PATTERN    only the faults whose name matches (grep -E)
# Environment: MUTATE_SOURCE (the tree, default this one), MUTATE_DIR
# (scratch tree, default /tmp/zmlog-mutate; kept between runs so builds stay
# incremental), MUTATE_JOBS (ctest -j), MUTATE_QUICK (a ctest -R pattern of
# the in-process tests, run first: a fault they catch costs seconds, not the
# whole suite; "" runs the suite in its own order).
# A tool for whoever changes the tests; not part of CI.
set -euo pipefail
root=${MUTATE_SOURCE:-$(cd "$(dirname "$0")/.." && pwd)}
list=$root/scripts/mutations.txt
check=0
all=0
pattern=
while [ $# -gt 0 ]; do
  case $1 in
    --check) check=1 ;;
    --all) all=1 ;;
    --list) list=$2; shift ;;
    *) pattern=$1 ;;
  esac
  shift
done
scratch=${MUTATE_DIR:-/tmp/zmlog-mutate}
quick=${MUTATE_QUICK-'^(SharedRingTest|WriterTest|Writer|RecordClock|MacrosTest|Format|LogLine|ContentDecode|HexDump|ParseLogline|RecordWalker|ConfigFileTest|PathsTest|ZmlogFormat|SyslogEncoder|EncryptTest|RollFileTest|Transport|ConsolePathInProcess|LogStateTest)\.'}
jobs=${MUTATE_JOBS:-$(nproc)}
build=$scratch/build
report=$scratch/report.txt

# The faults, one per record: name, file, find text, replacement.
faults=$(mktemp)
trap 'rm -f "$faults"' EXIT
perl -ne '
  BEGIN { $/ = undef }
  s/^#.*\n//mg;
  for my $block (split /^== /m) {
    next unless $block =~ /\S/;
    my ($name, $file, @rest) = split /\n/, $block;
    my (@find, @repl, $into);
    for (@rest) {
      if (s/^- ?//) { $into = \@find } elsif (s/^\+ ?//) { $into = \@repl }
      next unless $into && /\S/;
      s/^\s+//; s/\s+$//;
      push @$into, $_;
    }
    my $esc = sub { my $s = join("\x01", @_); $s =~ s/\t/ /g; $s };
    print join("\t", $name, $file, $esc->(@find), $esc->(@repl)), "\n";
  }' "$list" >"$faults"
[ -n "$pattern" ] && { grep -E "^[^\t]*($pattern)" "$faults" >"$faults.only" || true; mv "$faults.only" "$faults"; }

# Applies a fault to a file in place: exit 0 when its text occurs exactly
# once (lines matched whatever their indentation), 1 otherwise.
apply() {  # file find replacement
  perl -0777 -i -e '
    my ($find, $repl) = (shift, shift);
    my @lines = split /\x01/, $find;
    my $re = join("[ \\t]*\\n[ \\t]*", map { quotemeta } @lines);
    local $/; my $text = <>;
    my $count = () = $text =~ /$re/g;
    if ($count != 1) { print $text; exit 1 }
    my $with = join("\n", split /\x01/, $repl, -1);
    $text =~ s/$re/$with/;
    print $text;' "$2" "$3" "$1"
}

copy_tree() {
  mkdir -p "$scratch/src"
  # A run stopped with a fault applied left the original beside the file: the
  # copy puts the original back, and the touch has it rebuilt.
  local left
  left=$(cd "$scratch/src" && find . -name '*.orig')
  # Only files whose bytes changed are copied, with the time of the copy: a
  # file edited before the scratch tree's last build (kept times would say
  # older than its object) is rebuilt all the same, and the rest is not.
  local staging=$scratch/staging
  rm -rf "$staging"
  mkdir -p "$staging"
  (cd "$root" && git ls-files -co --exclude-standard -z | grep -zv '^build' |
    tar --null -T - -cf -) | tar -xpf - -C "$staging"
  (cd "$staging" && find . -type f -print0) | while IFS= read -r -d '' f; do
    if ! cmp -s "$staging/$f" "$scratch/src/$f"; then
      mkdir -p "$(dirname "$scratch/src/$f")"
      cp --preserve=mode "$staging/$f" "$scratch/src/$f"
    fi
  done
  rm -rf "$staging"
  for f in $left; do
    rm -f "$scratch/src/$f"
    touch "$scratch/src/${f%.orig}"
  done
  # Files the tree no longer has go too (a glob would still build them).
  (cd "$root" && git ls-files -co --exclude-standard | grep -v '^build' | sort) >"$scratch/files"
  (cd "$scratch/src" && find . -type f | sed 's|^\./||' | sort | comm -13 "$scratch/files" - |
    tr '\n' '\0' | xargs -0 -r rm -f)
}

if [ $check -eq 1 ]; then
  stale=0
  while IFS=$'\t' read -r name file find repl; do
    tmp=$(mktemp)
    cp "$root/$file" "$tmp"
    if ! apply "$tmp" "$find" "$repl" 2>/dev/null; then
      echo "stale: $name ($file)"
      stale=$((stale + 1))
    fi
    rm -f "$tmp"
  done <"$faults"
  echo "$(wc -l <"$faults") faults, $stale stale"
  exit 0
fi

scripts_dir=$root/scripts
run_suite() {  # extra ctest arguments; the tests' output goes to the log
  rm -f "$build/Testing/Temporary/CTestCostData.txt"
  "$scripts_dir/isolated.sh" ctest --test-dir "$build" -j"$jobs" --timeout 120 "$@" \
    >>"$scratch/ctest.log" 2>&1
}
# The suite until its first failure, the quick tests first; skip: tests left out.
run_until_failure() {
  if [ -n "$quick" ]; then
    run_suite --stop-on-failure -R "$quick" ${skip:+-E "$skip"} || return 1
    run_suite --stop-on-failure -E "$quick${skip:+|$skip}"
  else
    run_suite --stop-on-failure ${skip:+-E "$skip"}
  fi
}
build_tree() {
  cmake --build "$build" -j"$(nproc)" >>"$scratch/build.log" 2>&1
}

copy_tree
cmake -S "$scratch/src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$scratch/build.log" 2>&1
build_tree || { echo "the unchanged tree does not build: see $scratch/build.log" >&2; exit 1; }
: >"$scratch/ctest.log"
start=$(date +%s)
# A test that fails once and passes again is let be, as with the faults.
if ! run_suite && ! run_suite --rerun-failed; then
  echo "the suite fails without any fault: see $scratch/ctest.log" >&2
  exit 1
fi
echo "suite passes unchanged in $(($(date +%s) - start)) s" | tee "$report"

caught=0
total=0
while IFS=$'\t' read -r name file find repl; do
  target=$scratch/src/$file
  cp -p "$target" "$target.orig"
  if ! apply "$target" "$find" "$repl" 2>/dev/null; then
    mv "$target.orig" "$target"
    echo "stale   $name" | tee -a "$report"
    continue
  fi
  t0=$(date +%s)
  if ! build_tree; then
    # A fault the compiler rejects says nothing about the tests: mend the list.
    echo "broken  $name (does not build)" | tee -a "$report"
    mv "$target.orig" "$target"
    touch "$target"
    continue
  fi
  total=$((total + 1))
  if [ $all -eq 1 ]; then
    run_suite || true
    failed=$(cut -d: -f2- "$build/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | paste -sd'|' -)
    if [ -n "$failed" ] && ! run_suite --rerun-failed; then
      failed=$(cut -d: -f2- "$build/Testing/Temporary/LastTestsFailed.log" | paste -sd'|' -)
      verdict="caught  $name by $failed"
      caught=$((caught + 1))
    else
      verdict="missed  $name"
    fi
    echo "$verdict [$(($(date +%s) - t0)) s]" | tee -a "$report"
    mv "$target.orig" "$target"
    touch "$target"
    continue
  fi
  # A failure counts when it repeats; a test that fails only once is left out
  # and the rest of the suite is run on.
  skip=
  flaky=
  while :; do
    if run_until_failure; then
      verdict="missed  $name${flaky:+ (failed once:$flaky)}"
      break
    fi
    failed=$(cut -d: -f2- "$build/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | head -1)
    escaped=$(printf '%s' "$failed" | sed 's/[][\.*^$()+?{}|/]/\\&/g')
    # Again by name: a filtered run numbers the tests differently.
    if run_suite -R "^$escaped\$"; then
      flaky="$flaky $failed"
      skip="${skip:+$skip|}^$escaped\$"
      continue
    fi
    verdict="caught  $name by $failed"
    caught=$((caught + 1))
    break
  done
  echo "$verdict [$(($(date +%s) - t0)) s]" | tee -a "$report"
  # The original back, with a new time so that it is rebuilt with the next fault.
  mv "$target.orig" "$target"
  touch "$target"
done <"$faults"
build_tree || true
echo "caught $caught of $total in $(($(date +%s) - start)) s" | tee -a "$report"
