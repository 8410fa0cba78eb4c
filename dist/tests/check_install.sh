#!/usr/bin/env bash
# Checks of an installed ostrel and Karu, made as a user meets them: the
# program run from the installation on the installed examples, the manual
# rendered, the completions asked as the shells ask them, a consumer project
# built against the installed library by CMake and by pkg-config alone, and
# the Debian packages built, listed, unpacked, installed and removed.
#
# usage: check_install.sh <check>; CTest runs each check as one test (see
# CMakeLists.txt), with these in the environment:
#   KARU_BUILD, KARU_SOURCE      the build tree and the sources
#   KARU_PREFIX                  the installation (made by the check "prefix")
#   KARU_SCRATCH                 this check's own scratch directory
#   KARU_VERSION                 the project's version
#   KARU_BINDIR, KARU_LIBDIR, KARU_INCLUDEDIR, KARU_DATADIR, KARU_MANDIR,
#   KARU_DOCDIR                  the installation's directories, relative
#   KARU_CXX, KARU_CXXFLAGS, KARU_LDFLAGS  the build's compiler and its flags
#                                (the sanitizer build's flags reach the
#                                consumer builds this way; empty otherwise)
# Exit status 77 skips a check that this machine cannot make.
set -euo pipefail

check=$1
rm -rf "$KARU_SCRATCH"
mkdir -p "$KARU_SCRATCH"
cd "$KARU_SCRATCH"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Every program started here has a deadline, so that a hang fails the check.
deadline() {
    local seconds=$1
    shift
    timeout -k 5 "$seconds" "$@"
}

# Fails unless the two texts are equal, showing both.
expect_same() {
    local what=$1 expected=$2 actual=$3
    [[ $expected == "$actual" ]] && return
    printf 'FAIL: %s\n  expected: %s\n  actual:   %s\n' "$what" "$expected" "$actual" >&2
    exit 1
}

# What the example pairs make of the Latin-1 example, in UTF-8, worked out
# independently of the program: each pair replaces its find everywhere, in
# file order, ${NAME} taken from the environment.
example_model() {
    python3 - "$1" <<'EOF'
import os, re, sys
examples = sys.argv[1]
text = open(examples + "/latin1.txt", encoding="latin-1").read()
for line in open(examples + "/pairs.txt", encoding="utf-8"):
    line = line.strip()
    if line:
        find, replace = line.split("->")[:2]
        replace = re.sub(r"\$\{(\w+)\}", lambda m: os.environ.get(m.group(1), m.group(0)), replace)
        text = text.replace(find, replace)
sys.stdout.write(text)
EOF
}

# The installed program on the installed examples, from elsewhere, both to
# standard output and in place on a copy, against the model.
run_example() {
    local program=$1 examples=$2 expected
    expected=$(example_model "$examples"; echo .)
    local args=(-f "-argfile:$examples/pairs.txt" -encarg:UTF-8 -encin:ISO-8859-1 -encout:UTF-8)
    expect_same "$program on the example, to standard output" "$expected" \
        "$(deadline 20 "$program" "$examples/latin1.txt" "${args[@]}" -stdout; echo .)"
    cp "$examples/latin1.txt" copy.txt
    deadline 20 "$program" copy.txt "${args[@]}" >/dev/null
    expect_same "$program on a copy of the example, in place" "$expected" "$(cat copy.txt; echo .)"
}

# The switches the program has: those its usage text lists, and the two that
# show it. Each as "-name", with ":" behind the ones that take a value.
expected_switches() {
    { deadline 20 "$KARU_PREFIX/$KARU_BINDIR/ostrel" -h | sed -n 's/^  -\([a-z][a-z]*\).*/\1/p'; printf '%s\n' h '?'; } |
        sed -E 's/^(argfile|dlm|encin|encout|encarg)$/\1:/; s/^/-/' | sort -u
}

# Rows of "command line => words", with the words of each row sorted, so
# that rows compare whatever order a shell offers the words in.
sorted_rows() {
    local row
    while IFS= read -r row; do
        printf '%s=>%s\n' "${row%%=>*}" "$(tr ' ' '\n' <<<"${row#*=>}" | sed '/^$/d; s/^/ /' | sort | tr -d '\n')"
    done
}

# A stand-in for the program whose listing holds names of its own: the
# completions must offer what the program being completed lists.
make_fake_program() {
    mkdir -p fake
    cat >fake/ostrel <<'EOF'
#!/bin/sh
printf '\nName                Codepage   Description\n'
printf '===============================================================================\n'
printf 'ZZ-FIRST            CP1        first\nZZ-SECOND-WITH-A-LONG-NAME\n                    CP2        second\n'
EOF
    chmod +x fake/ostrel
    mkdir pdir
    touch pairs.txt notes.txt
    # A name that "-?" would match as a file pattern.
    touch ./-q
}

case $check in
prefix)
    rm -rf "$KARU_PREFIX"
    deadline 100 cmake --install "$KARU_BUILD" --prefix "$KARU_PREFIX" >/dev/null
    ;;

tree)
    # What the installation must hold: kind (x program, f file) and path.
    while read -r kind path; do
        [[ -f $KARU_PREFIX/$path ]] || fail "$path is not installed"
        [[ $kind != x || -x $KARU_PREFIX/$path ]] || fail "$path is not executable"
    done <<EOF
x $KARU_BINDIR/ostrel
f $KARU_MANDIR/man1/ostrel.1
f $KARU_DATADIR/bash-completion/completions/ostrel
f $KARU_DATADIR/zsh/site-functions/_ostrel
f $KARU_LIBDIR/libkaru.a
f $KARU_LIBDIR/cmake/Karu/KaruConfig.cmake
f $KARU_LIBDIR/cmake/Karu/KaruConfigVersion.cmake
f $KARU_LIBDIR/cmake/Karu/KaruTargets.cmake
f $KARU_LIBDIR/pkgconfig/karu.pc
f $KARU_DOCDIR/README.md
f $KARU_DOCDIR/examples/pairs.txt
f $KARU_DOCDIR/examples/consumer/CMakeLists.txt
EOF
    # Every public header, and nothing else.
    diff -r "$KARU_SOURCE/lib/utilitis/include/karu" "$KARU_PREFIX/$KARU_INCLUDEDIR/karu" ||
        fail "the installed headers differ from the public headers"
    HOME=/home/someone LC_ALL=C.UTF-8 run_example "$KARU_PREFIX/$KARU_BINDIR/ostrel" "$KARU_PREFIX/$KARU_DOCDIR/examples"
    ;;

manual)
    page=$KARU_PREFIX/$KARU_MANDIR/man1/ostrel.1
    warnings=$(deadline 20 groff -man -ww -z "$page" 2>&1) || fail "groff failed on $page: $warnings"
    expect_same "groff's warnings on the manual" "" "$warnings"
    expect_same "the manual's version" "ostrel $KARU_VERSION" "$(sed -n 's/^\.TH [^"]*"[^"]*" "\([^"]*\)".*/\1/p' "$page")"
    # Each switch is an item of the page (".B \-name", ".BI \-name: value",
    # ".BR \-h ", " \-?"), and every item is a switch the program has.
    documented=$(sed -n '/^\.TP$/{n;p}' "$page" | grep -o '\\-[a-z?]*:\?' | sed 's/^\\//' | sort -u)
    expect_same "switches in the manual" "$(expected_switches)" "$documented"
    ;;

bash_completion)
    helpers=/usr/share/bash-completion/bash_completion
    [[ -f $helpers ]] || fail "$helpers is missing: install the Debian package bash-completion"
    make_fake_program
    # Each row: the command line before the cursor, "=>", and the words
    # offered. The completion is found as bash-completion finds
    # it, through the installation's share directory.
    rows=$(cat <<EOF
ostrel -enc => -encin: -encout: -encarg:
ostrel -encin => -encin: +nospace
ostrel -encin:GB => GB18030 GB2312 GBK
ostrel -ENCARG=utf-1 => UTF-16 UTF-16BE UTF-16LE
ostrel -encout:BIG5-HKSCS:2 => 2001 2004
$PWD/fake/ostrel -encin:zz => ZZ-FIRST ZZ-SECOND-WITH-A-LONG-NAME
ostrel -argfile:pa => pairs.txt +filenames
ostrel -argfile=pd => pdir +filenames
ostrel -f -argfile:pairs.txt no => notes.txt +filenames
ostrel -f -st => -stdio -stdout
ostrel -FI => -fic
ostrel -dlm: =>
ostrel - => $(expected_switches | tr '\n' ' ' | sed 's/ $//')
EOF
)
    # shellcheck disable=SC2016
    actual=$(PATH="$KARU_PREFIX/$KARU_BINDIR:$PATH" XDG_DATA_DIRS="$KARU_PREFIX/$KARU_DATADIR" \
        deadline 50 bash --norc --noprofile -c '
        source "$1"
        _completion_loader ostrel
        complete -p ostrel >/dev/null || exit 1
        # Words as readline cuts them: at blanks, with ":" and "=" as words
        # of their own.
        while IFS= read -r row; do
            line=${row%% =>*}
            words=() word=
            for ((i = 0; i < ${#line}; i++)); do
                c=${line:i:1}
                if [[ $c == " " ]]; then
                    words+=("$word") word=
                elif [[ $c == [:=] ]]; then
                    [[ $word ]] && words+=("$word")
                    words+=("$c") word=
                else
                    word+=$c
                fi
            done
            words+=("$word")
            COMP_WORDS=("${words[@]}") COMP_CWORD=$((${#words[@]} - 1))
            COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
            # The options the completion sets are shown as words "+option".
            options=()
            compopt() { [[ $1 == -o ]] && options+=("+$2"); }
            _ostrel ostrel "${words[-1]}" "${words[-2]}"
            echo "$line => ${COMPREPLY[*]} ${options[*]}"
        done <<<"$2"' bash "$helpers" "$rows" 2>&1)
    expect_same "bash completions" "$(sorted_rows <<<"$rows")" "$(sorted_rows <<<"$actual")"
    ;;

zsh_completion)
    if ! command -v zsh >/dev/null; then
        echo "zsh is not installed: its completion is not run here"
        exit 77
    fi
    make_fake_program
    # As for bash; zsh offers whole encoding names, and a match that takes
    # no blank behind it is marked "+nospace".
    rows=$(cat <<EOF
ostrel -enc => -encarg:+nospace -encin:+nospace -encout:+nospace
ostrel -encin:GB => GB18030 GB2312 GBK
ostrel -ENCARG=utf-1 => UTF-16 UTF-16BE UTF-16LE
ostrel -encout:BIG5-HKSCS:2 => BIG5-HKSCS:2001 BIG5-HKSCS:2004
$PWD/fake/ostrel -encin:zz => ZZ-FIRST ZZ-SECOND-WITH-A-LONG-NAME
ostrel -argfile:pa => pairs.txt
ostrel -f -argfile:pairs.txt no => notes.txt
ostrel -f -st => -stdio -stdout
ostrel -FI => -fic
ostrel - => $(expected_switches | sed 's/:$/:+nospace/' | tr '\n' ' ' | sed 's/ $//')
EOF
)
    lines=()
    while IFS= read -r row; do lines+=("${row%% =>*}"); done <<<"$rows"
    output=$(deadline 100 zsh -f "$KARU_SOURCE/dist/tests/zsh_completion.zsh" \
        "$KARU_PREFIX" "$PWD" "${lines[@]}") || fail "zsh: $output"
    actual=$(awk '/^line: / { if (n) print row; row = substr($0, 7) " =>"; n = 1 }
                  /^match: / { row = row " " substr($0, 8) }
                  END { if (n) print row }' <<<"$output")
    expect_same "zsh completions" "$(sorted_rows <<<"$rows")" "$(sorted_rows <<<"$actual")"
    ;;

cmake_consumer)
    deadline 120 cmake -S "$KARU_SOURCE/examples/consumer" -B build -G Ninja \
        -DCMAKE_PREFIX_PATH="$KARU_PREFIX" -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON \
        -DCMAKE_CXX_COMPILER="$KARU_CXX" -DCMAKE_CXX_FLAGS="$KARU_CXXFLAGS" \
        -DCMAKE_EXE_LINKER_FLAGS="$KARU_LDFLAGS" >configure.log || fail "configure: $(cat configure.log)"
    expect_same "the package found" "$KARU_PREFIX/$KARU_LIBDIR/cmake/Karu" \
        "$(sed -n 's/^Karu_DIR:PATH=//p' build/CMakeCache.txt)"
    deadline 300 cmake --build build >build.log || fail "build: $(cat build.log)"
    expect_same "the consumer's output" "world 你好" "$(deadline 20 build/consumer)"
    nm build/consumer | grep ' karu_error_handler_anchor$' >/dev/null || fail "the error handler is not linked in"

    # The version file: another major version is refused, any 1.x accepted.
    mkdir versions
    cat >versions/CMakeLists.txt <<EOF
cmake_minimum_required(VERSION 3.25)
project(versions CXX)
foreach(wanted 2.0 1.0 $KARU_VERSION)
  find_package(Karu \${wanted} QUIET)
  message("Karu \${wanted}: found=\${Karu_FOUND}")
endforeach()
EOF
    deadline 120 cmake -S versions -B versions/build -DCMAKE_PREFIX_PATH="$KARU_PREFIX" \
        -DCMAKE_CXX_COMPILER="$KARU_CXX" >versions.log 2>&1 || fail "configure: $(cat versions.log)"
    expect_same "find_package(Karu <version>)" "Karu 2.0: found=0,Karu 1.0: found=1,Karu $KARU_VERSION: found=1" \
        "$(grep '^Karu .*: found=' versions.log | sed 's/=$/=0/' | paste -sd,)"
    ;;

pkgconfig_consumer)
    export PKG_CONFIG_PATH=$KARU_PREFIX/$KARU_LIBDIR/pkgconfig
    expect_same "pkg-config's version" "$KARU_VERSION" "$(pkg-config --modversion karu)"
    flags=$(pkg-config --cflags --libs --static karu)
    # The paths are found from the .pc file's place, so they lead into this
    # installation, wherever it was put.
    include=$(pkg-config --variable=includedir karu)
    [[ $(realpath "$include") == "$(realpath "$KARU_PREFIX/$KARU_INCLUDEDIR")" ]] ||
        fail "includedir $include is not the installation's"
    # The consumer from nothing but these flags (and the build's sanitizer
    # flags, if any); the headers must not warn.
    # shellcheck disable=SC2086
    deadline 240 "$KARU_CXX" $KARU_CXXFLAGS -Wall -Wextra -Werror "$KARU_SOURCE/examples/consumer/main.cpp" \
        -o consumer $flags >build.log 2>&1 || fail "c++ ... $flags: $(cat build.log)"
    expect_same "the consumer's output" "world 你好" "$(deadline 20 ./consumer)"
    nm consumer | grep ' karu_error_handler_anchor$' >/dev/null || fail "the error handler is not linked in"
    ;;

deb)
    deadline 240 cpack -G DEB --config "$KARU_BUILD/CPackConfig.cmake" -B packages >cpack.log ||
        fail "cpack: $(cat cpack.log)"
    arch=$(dpkg --print-architecture)
    tool=packages/ostrel_${KARU_VERSION}_$arch.deb
    dev=packages/libkaru-dev_${KARU_VERSION}_$arch.deb
    [[ -f $tool && -f $dev ]] || fail "expected $tool and $dev: $(ls packages)"

    # What each package holds.
    while read -r package path; do
        dpkg-deb -c "$package" | grep " \./usr/$path\$" >/dev/null || fail "$package lacks /usr/$path"
    done <<EOF
$tool bin/ostrel
$tool share/man/man1/ostrel.1.gz
$tool share/bash-completion/completions/ostrel
$tool share/zsh/vendor-completions/_ostrel
$tool share/doc/ostrel/README.md
$tool share/doc/ostrel/examples/latin1.txt
$dev include/karu/string/stringEx.h
$dev lib/libkaru.a
$dev lib/cmake/Karu/KaruConfig.cmake
$dev lib/pkgconfig/karu.pc
EOF
    ! dpkg-deb -c "$tool" | grep 'include/karu' >/dev/null || fail "$tool holds the headers"
    ! dpkg-deb -c "$dev" | grep 'bin/ostrel' >/dev/null || fail "$dev holds the program"

    # ICU is loaded at run time, when present: recommended, not required.
    depends=$(dpkg-deb -f "$tool" Depends)
    recommends=$(dpkg-deb -f "$tool" Recommends)
    [[ $depends == *libc6* && $depends == *libstdc++* ]] || fail "Depends: $depends"
    [[ $depends != *icu* ]] || fail "ICU in Depends: $depends"
    [[ $recommends == *libicu* ]] || fail "Recommends: $recommends"
    # Both are real packages, in versions this machine has.
    mkdir -p deps/debian && touch deps/debian/control
    (cd deps && dpkg-checkbuilddeps -d "$depends, $recommends") || fail "unmet: $depends, $recommends"

    deadline 60 dpkg -x "$tool" unpacked
    LC_ALL=C.UTF-8 HOME=/home/someone run_example unpacked/usr/bin/ostrel unpacked/usr/share/doc/ostrel/examples

    # Installed into a scratch root and removed again, by dpkg itself. The
    # root has no libc package, so dependencies are not asked for there.
    root=$PWD/root
    mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
    touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
    # dpkg looks for its helpers (ldconfig, ...) on PATH, where an ordinary
    # user's may lack them.
    export PATH=$PATH:/usr/sbin:/sbin
    dpkg_root=(deadline 120 dpkg --root="$root" --log=/dev/null --force-not-root --force-depends)
    "${dpkg_root[@]}" -i "$tool" "$dev" >dpkg.log 2>&1 || fail "dpkg -i: $(cat dpkg.log)"
    for package in ostrel libkaru-dev; do
        status=$(dpkg-query --root="$root" -W -f '${db:Status-Status}' "$package")
        expect_same "$package installed" installed "$status"
    done
    dpkg-query --root="$root" -L ostrel | grep -x /usr/bin/ostrel >/dev/null || fail "dpkg does not list /usr/bin/ostrel"
    # (The examples of the unpacked package: dpkg may be set to leave documents
    # out of what it installs.)
    LC_ALL=C.UTF-8 HOME=/home/someone run_example "$root/usr/bin/ostrel" unpacked/usr/share/doc/ostrel/examples
    "${dpkg_root[@]}" --purge ostrel libkaru-dev >>dpkg.log 2>&1 || fail "dpkg --purge: $(cat dpkg.log)"
    left=$(cd "$root" && find . -mindepth 1 -not -path './var' -not -path './var/lib' -not -path './var/lib/dpkg*')
    expect_same "what removal leaves" "" "$left"
    ;;

*)
    fail "unknown check $check"
    ;;
esac
