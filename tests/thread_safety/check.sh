#!/usr/bin/env bash
# Compiles the small programs beside this script with clang's thread safety analysis. The
# first line of each states the expected result: "accepted", or "refused:" and the compiler's
# message. A program that is refused for another reason is a failure, too. Tests that take locks
# are compiled in the same way and must cause no warning.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

if ! command -v clang++ >/dev/null; then
    echo "SKIPPED: clang++ is not installed"
    exit 77
fi

analyse=(clang++ -std=c++17 -fsyntax-only -Wthread-safety -Wthread-safety-beta
    -I. -Iinclude -Ihost/include -DQUORVANE_CF_MEDIA_SET=55 -DQUORVANE_SWITCH_EVENT_ALL=92)
failures=0
for program in tests/thread_safety/*.cpp; do
    read -r _ verdict <"$program"
    said=$("${analyse[@]}" "$program" 2>&1) ||
        { printf '%s\n%s\n' "$program does not compile:" "$said"; exit 1; }
    warnings=$(grep -c 'warning:' <<<"$said" || true)
    if [ "$verdict" = accepted ]; then
        [ "$warnings" -eq 0 ] && continue
        echo "FAILED $program: expected no warning, got:"
    elif [ "$warnings" -gt 0 ] && grep -qF -e "${verdict#refused: }" <<<"$said"; then
        continue
    else
        echo "FAILED $program: expected \"${verdict#refused: }\", got:"
    fi
    echo "${said:-nothing}"
    failures=$((failures + 1))
done

grep -rl --include='*.cpp' --exclude-dir=thread_safety LockGuard tests |
    xargs -n 1 -P "$(nproc)" "${analyse[@]}" -Werror -DPROBE_NAME=probe \
        -DQUORVANE_RELOCATED_MODULE='""' -DQUORVANE_TEST_DATA_DIR='""' ||
    failures=$((failures + 1))
[ "$failures" -eq 0 ]
