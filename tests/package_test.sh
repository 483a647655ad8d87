#!/usr/bin/env bash
# What an administrator gets from an install: `cmake --install` into a prefix; the Debian package
# that cpack makes, unpacked into a scratch root, its programs run there against its home and its
# daemon, and checked by lintian; the README's first session pasted line by line against that
# root, by the superuser and by an ordinary user; the bash completion offered for made-up
# command lines.
#
#   package_test.sh BUILD_DIR SOURCE_DIR
#
# Exit status 0 when every check holds, 1 when one fails, 77 (skipped) when a packaging tool is
# missing (scripts/setup-deps installs them).
set -uo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
for tool in cpack dpkg-deb lintian; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is missing; scripts/setup-deps installs it"
    exit 77
  fi
done

work=$(mktemp -d /tmp/vyn_package_test_XXXXXX)
chmod 0755 "$work" # an ordinary user runs the unpacked programs too
daemon=""
stop_daemon() {
  if [ -n "$daemon" ]; then
    kill "$daemon" 2>/dev/null
    wait "$daemon" 2>/dev/null
    daemon=""
  fi
}
trap 'stop_daemon; rm -rf "$work"' EXIT
trap 'exit 1' INT TERM # a timeout's signal still stops the daemon and cleans up

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
section() { echo "== $*"; }

# The shipped home, as the sources describe it: every directory and file, nothing else.
expected_home() {
  {
    for d in bin vyn vyn/template vyn/profile vyn/script vyn/public vyn/log vyn/init vyn/mesg log log/evm; do
      echo "./$d"
    done
    for f in "$src"/home/template/*.tdf; do echo "./vyn/template/${f##*/}"; done
    for f in "$src"/home/bin/*; do echo "./bin/${f##*/}"; done
    for f in "$src"/home/mesg/*.msg; do
      lang=${f##*/}
      lang=${lang%.msg}
      echo "./vyn/mesg/$lang"
      echo "./vyn/mesg/$lang/vyn.cat"
    done
  } | sort
}

check_home() { # where, home directory
  local listing
  listing=$(cd "$2" && find . -mindepth 1 | sort)
  if [ "$listing" != "$(expected_home)" ]; then
    fail "$1: the home holds other files than the shipped ones"
    diff <(expected_home) <(echo "$listing")
  fi
  [ "$(stat -c %a "$2/vyn/public")" = 1777 ] || fail "$1: vyn/public is $(stat -c %a "$2/vyn/public"), not 1777"
  [ -x "$2/bin/vyntmpl.scr" ] || fail "$1: the script template is not executable"
}

section "cmake --install puts the programs, man pages and completion below the prefix, and a clean home"
prefix=$work/prefix
if cmake --install "$build" --prefix "$prefix" >"$work/install.out" 2>&1; then
  for p in vyn_profile vyn_vrg vyn_evmd; do
    [ -x "$prefix/bin/$p" ] || fail "cmake --install: no $p in bin/"
  done
  check_home "cmake --install" "$prefix/share/vyn/home"
  [ -f "$prefix/share/man/man1/vyn_profile.1.gz" ] || fail "cmake --install: no man page of vyn_profile"
  [ -f "$prefix/share/man/man8/vyn_evmd.8.gz" ] || fail "cmake --install: no man page of vyn_evmd"
  [ -f "$prefix/share/bash-completion/completions/vyn_profile" ] || fail "cmake --install: no completion"
  [ ! -e "$prefix/etc" ] && [ ! -e "$prefix/lib/systemd" ] || fail "cmake --install: the package's own files came too"
  if ! ZEL_VYN_HOME=$prefix/share/vyn/home VYN_REGISTRY=$work/none.db \
    "$prefix/bin/vyn_profile" -template -t application -O "$work/installed.cap" >/dev/null 2>&1 ||
    ! grep -qx 'TYPE=application' "$work/installed.cap"; then
    fail "cmake --install: vyn_profile cannot write a template from the installed home"
  fi
else
  cat "$work/install.out"
  fail "cmake --install failed"
fi

section "cpack makes a .deb with the programs, the home at /var/lib/vyn/home, login settings and the service"
if (cd "$work" && cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/cpack") >"$work/cpack.out" 2>&1; then
  deb=$(ls "$work"/cpack/vyn_*.deb)
else
  cat "$work/cpack.out"
  fail "cpack -G DEB failed"
  exit 1
fi
root=$work/root
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$work/control"
home=$root/var/lib/vyn/home
check_home "the package" "$home"
programs=()
for p in "$root"/usr/bin/*; do programs+=("${p##*/}"); done
for p in vyn_profile vyn_vrg vyn_evmd; do
  [ -x "$root/usr/bin/$p" ] || fail "the package has no /usr/bin/$p"
done
for p in "${programs[@]}"; do
  pages=("$root"/usr/share/man/man[18]/"$p".[18].gz)
  [ -f "${pages[0]}" ] || fail "the package has no man page for $p"
done
[ -f "$root/usr/share/bash-completion/completions/vyn_profile" ] || fail "the package has no completion"
[ "$(cat "$work/control/conffiles")" = /etc/profile.d/vyn.sh ] || fail "the login settings are not a conffile"
unit=$root/lib/systemd/system/vyn_evmd.service
for line in 'ExecStart=/usr/bin/vyn_evmd $VYN_EVMD_OPTS' 'RuntimeDirectory=vyn' \
  'Environment=ZEL_VYN_HOME=/var/lib/vyn/home VYN_IPC_DIR=/run/vyn' 'WantedBy=multi-user.target'; do
  grep -qxF "$line" "$unit" || fail "the service unit lacks: $line"
done
# systemd's own check of the unit, with the program where the unpacked root has it; the page of its
# Documentation= line is not installed here, which is the one complaint allowed.
if command -v systemd-analyze >/dev/null; then
  mkdir -p "$work/unit"
  sed "s|/usr/bin/vyn_evmd|$root/usr/bin/vyn_evmd|" "$unit" >"$work/unit/vyn_evmd.service"
  complaints=$(systemd-analyze verify "$work/unit/vyn_evmd.service" 2>&1 | grep -v "Command 'man vyn_evmd(8)' failed")
  [ -z "$complaints" ] || fail "systemd-analyze verify: $complaints"
fi
got=$(env -u ZEL_VYN_HOME -u VYN_IPC_DIR sh -c ". '$root/etc/profile.d/vyn.sh'; echo \$ZEL_VYN_HOME \$VYN_IPC_DIR")
[ "$got" = "/var/lib/vyn/home /run/vyn" ] || fail "login settings give '$got'"
got=$(ZEL_VYN_HOME=/srv/h VYN_IPC_DIR=/srv/ipc sh -c ". '$root/etc/profile.d/vyn.sh'; echo \$ZEL_VYN_HOME \$VYN_IPC_DIR")
[ "$got" = "/srv/h /srv/ipc" ] || fail "login settings replace the user's own values: '$got'"
for s in postinst prerm postrm; do
  sh -n "$work/control/$s" || fail "the maintainer script $s is not valid sh"
done
if command -v man >/dev/null; then
  for page in "$root"/usr/share/man/man*/*.gz; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "man -l ${page##*/}: $warnings"
  done
fi

section "lintian reports no errors"
if ! lintian --fail-on error "$deb" >"$work/lintian.out" 2>&1; then
  cat "$work/lintian.out"
  fail "lintian found errors"
fi

section "the unpacked daemon takes the events of the unpacked command"
export ZEL_VYN_HOME=$home VYN_IPC_DIR=$work/ipc VYN_REGISTRY=$work/registry.db LANG=C
export PATH=$root/usr/bin:$PATH
vyn_evmd >"$work/evmd.out" 2>&1 &
daemon=$!
for _ in $(seq 100); do
  [ -S "$VYN_IPC_DIR/SYSTEM.evm.acceptor.auth" ] && break
  sleep 0.1
done
[ -S "$VYN_IPC_DIR/SYSTEM.evm.acceptor.auth" ] || fail "the unpacked vyn_evmd does not listen: $(cat "$work/evmd.out")"

# The README's first session, line by line, as it would be pasted: each line succeeds and, with
# the daemon up and the home writable, says nothing on standard error.
session=$(awk '/^## First session/ { s = 1 } s && /^```sh/ { b = 1; next } b && /^```/ { exit } b' "$src/README.md")
[ -n "$session" ] || fail "the README has no first session"
paste_session() { # user to run as (empty: this one), scratch directory
  local run=() line
  [ -n "$1" ] && run=(setpriv --reuid="$1" --regid="$(id -g "$1")" --clear-groups)
  mkdir -p "$2"
  chmod 0777 "$2"
  while IFS= read -r line; do
    if ! (cd "$2" && "${run[@]}" bash -c "$line") >"$work/line.out" 2>"$work/line.err"; then
      fail "README line (${1:-$(id -un)}): $line"
      cat "$work/line.out" "$work/line.err"
    elif [ -z "$1" ] && [ -s "$work/line.err" ]; then
      fail "README line (${1:-$(id -un)}) wrote to standard error: $line"
      cat "$work/line.err"
    fi
  done <<<"$session"
}
before=$(stat -c %s "$home/log/evm/events.log" 2>/dev/null || echo 0)
paste_session "" "$work/scratch"
after=$(stat -c %s "$home/log/evm/events.log" 2>/dev/null || echo 0)
[ "$after" -gt "$before" ] || fail "the session's update and delete left no event in the log"
# An ordinary user keeps profiles in the home's public directory, which the package lets them write.
if [ "$(id -u)" = 0 ] && command -v setpriv >/dev/null && id nobody >/dev/null 2>&1; then
  paste_session nobody "$work/scratch-nobody"
  [ "$(stat -c %U "$home/vyn/public/web.scr" 2>/dev/null)" = nobody ] ||
    fail "the ordinary user's action script is not in vyn/public: $(ls -l "$home/vyn/public")"
  [ ! -e "$home/vyn/public/web.cap" ] || fail "the ordinary user's delete left the profile"
fi
stop_daemon

section "the completion offers operations, types, a type's switches and profile names"
profiles=$work/profiles
mkdir -p "$profiles"
printf 'NAME=web\nTYPE=application\n' >"$profiles/web.cap"
printf 'NAME=t1\nTYPE=tape\n' >"$profiles/t1.cap"
# A type added to the home completes like the shipped ones, with a switch of its own.
printf 'ATTRIBUTE: SIZE\nTYPE: positive_integer\nSWITCH: -z\nDEFAULT: 1\n' >"$home/vyn/template/disk.tdf"
completion_check() { # expected words, then the command line (the last word is the one completed)
  local expected=$1 got
  shift
  got=$(bash -c '
    source "$0"
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _vyn_profile
    [ ${#COMPREPLY[@]} -eq 0 ] || printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "' \
    "$root/usr/share/bash-completion/completions/vyn_profile" "$@")
  [ "$got" = "$expected" ] || fail "completion of [$*]: got '$got', expected '$expected'"
}
completion_check "-create -delete -print -template -update -validate " vyn_profile ''
completion_check "-template " vyn_profile -te
completion_check "application changer disk generic network tape " vyn_profile -create web -t ''
completion_check "-B -a -d -dir -f -h -l -o -p -q -r " vyn_profile -create web -t application -
completion_check "-d -dir -f -h -n -o -q " vyn_profile -create web -t tape -
completion_check "-d -dir -f -q -z " vyn_profile -create d -t disk -
completion_check "ci=30,ra= ci=30,rt= " vyn_profile -create web -t application -o ci=30,r
completion_check "-d -dir -h -n -o -q " vyn_profile -update t1 -dir "$profiles" -
completion_check "t1 web " vyn_profile -print -dir "$profiles" ''
completion_check "web " vyn_profile -delete -dir "$profiles" w
completion_check "" vyn_profile -validate web -dir "$profiles" ''
completion_check "" vyn_profile -create web ''
rm -f "$home/vyn/template/disk.tdf"

if [ "$failures" -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all package checks hold"
