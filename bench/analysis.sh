#!/usr/bin/env bash
# Measures the detectors of the media node with recordings from Debian packages: hundreds of
# prompts in English, Spanish, Italian, French and Russian, and music on hold. The detectors were
# tuned with English prompts between Russian speech; the other languages show how well the result
# carries over.
#
#   bench/analysis.sh [--build FOLDER] [--cache FOLDER] [--hours N] [PART...]
#
#   --build FOLDER   a build to use; without it, builds what it needs in build/analysis
#   --cache FOLDER   where the packages (110 MB) are downloaded to and unpacked once
#                    (build/sounds)
#   --hours N        length of the other speech and music in which false detections are
#                    counted (10)
#   PART             samples, many, tones, false, activity or cost (all)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build= cache=build/sounds hours=10
while [[ ${1:-} == --* ]]; do
    case $1 in
        --build) build=$2 ;;
        --cache) cache=$2 ;;
        --hours) hours=$2 ;;
        --help) sed -n '2,/^set/s/^# \{0,1\}//p' "bench/${BASH_SOURCE[0]##*/}"; exit 0 ;;
        *) echo "analysis: unknown option $1" >&2; exit 2 ;;
    esac
    shift 2
done
parts=("${@:-}")
[ -n "${parts[0]}" ] || parts=(samples many tones false activity cost)
for part in "${parts[@]}"; do
    case $part in
        samples | many | tones | false | activity | cost) ;;
        *)
            echo "analysis: unknown part $part: samples, many, tones, false, activity or cost" >&2
            exit 2
            ;;
    esac
done

mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
fetch() {
    [ ! -d "$cache/$1" ] || return 0
    echo "downloading $1" >&2
    (cd "$cache" && apt-get download -qq "$1" 2>"$1.log" && rm -rf "$1.part" &&
        dpkg-deb -x "$1"_*.deb "$1.part" && rm -f "$1"_*.deb "$1.log" && mv "$1.part" "$1") ||
        { cat "$cache/$1.log" >&2; echo "analysis: cannot download $1" >&2; exit 1; }
}
for language in en es it fr ru; do
    fetch "asterisk-core-sounds-$language-wav"
done
fetch asterisk-moh-opsound-wav
speech() { echo "$cache/asterisk-core-sounds-$1-wav"; }
music=$cache/asterisk-moh-opsound-wav

if [ -z "$build" ]; then
    build=build/analysis
    scripts/setup.sh
    mkdir -p "$build"
    {
        cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVANE_BENCH=ON \
            -DQUORVANE_HOST=embedded &&
        cmake --build "$build" -j "$(nproc)" --target analysis_bench
    } >"$build/build.log" 2>&1 || { tail -n 40 "$build/build.log"; exit 1; }
fi
bench=$build/bench/analysis_bench
# The library's note that its detector of speech is a makeshift is not a result.
run() { "$bench" "$@" 2> >(grep -v 'The VAD has been replaced' >&2 || true); }

declare -A names=([en]=English [es]=Spanish [it]=Italian [fr]=French)
for part in "${parts[@]}"; do
    case $part in
        samples)
            for language in en es it fr; do
                run samples "${names[$language]}" "$(speech $language)" "$(speech ru)"
            done
            ;;
        many) run many "$(speech ru)" "$(speech en)" "$(speech es)" "$(speech fr)" ;;
        tones) run tones "$(speech ru)" ;;
        false)
            echo "English references in Russian speech and music, on which this was tuned:"
            run false "$hours" "$(speech en)" "$(speech ru)" "$music"
            echo "English references in Spanish, Italian and French speech and music:"
            run false "$hours" "$(speech en)" "$(speech es)" "$(speech it)" "$(speech fr)" "$music"
            ;;
        activity)
            for language in en es it fr; do
                run activity "${names[$language]}" "$(speech $language)"
            done
            ;;
        cost) run cost "$(speech ru)" "$(speech en)" "$(speech es)" "$(speech fr)" ;;
    esac
done
