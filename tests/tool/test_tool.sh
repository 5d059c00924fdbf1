#!/usr/bin/env bash
# The commonl tool as its users run it: standard output, standard error and
# exit status of each command.
#   test_tool.sh GROUP COMMONL VERSION
# GROUP is one of: usage lookups zones sound-and-commands. Fixtures stand beside this script; the
# paths in the expected output are relative to it.
set -uo pipefail
group=$1
tool=$2
version=$3
here=$(cd "$(dirname "$0")" && pwd)
cd "$here"
resources=../../resources
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0
last=
status=
out=
err=

fail() {
  echo "FAIL: commonl $last" >&2
  printf '  %s\n' "$@" >&2
  failures=$((failures + 1))
}

# check STATUS ARGS...: runs the tool; its output lands in $out and $err,
# with the scratch directory left out of paths.
check() {
  local want=$1
  shift
  last="$*"
  timeout 30 "$tool" "$@" >"$scratch/.out" 2>"$scratch/.err"
  status=$?
  out=$(<"$scratch/.out")
  err=$(<"$scratch/.err")
  out=${out//$scratch\//}
  err=${err//$scratch\//}
  [[ $status == "$want" ]] || fail "exit status $status, not $want" "stdout: $out" "stderr: $err"
}
out_is() { [[ $out == "$1" ]] || fail "standard output differs (< wanted, > got):" "$(diff <(echo "$1") <(echo "$out"))"; }
err_is() { [[ $err == "$1" ]] || fail "standard error differs (< wanted, > got):" "$(diff <(echo "$1") <(echo "$err"))"; }
out_has() { grep -qE -- "$1" <<<"$out" || fail "standard output lacks /$1/:" "$out"; }
err_has() { grep -qE -- "$1" <<<"$err" || fail "standard error lacks /$1/:" "$err"; }
# json_has PYTHON-EXPRESSION: standard output is JSON, and the expression
# over it (as `d`) is true.
json_has() {
  python3 -c 'import json, sys; d = json.load(open(sys.argv[2])); sys.exit(0 if eval(sys.argv[1]) else 1)' \
    "$1" "$scratch/.out" || fail "JSON fails: $1" "$out"
}
# scratch NAME TEXT: a file in the scratch directory; printf escapes apply.
scratch() { printf "$2" >"$scratch/$1"; }

usage() {
  check 0 --version
  out_is "commonl $version"
  check 0 --help
  out_has '^Subcommands:' && out_has '^  run '
  check 0 beep --help
  out_has 'dry-run, for which the tool works the command out from the same facts'
  # Command lines that can't be used: status 2 and a word on what is wrong.
  local line
  while IFS='|' read -r line message; do
    # shellcheck disable=SC2086
    check 2 $line
    err_has "^commonl: .*$message"
    err_has "^Run 'commonl --help' for the commands.$"
  done <<'EOF'
|A subcommand is required
frobnicate|A subcommand is required
info --frob|--frob
model|TEXT is required
zones extra|extra
beep tuba|not a MessageBeep type: tuba
beep --sysinfo x|--sysinfo requires --dry-run
beep --catalogue x|--catalogue requires --dry-run
run --buffer-size 0 true|Value 0 not in range
EOF
}

lookups() {
  local sample=(--sysinfo $resources/sysinfo.json --catalogue $resources/hw-models.conf)
  check 0 info "${sample[@]}"
  out_is "$(cat <<EOF
version: $version
sysinfo:
  path: $resources/sysinfo.json
  read: yes
  ProductName: KORVA Recorder 8
  Ram: 8192
  Cpu: x86-64, 4 cores
  Model: HX-408
  SerialNumber: HX408-2311-00417
catalogue:
  path: $resources/hw-models.conf
  loaded: yes
  found: yes
  brand: Halvard
  Model: HX-408
  PoE: no
  PoE_driver: ""
  PoE_NIC_name: ""
  BuzzerAlarm: yes
  NICs:
    - name: eth0
      description: Network
alarm: buzzer
zone:
$(sed -n '/^zone:$/,$p' <<<"$out" | tail -n +2)
EOF
)"
  out_has '^  id: -?[0-9]+$'
  check 0 info --json "${sample[@]}"
  json_has 'd["version"] == "'"$version"'" and d["alarm"] == "buzzer"'
  json_has 'd["sysinfo"] == {"path": "'$resources'/sysinfo.json", "read": True, "ProductName": "KORVA Recorder 8",
            "Ram": 8192, "Cpu": "x86-64, 4 cores", "Model": "HX-408", "SerialNumber": "HX408-2311-00417"}'
  json_has 'd["catalogue"] == {"path": "'$resources'/hw-models.conf", "loaded": True, "found": True,
            "brand": "Halvard", "Model": "HX-408", "PoE": False, "PoE_driver": "", "PoE_NIC_name": "",
            "BuzzerAlarm": True, "NICs": [{"name": "eth0", "description": "Network"}]}'
  json_has 'sorted(d["zone"]) == ["dst", "id", "name", "offset", "offset_seconds"]'
  # A machine the catalogue does not know, and one whose sysinfo.json is missing.
  check 0 info --json --sysinfo sysinfo/sound-file.json --catalogue $resources/hw-models.conf
  json_has 'd["catalogue"]["Model"] == "HX-816P" and d["catalogue"]["PoE_driver"] == "halvard_poe" and d["alarm"] == "sound file"'
  scratch unknown.json '{"Model": "ZX-1"}'
  check 1 info --sysinfo "$scratch/unknown.json" --catalogue $resources/hw-models.conf
  out_has '^  found: no$' && out_has '^alarm: sound file$'
  err_has '^commonl: ../../resources/hw-models.conf: no entry matches the model "ZX-1"$'
  check 1 info --json --sysinfo missing.json --catalogue $resources/hw-models.conf
  json_has 'd["sysinfo"]["read"] is False and d["sysinfo"]["Model"] is None and d["catalogue"]["found"] is False'
  err_has '^library: Missing Linux info file missing.json$'
  err_has '^commonl: missing.json: the library could not read the system information$'

  # GetModelInfo's answers: the first entry whose name occurs in the text.
  check 0 model HX-408-B --catalogue $resources/hw-models.conf
  out_is "$(printf '%s\n' "path: $resources/hw-models.conf" 'loaded: yes' 'found: yes' 'brand: Halvard' \
    'Model: HX-408' 'PoE: no' 'PoE_driver: ""' 'PoE_NIC_name: ""' 'BuzzerAlarm: yes' 'NICs:' \
    '  - name: eth0' '    description: Network')"
  check 0 model --json NB-2200 --catalogue $resources/hw-models.conf
  json_has 'd["brand"] == "Norrbyte" and d["NICs"] == [] and d["BuzzerAlarm"] is False'
  check 1 model --json hx-408 --catalogue $resources/hw-models.conf
  json_has 'd["found"] is False and d["brand"] is None and d["Model"] == ""'
  err_is 'commonl: ../../resources/hw-models.conf: no entry matches the model "hx-408"'
  check 1 model HX-408 --catalogue catalogues/syntax-error.conf
  err_has "^commonl: catalogues/syntax-error.conf: the library could not load the catalogue$"

  # GetHwBrands: the whole tree, in file order.
  check 0 brands --json --catalogue $resources/hw-models.conf
  json_has '[b["name"] for b in d["brands"]] == ["Halvard", "Norrbyte"]'
  json_has '[m["Model"] for m in d["brands"][0]["models"]] == ["HX-816P", "HX-408"]'
  json_has '[n["name"] for n in d["brands"][0]["models"][0]["NICs"]] == ["eth0", "eth1", "eth2"]'
  check 0 brands --catalogue $resources/hw-models.conf
  out_has '^  - name: Norrbyte$' && out_has '^      - Model: NB-2200$' && out_has '^        NICs: none$'
  check 1 brands --catalogue catalogues/empty.conf
  err_is "$(printf '%s\n' 'library: Empty hw-models file: catalogues/empty.conf' \
    "commonl: catalogues/empty.conf: the library could not load the catalogue")"
}

zones() {
  check 0 zones
  [[ $(wc -l <<<"$out") == 348 ]] || fail "not 348 zones"
  out_has '^  0 Africa/Abidjan$' && out_has '^284 Europe/Paris$' && out_has '^347 UTC$'
  check 0 zones --json
  json_has 'd["count"] == 348 and len(d["zones"]) == 348 and d["zones"][284] == {"id": 284, "name": "Europe/Paris"}'

  # The library reads /etc/timezone itself. Where this machine lets a mount
  # namespace of its own put a scratch file there, the tool is run against
  # chosen names; /etc/timezone itself is never touched.
  if ! unshare -m true 2>/dev/null; then
    echo "zone: no mount namespace here; only the form of the answer is tested"
    check "$( "$tool" zone >/dev/null 2>&1; echo $?)" zone --json
    json_has 'sorted(d) == ["dst", "id", "name", "offset", "offset_seconds"]'
    return
  fi
  local name
  while IFS='|' read -r name status expected; do
    printf '%s\n' "$name" >"$scratch/timezone"
    last="zone --json, /etc/timezone: $name"
    unshare -m sh -c 'mount --bind "$1" /etc/timezone && exec "$2" zone --json' sh "$scratch/timezone" "$tool" \
      >"$scratch/.out" 2>"$scratch/.err"
    [[ $? == "$status" ]] || fail "exit status not $status: $(cat "$scratch/.err")"
    json_has "$expected"
  done <<'EOF'
Asia/Kolkata|0|d == {"id": 197, "name": "Asia/Kolkata", "offset": "+05:30", "offset_seconds": 19800, "dst": False}
UTC|0|d == {"id": 347, "name": "UTC", "offset": "+00:00", "offset_seconds": 0, "dst": False}
Europe/Paris|0|d["id"] == 284 and d["offset"] in ("+01:00", "+02:00") and d["dst"] == (d["offset"] == "+02:00")
Etc/UTC|1|d == {"id": -1, "name": None, "offset": None, "offset_seconds": None, "dst": None}
EOF
  printf 'Etc/UTC\n' >"$scratch/timezone"
  last="zone, /etc/timezone: Etc/UTC"
  unshare -m sh -c 'mount --bind "$1" /etc/timezone && exec "$2" zone' sh "$scratch/timezone" "$tool" \
    >"$scratch/.out" 2>"$scratch/.err"
  [[ $? == 1 && ! -s $scratch/.out ]] || fail "not status 1 with nothing on standard output"
  err=$(<"$scratch/.err")
  err_is "$(printf '%s\n' 'library: Could not find match for timezone Etc/UTC' \
    "commonl: /etc/timezone names none of the library's zones")"
}

sound_and_commands() {
  # MessageBeep's choice, worked out: never sounded here.
  local type sysinfo command
  while IFS='|' read -r type sysinfo command; do
    # shellcheck disable=SC2086
    check 0 beep $type --dry-run --sysinfo "$sysinfo" --catalogue $resources/hw-models.conf
    out_is "$command"
  done <<EOF
|$resources/sysinfo.json|beep -f 500 -l 400
hand|$resources/sysinfo.json|beep -f 600 -l 400
0x30|$resources/sysinfo.json|beep -f 523 -l 400
64|$resources/sysinfo.json|beep -f 440 -l 400
-1|$resources/sysinfo.json|beep -f 500 -l 400
question|$resources/sysinfo.json|beep -f 755 -l 400
1|$resources/sysinfo.json|beep -f 755 -l 400
hand|sysinfo/sound-file.json|paplay /usr/share/sounds/sound-icons/cembalo-2.wav &
hand|missing.json|paplay /usr/share/sounds/sound-icons/cembalo-2.wav &
EOF
  check 0 beep --dry-run --sysinfo $resources/sysinfo.json --catalogue catalogues/syntax-error.conf
  out_is 'paplay /usr/share/sounds/sound-icons/cembalo-2.wav &'

  # RunProcess and its size protocol.
  check 0 run 'echo hello'
  out_is "$(printf '%s\n' hello 'RunProcess: 1, 7 of 4096 bytes used')"
  check 0 run --buffer-size 6 -- printf hello
  out_is "$(printf '%s\n' 'RunProcess: 0, 6 bytes are too small, 15 required' hello 'RunProcess: 1, 6 of 15 bytes used')"
  check 0 run --buffer-size 1 -- printf hello
  out_is "$(printf '%s\n' 'RunProcess: 0, 1 bytes are too small, 10 required' hello 'RunProcess: 1, 6 of 10 bytes used')"
  check 0 run --end-marker END 'echo abc END def'
  out_is "$(printf '%s\n' 'abc END' 'RunProcess: 1, 8 of 4096 bytes used')"
  check 0 run 'exit 3'
  out_is 'RunProcess: 1, 1 of 4096 bytes used'
}

case $group in
  usage) usage ;;
  lookups) lookups ;;
  zones) zones ;;
  sound-and-commands) sound_and_commands ;;
  *)
    echo "unknown group: $group" >&2
    exit 2
    ;;
esac
if ((failures > 0)); then
  echo "$failures failed" >&2
  exit 1
fi
echo "all passed"
