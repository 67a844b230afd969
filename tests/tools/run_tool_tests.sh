#!/usr/bin/env bash
# End-to-end tests of the weftmap host on generated files.
#   run_tool_tests.sh GROUP WEFTMAP PROBE WORKDIR
# GROUP is one of the groups below.
set -u
group=$1 tool=$2 probe=$3 work=$4
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work/in" "$work/out" "$work/log"
cd "$work" || exit 1
"$probe" make in || { echo "cannot generate the input files"; exit 1; }

passed=0 failed=0
ok() { echo "ok: $1"; passed=$((passed + 1)); }
fail() { echo "FAIL: $1"; sed 's/^/    /' log/stderr; failed=$((failed + 1)); }
# verify NAME COMMAND...: ok when COMMAND succeeds.
verify() {
    local name=$1
    shift
    "$@" && ok "$name" || fail "$name"
}
# holds NAME FILE PATTERN: FILE has a line matching PATTERN.
holds() { grep -q -- "$3" "$2" && ok "$1" || fail "$1: $2 lacks '$3': $(head -c 300 "$2")"; }
# nothing_in NAME DIR: DIR is empty.
nothing_in() {
    [ -z "$(ls -A "$2")" ] && ok "$1: nothing left in $2" || fail "$1: $2 holds $(ls -A "$2" | tr '\n' ' ')"
}
# files_left: the names in out/, on one line.
files_left() { ls -A out | tr '\n' ' '; }

# expect NAME STATUS TEXT ARGS...: runs the host (through $runner when set);
# checks its exit status and that standard error holds TEXT (when not empty).
runner=
expect() {
    local name=$1 status=$2 text=$3 got
    shift 3
    $runner "$tool" "$@" </dev/null >log/stdout 2>log/stderr
    got=$?
    [ "$got" -eq "$status" ] || { fail "$name: exit status $got, expected $status"; return 1; }
    [ -z "$text" ] || grep -qF -- "$text" log/stderr ||
        { fail "$name: standard error lacks '$text'"; return 1; }
    ok "$name"
}

# expect_refusal NAME STATUS TEXT ARGS...: a failure must print exactly one
# line and leave no file behind, not even a temporary one.
expect_refusal() {
    rm -rf out && mkdir out
    expect "$@" || return 1
    verify "$1: one line on standard error" [ "$(wc -l <log/stderr)" -eq 1 ]
    nothing_in "$1" out
}

# check NAME COMMAND...: a probe check that must succeed.
check() {
    local name=$1
    shift
    "$@" </dev/null >log/probe 2>&1 && ok "$name" || { cp log/probe log/stderr; fail "$name"; }
}

# check_info NAME FILE EXPECTED: the written file's header.
check_info() {
    local got
    got=$("$probe" info "$2" </dev/null)
    [ "$got" = "$3" ] && ok "$1: $3" || { echo "$got" >log/stderr; fail "$1: '$got', not '$3'"; }
}

# finish PID [TENTHS]: waits for the run to end, a minute (or TENTHS of a
# second) at most, then kills it; its exit status goes to $status.
finish() {
    for _ in $(seq "${2:-600}"); do
        kill -0 "$1" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$1" 2>/dev/null
    wait "$1"
    status=$?
}

# interrupt SIGNALS PATTERN PAUSE ARGS...: runs the host on ARGS in an empty
# out/, and once standard error matches PATTERN (or the run ends, a minute at
# most) and PAUSE seconds later, sends SIGNALS. Two are sent while the process
# is stopped, so both are pending when it goes on: the second always comes
# before the first could be handled by unwinding (two of one kind would merge
# into one). The exit status goes to $status.
interrupt() {
    local signals=$1 pattern=$2 pause=$3 pid
    shift 3
    rm -rf out && mkdir out
    "$tool" "$@" 2>log/stderr >log/stdout &
    pid=$!
    for _ in $(seq 600); do
        grep -q "$pattern" log/stderr && break
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    sleep "$pause"
    if [ "${signals#* }" = "$signals" ]; then
        kill -"$signals" "$pid"
    else
        kill -STOP "$pid"
        for signal in $signals; do kill -"$signal" "$pid"; done
        kill -CONT "$pid"
    fi
    finish "$pid"
}

# Runners for expect.
with_file_limit() { (ulimit -f 1 && exec "$@"); }
# Writes the peak resident size in KiB to log/rss.
with_peak_size() { "$probe" peak-rss log/rss "$@"; }

case "$group" in
formats)
    # Every type: same format back, known pixels untouched (lossless formats),
    # the periodic texture continued into the hole.
    for f in gray8.png rgb8.png gray16.png rgb16.png gray8.tif rgb8.tif cmyk8.tif gray16.tif \
        rgb16.tif cmyk16.tif gray32f.tif rgb32f.tif cmyk32f.tif gray8.jpg rgb8.jpg cmyk8.jpg; do
        lossy=
        [ "${f##*.}" = jpg ] && lossy=--lossy
        expect "fill $f" 0 "" fill "in/$f" in/mask.png "out/$f" --quiet &&
            check_info "fill $f" "out/$f" "$("$probe" info "in/$f")" &&
            check "fill $f continues the texture" \
                "$probe" check-fill "in/$f" in/mask.png "out/$f" $lossy
    done
    # The output's extension picks another format; without one the input's
    # stays. Alpha is dropped with a warning.
    while read -r input output header; do
        warning=
        [ "${input#rgba}" != "$input" ] && warning="'in/$input' has an alpha channel; it is ignored"
        expect "fill $input -> $output" 0 "$warning" fill "in/$input" in/mask.png "out/$output" \
            --quiet && check_info "fill $input -> $output" "out/$output" "$header"
    done <<'EOF'
rgba8.png rgba8.png PNG 64x48 8-bit RGB
rgba16.tif rgba16.tif TIFF 64x48 16-bit RGB
rgb32f.tif float-to.png PNG 64x48 16-bit RGB
cmyk8.tif cmyk-to.png PNG 64x48 8-bit RGB
rgb16.png deep-to.jpg JPEG 64x48 8-bit RGB
gray8.png gray-to.TIF TIFF 64x48 8-bit gray
rgb16.tif no-extension TIFF 64x48 16-bit RGB
EOF
    # Retargeting keeps the type at every kind of new size (every type at one
    # size is the kit's test).
    while read -r f expected size; do
        expect "retarget $f $size" 0 "" retarget "in/$f" "out/r-$f" $size --quiet &&
            check_info "retarget $f $size" "out/r-$f" \
                "$("$probe" info "in/$f" | sed "s/64x48/$expected/")"
    done <<'EOF'
rgb8.png 64x36 --height 36
gray16.png 48x36 --scale 0.75
rgb32f.tif 80x48 --width 80
cmyk8.tif 40x30 --width 40 --height 30
EOF
    ;;

options)
    expect "--version" 0 "" --version && holds "--version prints 1.1.0" log/stdout "^weftmap 1.1.0$"
    expect "--help" 0 "" --help && holds "--help shows the exit statuses" log/stdout "130  cancelled" &&
        holds "--help shows fill" log/stdout "fill IMAGE MASK OUTPUT" &&
        holds "--help shows --remove" log/stdout "--remove MASK"

    # Progress: plain lines when standard error is no terminal; --quiet
    # silences progress and summary.
    expect "progress lines" 0 "filling: 100%" fill in/rgb8.png in/mask.png out/a.png &&
        holds "summary names the output" log/stdout "^wrote out/a.png (64x48, 8-bit RGB PNG)$"
    expect "--quiet" 0 "" fill in/rgb8.png in/mask.png out/quiet.png --quiet &&
        verify "--quiet prints nothing" [ -z "$(cat log/stderr log/stdout)" ]

    # With one band runs are reproducible and scalar and vector kernels
    # agree exactly (several bands read across their borders while they run).
    expect "--seed 7" 0 "" fill in/rgb8.png in/mask-soft.png out/seed7.png --seed 7 --threads 1 \
        --quiet
    expect "--seed 7 again" 0 "" fill in/rgb8.png in/mask-soft.png out/seed7b.png --seed=7 \
        --threads=1 --quiet
    check "the same seed gives the same picture" "$probe" same out/seed7.png out/seed7b.png
    # Partial mask values go to the library as they are.
    check "a soft mask keeps the pixels it leaves at 0" \
        "$probe" check-fill in/rgb8.png in/mask-soft.png out/seed7.png
    for f in rgb8.png cmyk16.tif; do
        expect "vector $f" 0 "" fill "in/$f" in/mask.png "out/vector-$f" --threads 1 --quiet
        expect "--scalar $f" 0 "" fill "in/$f" in/mask.png "out/scalar-$f" --threads 1 --scalar \
            --quiet
        check "scalar and vector kernels give the same $f" \
            "$probe" same "out/vector-$f" "out/scalar-$f"
    done
    # Threads, comparators, presets and a memory limit: the fill still fills.
    while read -r f args; do
        out="out/run${args// /}-$f"
        expect "fill $f $args" 0 "" fill "in/$f" in/mask.png "$out" $args --quiet &&
            check "fill $f $args fills" "$probe" check-fill "in/$f" in/mask.png "$out"
    done <<'EOF'
rgb8.png --threads 3
rgb8.png --comparator gain-bias
gray32f.tif --comparator gain-bias
rgb16.tif --mode default
rgb16.tif --mode tapestry
rgb16.tif --mode hole-fill
rgb8.png --memory-limit 64M
EOF
    expect "retarget --mode hole-fill" 0 "" retarget in/rgb8.png out/r.png --width 50 \
        --mode hole-fill --quiet
    # --remove takes a mask of the picture's size (what it keeps out is
    # checked by the kit's tests).
    expect "retarget --remove" 0 "" retarget in/rgb8.png out/rm.png --width 50 \
        --remove in/mask-soft.png --quiet &&
        check_info "retarget --remove" out/rm.png "PNG 50x48 8-bit RGB"

    # The option map reaches the recomposer (its parameter block is printed
    # on the diagnostic channel), with or without the dash, values or not.
    expect "--set -em_iters=8" 0 "em_iters_max:        8" fill in/gray8.png in/mask.png \
        out/em8.png --set -em_iters=8 --set em_iters_final=4 --set -no_minnn --checksums --quiet &&
        holds "--set without the dash" log/stderr "em_iters_final:      4" &&
        holds "--set without a value" log/stderr "minnn:               false" &&
        holds "--checksums" log/stderr "CHECKSUM (weftmap): "

    # A colour mask counts its non-zero channels.
    expect "red mask" 0 "" fill in/rgb8.png in/mask-red.png out/redmask.png --threads 1 --quiet
    check "a red mask is the same hole as a white one" \
        "$probe" same out/vector-rgb8.png out/redmask.png

    # A sampling area keeps every pixel outside the hole as it was, and a
    # grown hole is filled whole.
    expect "--exclude" 0 "" fill in/rgb8.png in/mask.png out/exclude.png --exclude \
        in/mask-empty.png --quiet &&
        check "--exclude keeps the pixels outside the hole" \
            "$probe" check-fill in/rgb8.png in/mask.png out/exclude.png
    expect "--sample --grow" 0 "" fill in/rgb8.png in/mask.png out/grow.png --sample \
        in/mask-all.png --grow 3 --quiet
    expect "--no-texture --no-mirror --no-rows" 0 "" fill in/rgb8.png in/mask.png \
        out/plain.png --no-texture --no-mirror --no-rows --quiet &&
        check "--no-texture keeps the pixels outside the hole" \
            "$probe" check-fill in/rgb8.png in/mask.png out/plain.png

    # The side-by-side picture: input with the hole tinted, gap, result.
    expect "--compare" 0 "" fill in/gray16.png in/mask.png out/c.png --compare out/c-compare.png &&
        check_info "--compare" out/c-compare.png "PNG 132x48 8-bit RGB" &&
        holds "--compare is reported" log/stdout "^wrote out/c-compare.png"
    ;;

bad_input)
    # Every failure family with its exit status: STATUS|TEXT|ARGUMENTS. (The
    # kit's tests pin the checks behind them; these pin the doors.)
    while IFS='|' read -r status text args; do
        expect_refusal "$text" "$status" "$text" $args
    done <<'EOF'
3|cannot open 'in/nope.png': No such file or directory|fill in/nope.png in/mask.png out/x.png
3|cannot read 'in': Is a directory|fill in in/mask.png out/x.png
3|'in/not-an-image.png' is not a PNG, JPEG or TIFF file|fill in/not-an-image.png in/mask.png out/x.png
3|'in/empty.png' is empty|fill in/empty.png in/mask.png out/x.png
3|cannot read 'in/truncated.png' as PNG: |fill in/truncated.png in/mask.png out/x.png
3|cannot read 'in/truncated.tif' as TIFF: Cannot read TIFF header|fill in/truncated.tif in/mask.png out/x.png
3|32-bit integer samples are not supported|fill in/gray32s.tif in/mask.png out/x.png
3|the mask 'in/mask-small.png' is 60x40 but the image 'in/rgb8.png' is 64x48|fill in/rgb8.png in/mask-small.png out/x.png
3|is 70000x2 pixels; Weftmap works on pictures of at most|retarget in/wide.png out/x.png --scale 0.5
4|the hole is too large|fill in/rgb8.png in/mask-all.png out/x.png
5|the memory limit of 20480 bytes is too small|fill in/rgb8.png in/mask.png out/x.png --memory-limit 20K
2|the recomposer option -coarse_size needs a whole number from 1 to 1000, got '0'|fill in/rgb8.png in/mask.png out/x.png --set -coarse_size=0
2|mode default votes both ways|fill in/rgb8.png in/mask.png out/x.png --mode default --comparator gain-bias
2|is too far from the picture's 64x48|retarget in/rgb8.png out/x.png --scale 30
3|the mask 'in/mask-small.png' is 60x40 but the image is 64x48|fill in/rgb8.png in/mask.png out/x.png --sample in/mask-small.png
2|--sample and --exclude say the same thing two ways|fill in/rgb8.png in/mask.png out/x.png --sample in/mask.png --exclude in/mask.png
2|--grow needs a whole number from 0 to 1000|fill in/rgb8.png in/mask.png out/x.png --grow -1
2|takes no --sample, --exclude or --grow|fill in/rgb8.png in/mask.png out/x.png --tiled --grow 2
1|retarget needs at least 7 pixels per side|retarget in/rgb8.png out/x.png --width 5
6|cannot write 'out/no/x.png'|fill in/rgb8.png in/mask.png out/no/x.png
6|cannot write 'out/no/c.png'|fill in/rgb8.png in/mask.png out/x.png --compare out/no/c.png
2|--compare names the output|fill in/rgb8.png in/mask.png out/x.png --compare ./out/../out/x.png
2|unknown output type '.bmp'|fill in/rgb8.png in/mask.png out/x.bmp
2|unknown option '--frobnicate'|fill in/rgb8.png in/mask.png out/x.png --frobnicate
2|--mode must be hole-fill, default or tapestry|fill in/rgb8.png in/mask.png out/x.png --mode wild
2|--threads needs a whole number|fill in/rgb8.png in/mask.png out/x.png --threads 0
2|retarget needs --width W, --height H or --scale S|retarget in/rgb8.png out/x.png
3|the remove mask is 60x40 but the picture is 64x48|retarget in/rgb8.png out/x.png --width 50 --remove in/mask-small.png
2|unknown option '--remove' for 'fill'|fill in/rgb8.png in/mask.png out/x.png --remove in/mask.png
2|unknown command 'frobnicate'|frobnicate
EOF
    mkdir -p out/dir
    expect "output is a directory" 6 "cannot write 'out/dir': it is a directory" \
        fill in/rgb8.png in/mask.png out/dir

    # An empty mask: nothing to fill, the input is copied and the run succeeds.
    rm -rf out && mkdir out
    expect "empty mask" 0 "the mask 'in/mask-empty.png' marks no hole, nothing to fill" \
        fill in/rgb16.tif in/mask-empty.png out/copy.tif --compare out/compare.png &&
        check "an empty mask copies the input" "$probe" same in/rgb16.tif out/copy.tif &&
        check_info "an empty mask still gives the compare picture" out/compare.png \
            "PNG 132x48 8-bit RGB" &&
        verify "no temporary file is left" [ "$(files_left)" = "compare.png copy.tif " ]
    ;;

reading)
    # A 4-bit palette with transparency reads as its colours, the alpha that
    # tRNS makes dropped with a warning. (The kit's tests read tiles, planes
    # and interlacing.)
    check "palette-trns.png reads as its colours" "$probe" same in/palette-trns.png \
        in/palette-expected.png
    expect "fill a palette PNG with tRNS" 0 \
        "'in/palette-trns.png' has an alpha channel; it is ignored" \
        fill in/palette-trns.png in/mask.png out/palette.png --quiet &&
        check_info "fill a palette PNG with tRNS" out/palette.png "PNG 64x48 8-bit RGB"
    expect "fill a TIFF without resolution tags" 0 "" \
        fill in/rgb8-strips.tif in/mask.png out/strips.tif --quiet &&
        check "a TIFF without resolution tags is filled" \
            "$probe" check-fill in/rgb8-strips.tif in/mask.png out/strips.tif

    # Headers that claim gigabytes fail at once under the memory limit,
    # before anything of that size is allocated or decoded: the process
    # grows by less than twice the limit over what a run that reads nothing
    # holds (the sanitizers' runtime alone holds more than the limit). (A
    # fill checks the mask's size against them first, and fills what does
    # not fit in two passes; retargeting reads the whole picture.)
    with_peak_size "$tool" --version >/dev/null
    base=$(tail -n 1 log/rss)
    for bomb in bomb.png bomb.jpg; do
        runner=with_peak_size
        expect_refusal "$bomb under --memory-limit" 5 \
            "the memory limit of 67108864 bytes is too small" \
            retarget "in/$bomb" out/x.png --scale 0.5 --memory-limit 64M
        runner=
        grown=$(($(tail -n 1 log/rss) - base))
        verify "$bomb: grew by $grown KiB, less than twice the limit" [ "$grown" -lt $((2 * 65536)) ]
    done
    ;;

writing)
    # Write failures under a file-size limit, in every format: exit 6, the
    # older file as it was, no temporary file.
    for extension in png jpg tif; do
        rm -rf out && mkdir out
        echo "an older file" >"out/old.$extension"
        runner=with_file_limit
        expect "ulimit -f: .$extension" 6 "cannot write 'out/old.$extension': File too large" \
            fill in/big.png in/mask-empty-big.png "out/old.$extension" --quiet
        runner=
        verify "ulimit -f: the older .$extension file is intact, no temporary" \
            [ "$(cat "out/old.$extension")/$(files_left)" = "an older file/old.$extension " ]
    done

    # A full disk: a tiny file system, mounted in a mount namespace of the
    # test's own so that nothing outlives it.
    rm -rf out && mkdir -p out/small
    if unshare -m --propagation private mount -t tmpfs -o size=16k weftmap-test out/small \
        2>/dev/null; then
        for extension in png jpg tif; do
            unshare -m --propagation private bash -c '
                mount -t tmpfs -o size=16k weftmap-test out/small || exit 99
                echo "an older file" >"out/small/old.$2"
                "$1" fill in/big.png in/mask-empty-big.png "out/small/old.$2" --quiet \
                    </dev/null >log/stdout 2>log/stderr
                status=$?
                echo "$(cat "out/small/old.$2")/$(ls -A out/small | tr "\n" " ")" >log/small
                exit $status' bash "$tool" "$extension"
            verify "full disk: .$extension refused" [ $? -eq 6 ] &&
                holds "full disk: .$extension says why" log/stderr "No space left on device"
            verify "full disk: the older .$extension file is intact, no temporary" \
                [ "$(cat log/small)" = "an older file/old.$extension " ]
        done
    else
        echo "skip: cannot mount a small tmpfs here (needs root and mount namespaces)"
    fi

    # Outputs that exist and are no regular file are never replaced.
    rm -rf out && mkdir out
    mkfifo out/fifo
    expect "output to a FIFO" 6 "cannot write 'out/fifo': it is not a regular file" \
        fill in/rgb8.png in/mask.png out/fifo --quiet
    verify "the FIFO stays, no temporary" [ -p out/fifo -a "$(files_left)" = "fifo " ]
    # A device node of the test's own where it may make one, so that a fault
    # could never replace the machine's /dev/null; /dev/null itself only
    # where /dev is not writable.
    device=
    if mknod out/null c 1 3 2>/dev/null; then
        device=out/null
    elif [ ! -w /dev ]; then
        device=/dev/null
    else
        echo "skip: no device node to write to"
    fi
    if [ -n "$device" ]; then
        expect "output to a device" 6 "cannot write '$device': it is not a regular file" \
            fill in/rgb8.png in/mask.png "$device" --quiet
        verify "the device stays a device" [ -c "$device" ]
    fi

    # A final name of 250 bytes: the temporary name must fit beside it.
    long=$(printf 'n%.0s' $(seq 246)).png
    rm -rf out && mkdir out
    expect "a 250-byte output name" 0 "" fill in/rgb8.png in/mask.png "out/$long" --quiet &&
        verify "only the 250-byte file is left" [ "$(files_left)" = "$long " ]
    ;;

cancel)
    "$probe" make-large in/large.png in/large-mask.png 2000 || exit 1
    # Each signal, a moment after the run reports progress, unwinds it. A
    # run that does not stop is killed after a minute.
    while read -r signal expected; do
        interrupt "$signal" "filling: " 0.5 fill in/large.png in/large-mask.png out/large.png
        verify "SIG$signal: exit status $status, expected $expected" [ "$status" -eq "$expected" ]
        holds "SIG$signal: says it was cancelled" log/stderr "^weftmap: cancelled; no output written$"
        nothing_in "SIG$signal" out
    done <<'EOF'
INT 130
TERM 143
HUP 129
EOF

    # A search pass that alone would run for hours still notices Ctrl-C.
    rm -rf out && mkdir out
    "$tool" fill in/rgb8.png in/mask.png out/x.png --set -rs_iters=1e9 2>log/stderr >log/stdout &
    pid=$!
    sleep 1
    kill -INT "$pid"
    finish "$pid" 50
    verify "a long search pass stops within 5 s: exit status $status" [ "$status" -eq 130 ]
    nothing_in "a long search pass" out

    # A second signal ends the process at once, without unwinding: the
    # handler itself removes the temporary files. Ended by whichever of the
    # two came second.
    interrupt "HUP INT" "filling: " 0 fill in/large.png in/large-mask.png out/large.png \
        --compare out/compare.png
    verify "a second signal: exit status $status" [ "$status" -ge 129 -a "$status" -le 130 ]
    grep -q "cancelled; no output written" log/stderr &&
        fail "a second signal: the run unwound instead of ending at once" ||
        ok "a second signal ends the run at once"
    nothing_in "a second signal" out
    ;;

large)
    # Fills in two passes: forced by --tiled or taken by themselves when one
    # pass would not fit the memory limit. The working files live in TMPDIR
    # and must never be seen there, whatever happens to the run.
    export TMPDIR="$work/tmp"
    mkdir -p "$TMPDIR"
    "$probe" make-large in/big16.tif in/big-mask.png 600 rgb16 &&
        "$probe" make-large in/big8.png in/big-mask.png 600 || exit 1
    # One band, so that the check sees the same fill every time. Two passes
    # under 4M solve the whole hole at a quarter of the size first, so the
    # fine texture lands a little less exactly than in one pass (18 dB, not 20).
    for f in big16.tif big8.png; do
        expect "--tiled $f" 0 "" fill "in/$f" in/big-mask.png "out/$f" --tiled --memory-limit 4M --threads 1 &&
            holds "--tiled $f: reported as two passes" log/stdout \
                "^wrote out/$f (600x600, .*; two passes: the whole at [0-9x]*, then [0-9]* of [0-9]* tiles at full size)$" &&
            check_info "--tiled $f" "out/$f" "$("$probe" info "in/$f")" &&
            check "--tiled $f keeps the known pixels and fills the hole" \
                "$probe" check-fill "in/$f" in/big-mask.png "out/$f" --min-psnr 18
        nothing_in "--tiled $f" "$TMPDIR"
    done
    # Without --tiled, a limit that one pass would exceed chooses two passes.
    expect "two passes by themselves" 0 "" fill in/big8.png in/big-mask.png out/auto.png \
        --memory-limit 4M --compare out/compare.png &&
        holds "the route is told" log/stdout \
            "^filling in two passes: one pass over 600x600 pixels would need more than the memory limit of 4M$" &&
        holds "--compare is dropped with a warning" log/stderr "no side-by-side picture (--compare)" &&
        verify "no compare picture with two passes" [ ! -e out/compare.png ] &&
        check "two passes by themselves fill" "$probe" check-fill in/big8.png in/big-mask.png \
            out/auto.png --min-psnr 18
    expect_refusal "--tiled with --compare" 2 "cannot go with --tiled" \
        fill in/big8.png in/big-mask.png out/x.png --tiled --compare out/c.png
    expect_refusal "--tiled under too small a limit" 5 "the memory limit of 20480 bytes is too small" \
        fill in/big8.png in/big-mask.png out/x.png --tiled --memory-limit 20K
    nothing_in "failures" "$TMPDIR"

    # Ctrl-C while tiles are being filled; then two signals at once, which end
    # the process without unwinding: files without names vanish with it.
    "$probe" make-large in/cancel.png in/cancel-mask.png 2000 || exit 1
    for signals in INT "HUP INT"; do
        interrupt "$signals" "filling: [1-9]0%" 0 fill in/cancel.png in/cancel-mask.png \
            out/cancel.png --tiled --memory-limit 16M
        name="SIG${signals// /+SIG}"
        verify "$name: exit status $status" [ "$status" -ge 129 -a "$status" -le 130 ]
        nothing_in "$name" out
        nothing_in "$name" "$TMPDIR"
    done
    ;;

tapestry)
    # A pan over the sample photograph: 60 frames of 64x48, 4 pixels apart.
    photo=$here/../../data/samples/coffee.png
    mkdir -p in/pan
    "$probe" pan "$photo" in/pan 60 64 48 4 || exit 1
    # 61 half frames of 32 columns: 1952x72 in 6 tiles of 384 (one band, so
    # that runs repeat exactly).
    expect "tapestry of 60 frames" 0 "6 file(s) made now" tapestry in/pan out/whole --threads 1
    check_info "tapestry of 60 frames" out/whole/tapestry.png "PNG 1952x72 8-bit RGB"
    verify "one file per tile" [ "$(ls out/whole/tiles | wc -l)" -eq 6 ]
    holds "the description" out/whole/tapestry.json '"level_widths": \[1952\],'
    before=$(stat -c %Y.%N out/whole/tapestry.png out/whole/tiles/0-0-3.png)
    sleep 1
    expect "a finished run is not made again" 0 " 0 file(s) made now" tapestry in/pan out/whole \
        --threads 1
    verify "a finished run writes no tile and no picture" \
        [ "$(stat -c %Y.%N out/whole/tapestry.png out/whole/tiles/0-0-3.png)" = "$before" ]

    # Ctrl-C once two tiles are done: the run stops at once and keeps them;
    # run again, it makes only the missing tiles, and the picture is the
    # uninterrupted one.
    "$tool" tapestry in/pan out/stopped --threads 1 2>log/stderr >log/stdout &
    pid=$!
    for _ in $(seq 600); do
        [ "$(ls out/stopped/tiles 2>/dev/null | grep -c png)" -ge 2 ] && break
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.05
    done
    kill -INT "$pid"
    signalled=$(date +%s%N)
    wait "$pid"
    status=$?
    waited=$((($(date +%s%N) - signalled) / 1000000))
    verify "Ctrl-C: exit status $status" [ "$status" -eq 130 ]
    holds "Ctrl-C: says the tiles stay" log/stderr "cancelled; the finished tiles stay in 'out/stopped'"
    # A generous bound for slow builds; the tool answers within a fraction
    # of a second.
    verify "Ctrl-C answered in $waited ms" [ "$waited" -lt 5000 ]
    kept=$(ls out/stopped/tiles | grep -c png)
    verify "Ctrl-C kept $kept finished tiles" [ "$kept" -ge 2 -a "$kept" -lt 6 ]
    verify "Ctrl-C: no picture and no temporary file" \
        [ ! -e out/stopped/tapestry.png -a -z "$(ls -A out/stopped/tiles | grep '^\.')" ]
    expect "the run resumes" 0 " $((6 - kept)) file(s) made now" tapestry in/pan out/stopped \
        --threads 1
    check "resumed and uninterrupted pictures are the same" \
        "$probe" same out/whole/tapestry.png out/stopped/tapestry.png

    # Frames picked and scaled, index maps beside the tiles.
    expect "--frames --height --index-map" 0 "15 frames of 43x32" tapestry in/pan out/picked \
        --frames 0:30:2 --height 48 --index-map --tile-width 200
    check_info "--frames --height" out/picked/tapestry.png "PNG 344x48 8-bit RGB"
    verify "index map tiles" [ -e out/picked/tiles/index-0-1.png ]
    expect "other settings on a finished folder" 3 "holds a tapestry made with other settings" \
        tapestry in/pan out/picked --quiet
    mkdir -p in/empty
    expect_refusal "a folder without frames" 3 "holds no PNG, JPEG or TIFF frames" \
        tapestry in/empty out/none --quiet
    expect_refusal "a bad frame selection" 2 "--frames 5:5 selects no frame" \
        tapestry in/pan out/none --frames 5:5
    expect "a selection past the frames" 3 "picks no frame of 60" tapestry in/pan out/none2 \
        --frames 70: --quiet
    # A video without the decoder installed: how to get it.
    echo "not a video" >in/clip.mp4
    runner="env PATH=/nonexistent"
    expect "a video without ffmpeg" 3 "apt-get install ffmpeg" tapestry in/clip.mp4 out/none3 \
        --quiet
    runner=
    ;;

tapestry_video)
    if ! command -v ffmpeg >/dev/null; then
        echo "skip: ffmpeg is not installed (apt-get install ffmpeg)"
        echo "0 passed, 0 failed, 1 skipped"
        exit 0
    fi
    photo=$here/../../data/samples/coffee.png
    mkdir -p in/pan
    "$probe" pan "$photo" in/pan 40 64 48 4 || exit 1
    # One file holding the same frames one after another gives the same
    # tapestry as the folder, whole and selected.
    cat in/pan/frame_*.png >in/pan.frames || exit 1
    expect "tapestry of one file of frames" 0 "40 frames of 64x48" tapestry in/pan.frames \
        out/stream --threads 1
    expect "tapestry of the folder" 0 "" tapestry in/pan out/folder --threads 1 --quiet
    check "one file and the folder give one picture" \
        "$probe" same out/stream/tapestry.png out/folder/tapestry.png
    expect "a selection of the file" 0 "" tapestry in/pan.frames out/stream-picked \
        --frames 3:30:3 --threads 1 --quiet
    expect "the same selection of the folder" 0 "" tapestry in/pan out/folder-picked \
        --frames 3:30:3 --threads 1 --quiet
    check "file and folder, selected, give one picture" \
        "$probe" same out/stream-picked/tapestry.png out/folder-picked/tapestry.png
    echo "not a video" >in/clip.mp4
    expect "not a video" 3 "ffmpeg cannot read 'in/clip.mp4'" tapestry in/clip.mp4 out/none \
        --quiet
    ;;

tapestry_viewer)
    browser=$("$here/../../scripts/install-chromium" 2>log/install) || {
        echo "skip: no chromium and it cannot be installed here ($(tail -1 log/install))"
        echo "0 passed, 0 failed, 1 skipped"
        exit 0
    }
    # Frames tinted apart from their neighbours, two levels with three
    # in-betweens, and index maps.
    mkdir -p in/tinted
    "$probe" tinted in/tinted 24 64 48 || exit 1
    expect "a tapestry of two levels" 0 "2 level(s)" tapestry in/tinted out/v --levels 2 \
        --inbetweens 3 --index-map --tile-width 128 --threads 1
    for f in index.html tapestry.js tapestry.json tiles/0-3-0.png tiles/1-0-0.png \
        tiles/animated-1-0 tapestry-level-1.png; do
        verify "made $f" [ -e "out/v/$f" ]
    done
    # Headless, offline, with a profile of its own, removed afterwards.
    browse() {
        local profile status
        profile=$(mktemp -d "$work/profile.XXXXXX")
        timeout 120 "$browser" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
            --disable-background-networking --disable-component-update --disable-sync \
            --user-data-dir="$profile" --virtual-time-budget=30000 "$@" 2>>log/browser
        status=$?
        rm -rf "$profile"
        return $status
    }
    checker=$here/check_viewer.py
    # Frame 6 lies in the upper row at columns 192 to 255 of level 0; rows
    # are 36 high.
    page="file://$work/out/v/index.html"
    browse --dump-dom "$page?selftest=224,18" >log/dom-file.html
    check "viewer from disk: levels, in-betweens, frame from the layout" \
        python3 "$checker" log/dom-file.html 2 3 6 "frame layout"
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    (cd out/v && exec python3 -m http.server --bind 127.0.0.1 "$port" >/dev/null 2>&1) &
    server=$!
    for _ in $(seq 100); do
        python3 -c "import urllib.request; urllib.request.urlopen('http://127.0.0.1:$port/')" \
            2>/dev/null && break
        sleep 0.1
    done
    browse --dump-dom "http://127.0.0.1:$port/index.html?selftest=224,18" >log/dom-http.html
    kill "$server"
    wait "$server" 2>/dev/null
    # Served, it reads the index map: whichever frame the synthesis took there.
    mapped=$("$probe" index-at out/v/tiles/index-0-1.png 96 18)
    check "viewer served: frame $mapped from the index map" \
        python3 "$checker" log/dom-http.html 2 3 "$mapped" "index map"
    browse --screenshot="$work/viewer.png" --window-size=1100,360 "$page" >/dev/null
    verify "a screenshot of the viewer: $work/viewer.png" [ -s "$work/viewer.png" ]
    ;;

*)
    echo "unknown group '$group'"
    exit 2
    ;;
esac

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
