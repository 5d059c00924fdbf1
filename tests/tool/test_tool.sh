#!/usr/bin/env bash
# The commonl tool as its users run it: standard output, standard error and
# exit status of each command.
#   test_tool.sh GROUP COMMONL VERSION
# GROUP is one of: usage lookups zones check-catalogue check-sysinfo
# sound-and-commands port-check. Fixtures stand beside this script; the
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
  out_has '^Subcommands:' && out_has '^  port-check '
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
check|A subcommand is required
zones extra|extra
beep tuba|not a MessageBeep type: tuba
beep --sysinfo x|--sysinfo requires --dry-run
beep --catalogue x|--catalogue requires --dry-run
run --buffer-size 0 true|Value 0 not in range
port-check no-such-file.c|no-such-file.c
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
  err_has "^commonl: catalogues/syntax-error.conf: the library could not load the catalogue; 'commonl check catalogue catalogues/syntax-error.conf' tells why$"

  # GetHwBrands: the whole tree, in file order.
  check 0 brands --json --catalogue $resources/hw-models.conf
  json_has '[b["name"] for b in d["brands"]] == ["Halvard", "Norrbyte"]'
  json_has '[m["Model"] for m in d["brands"][0]["models"]] == ["HX-816P", "HX-408"]'
  json_has '[n["name"] for n in d["brands"][0]["models"][0]["NICs"]] == ["eth0", "eth1", "eth2"]'
  check 0 brands --catalogue $resources/hw-models.conf
  out_has '^  - name: Norrbyte$' && out_has '^      - Model: NB-2200$' && out_has '^        NICs: none$'
  check 1 brands --catalogue catalogues/empty.conf
  err_is "$(printf '%s\n' 'library: Empty hw-models file: catalogues/empty.conf' \
    "commonl: catalogues/empty.conf: the library could not load the catalogue; 'commonl check catalogue catalogues/empty.conf' tells why")"
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

check_catalogue() {
  check 0 check catalogue $resources/hw-models.conf
  out_is "$resources/hw-models.conf: good: 2 brands (\"Halvard\", \"Norrbyte\"), 3 models, 4 NICs"
  err_is ""
  check 0 check catalogue --json $resources/hw-models.conf
  json_has 'd == {"path": "'$resources'/hw-models.conf", "loads": True, "good": True, "findings": [],
            "summary": {"brands": 2, "models": 3, "nics": 4, "brand_names": ["Halvard", "Norrbyte"]}, "log": []}'

  # Files the library refuses: where, why, and what follows.
  local refused='the library refuses this file: the catalogue is unavailable, and every lookup answers as for an unknown model'
  local file finding
  while IFS='|' read -r file finding; do
    check 1 check catalogue "$file"
    out_is "$(printf '%s\n' "$file$finding" "$file: $refused")"
  done <<'EOF'
catalogues/syntax-error.conf|:8:11: Missing a comma or '}' after an object member.
catalogues/refused-string.conf|:7:30: string under "Colour" in a model: the library refuses the whole file over a string member other than "Model", "PoE_driver" and "PoE_NIC_name"
catalogues/refused-array.conf|:5:7: a list under "Aliases": the library takes lists only under "Brands", "Models" and "NICs", and refuses the whole file over any other
catalogues/root-array.conf|:1:1: the file is a list: the library wants an object with a "Brands" list, and refuses the whole file
catalogues/empty.conf|: the file is empty
catalogues/missing.conf|: can't be read: No such file or directory
EOF
  check 1 check catalogue catalogues/refused-string.conf
  err_is "$(printf '%s\n' 'library: Unexpected field: grey, last_key: Colour, tree_state = 4' \
    'library:  rapidjson error for hw-models file, code: 16')"
  scratch blank.conf '\n  \n'
  scratch string-as-flag.conf '{"Brands": [{"Models": [\n  {"Model": "X", "PoE": "true"}]}]}'
  scratch deep.conf "$(printf '{"x":%.0s' {1..65})1$(printf '}%.0s' {1..65})"
  while IFS='|' read -r file finding; do
    check 1 check catalogue "$scratch/$file"
    out_is "$(printf '%s\n' "$file$finding" "$file: $refused")"
  done <<'EOF'
blank.conf|:3:1: The document is empty.
string-as-flag.conf|:2:18: "PoE" holds the string "true": the library takes true or false there, and refuses the whole file over a string
EOF
  check 1 check catalogue "$scratch/deep.conf"
  out_has '^deep.conf:1:321: more than 64 levels of nesting: the library refuses the whole file$'
  err_is "$(printf '%s\n' 'library: Too deep nesting in hw-models file, more than 64 levels' \
    'library:  rapidjson error for hw-models file, code: 16')"
  # The library's reader ends at a NUL byte.
  scratch nul.conf '{"Brands": []}\n\0{'
  check 1 check catalogue "$scratch/nul.conf"
  out_is "$(printf '%s\n' 'nul.conf:2:1: a NUL byte: the library reads no further' \
    'nul.conf: the library loads this file, but not as written: 0 brands, 0 models, 0 NICs')"
  scratch nul-inside.conf '{"Brands": [\0]}'
  check 1 check catalogue "$scratch/nul-inside.conf"
  out_is "$(printf '%s\n' 'nul-inside.conf:1:13: a NUL byte: the library reads no further' \
    'nul-inside.conf:1:13: Invalid value.' "nul-inside.conf: $refused")"

  # A file the library loads, but not as it is written.
  check 1 check catalogue catalogues/not-as-written.conf
  out_is "$(sed 's/^/catalogues\/not-as-written.conf:/' <<'EOF'
3:5: a brand without a "Models" list: the library drops it
6:7: "Country" names the brand "SE" in place of "Halvard": the library takes the last string member before "Models" for the brand's name
10:11: "PoE" takes true or false: the library ignores the number 1, and the field stays false
12:11: true under "Tested" in a model: the library ignores it (and logs "unexpected bool for key Tested")
13:21: a NIC without a name: the library drops it
15:11: "HX-408" is never found: "HX-4" comes first in the file and occurs in its name
16:9: a model without a name: it matches every lookup, so the library never finds the entries after it
17:9: a string in the "Models" list: the library ignores it; the list holds objects
19:7: brand name "Halvard AB" after the "Models" list: the library ignores it; the name must come before the list
 the library loads this file, but not as written: 1 brand ("SE"), 3 models, 1 NIC
EOF
)"
  err_is 'library: unexpected bool for key Tested'
  while IFS='|' read -r file text finding; do
    scratch "$file" "$text"
    check 1 check catalogue "$scratch/$file"
    out_has "^$file$finding"
    out_has "^$file: the library loads this file, but not as written"
  done <<'EOF'
no-brands.conf|{"brands ": 1}|:1:1: no "Brands" list: the catalogue is empty$
bare.conf|  "Brands"|:1:3: the file holds a single value, not an object: the catalogue is empty$
nested.conf|{"Brands": [{"Models": [{"Model": "A", "x": {}, "PoE": true}]}]}|:1:40: an object under "x" in a model: the library ends the model
nics-in-brand.conf|{"Brands": [{"NICs": [], "Models": []}]}|:1:14: a "NICs" list in a brand: the library still reads it, but not as the file means; it belongs in a model$
twice.conf|{"Brands": [{"Models": [{"Model": "A"}], "Models": []}]}|:1:42: a second "Models" list in one brand: the library stores the brand once more
EOF
  check 1 check catalogue --json catalogues/syntax-error.conf
  json_has 'd["loads"] is False and d["good"] is False and d["summary"] is None'
  json_has 'd["findings"] == [{"line": 8, "column": 11, "severity": "error", "message": "Missing a comma or '"'"'}'"'"' after an object member."}]'
  json_has 'd["log"] == [" rapidjson error for hw-models file, code: 6"]'
  err_is ""
  check 1 check catalogue --json catalogues/not-as-written.conf
  json_has 'd["loads"] is True and d["good"] is False and d["summary"]["brand_names"] == ["SE"]'
  json_has '[(f["line"], f["severity"]) for f in d["findings"]][:3] == [(3, "warning"), (6, "warning"), (10, "warning")]'
}

check_sysinfo() {
  check 0 check sysinfo $resources/sysinfo.json
  out_is "$resources/sysinfo.json: good: ProductName \"KORVA Recorder 8\", Ram 8192, Cpu \"x86-64, 4 cores\", Model \"HX-408\", SerialNumber \"HX408-2311-00417\""
  check 0 check sysinfo --json $resources/sysinfo.json
  json_has 'd["good"] and d["summary"] == {"ProductName": "KORVA Recorder 8", "Ram": 8192, "Cpu": "x86-64, 4 cores",
            "Model": "HX-408", "SerialNumber": "HX408-2311-00417"}'

  local refused='the library refuses this file: GetLinuxInfo gives no record, so the machine counts as an unknown model, and the alarm plays the sound file'
  local file text finding log
  check 1 check sysinfo sysinfo/too-many-tokens.json
  out_is "$(printf '%s\n' 'sysinfo/too-many-tokens.json:17:13: a 33rd token, where the library takes 32 (the object, and 15 keys with their values); the library refuses the file (jsmn -1)' \
    "sysinfo/too-many-tokens.json: $refused")"
  err_is 'library: Failed to parse JSON: -1'
  while IFS='|' read -r file text finding log; do
    scratch "$file" "$text"
    check 1 check sysinfo "$scratch/$file"
    out_is "$(printf '%s\n' "$file$finding" "$file: $refused")"
    err_is "library: $log"
  done <<'EOF'
bom.json|\xef\xbb\xbf{"Model": "HX-408"}|:1:1: a byte order mark; the library refuses the file (jsmn -2)|Failed to parse JSON: -2
bracket.json|{"Model": "HX-408"]|:1:19: a closing ] that matches no opening bracket; the library refuses the file (jsmn -2)|Failed to parse JSON: -2
string.json|{"Ram": 1,\n "Model": "HX-408}|:2:11: a string that is not closed; the library refuses the file (jsmn -3)|Failed to parse JSON: -3
object.json|{"Model": "HX-408",\n "Cpu": ["x86"|:2:9: a list that is not closed; the library refuses the file (jsmn -3)|Failed to parse JSON: -3
list.json|["HX-408"]|:1:1: the file holds a list, not an object: the library wants an object, and refuses the file|Object expected
blank.json| \n|: no JSON in the file: the library wants an object, and refuses the file|Object expected
empty.json||: the file is empty|Empty Linux info file: empty.json
EOF
  check 1 check sysinfo missing.json
  out_is "$(printf '%s\n' "missing.json: can't be read: No such file or directory" "missing.json: $refused")"

  check 1 check sysinfo sysinfo/not-as-written.json
  out_is "$(sed 's/^/sysinfo\/not-as-written.json:/' <<'EOF'
1:1: no "SerialNumber": the library leaves the field empty
3:12: the value of "Model" is not a string: the library takes the text HX-408 as it stands
4:10: the value of "Cpu" has 47 characters: the library keeps 31 of them, without the line feed
5:10: Ram "8 GB" is not a whole number of 32 bits: the library reads 8
6:3: unknown key "Owner": the library logs it and its value as unexpected keys
7:3: "Ram" stands twice: the library takes the last value
 the library loads this file, but not as written: ProductName "KORVA Recorder 8", Ram 8192, Cpu "Intel(R) Atom(TM) x6425E CPU @ ", Model "HX-408", SerialNumber ""
EOF
)"
  err_is "$(printf '%s\n' 'library: Unexpected key: Owner' 'library: Unexpected key: site 4')"
  local all='"ProductName": "P", "Cpu": "C", "SerialNumber": "S"'
  while IFS='|' read -r file text finding; do
    scratch "$file" "$text"
    check 1 check sysinfo "$scratch/$file"
    out_has "^$file$finding"
    out_has "^$file: the library loads this file, but not as written"
  done <<EOF
shifted.json|{$all, "Owner": "Model", "Ram": "x"}|:1:55: unknown key "Owner": the library logs it, takes its value "Model" for a key, and the token after that for that key's value$
big-ram.json|{$all, "Model": "M", "Ram": 3000000000}|:1:76: Ram "3000000000" is not a whole number of 32 bits: the library reads -1294967296$
escape.json|{$all, "Model": "M\\\\"1", "Ram": 1}|:1:64: the value of "Model" holds an escape: the library keeps it as written, backslash and all$
nested.json|{$all, "Ram": 1, "Model": {"a": 1}}|:1:74: the value of "Model" is an object: the library takes its whole text, and reads what is inside as keys$
no-value.json|{$all, "Ram": 1, "Model"}|:1:65: the key "Model" has no value: the library leaves its field empty$
empty-model.json|{$all, "Ram": 1, "Model": ""}|:1:74: the model is empty: the machine counts as an unknown model, and the alarm plays the sound file$
behind.json|{$all, "Ram": 1} "Model" "M"|:1:65: text behind the object: the library still reads it as keys and values$
EOF
  check 1 check sysinfo --json sysinfo/too-many-tokens.json
  json_has 'd["loads"] is False and d["summary"] is None and d["log"] == ["Failed to parse JSON: -1"]'
  json_has 'd["findings"][0]["line"] == 17 and d["findings"][0]["column"] == 13 and d["findings"][0]["severity"] == "error"'
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

port_check() {
  # Each fixture marks the lines the rule must find with "// expect: RULE";
  # the rest must go unreported.
  local fixture found wanted
  for fixture in port-check/*.cpp; do
    check "$(grep -q '// expect: ' "$fixture" && echo 1 || echo 0)" port-check "$fixture"
    found=$(sed -E 's/^[^:]+:([0-9]+): .+; .+ \[([a-z-]+)\]$/\1 \2/' <<<"$out")
    wanted=$(grep -n '// expect: ' "$fixture" | sed -E 's/^([0-9]+):.*\/\/ expect: ([a-z-]+)$/\1 \2/')
    [[ $found == "$wanted" ]] || fail "findings differ from the marks (< marked, > found):" "$(diff <(echo "$wanted") <(echo "$found"))"
    [[ $(basename "$fixture" .cpp) == "$(sed -E 's/.* //' <<<"$wanted" | sort -u)" ]] || fail "a fixture holds the cases of its own rule only"
  done
  check 1 port-check port-check
  [[ $(wc -l <<<"$out") == "$(grep -c '// expect: ' port-check/*.cpp | awk -F: '{n += $2} END {print n}')" ]] ||
    fail "a directory is not searched whole"
  check 0 port-check ../../examples
  out_is ""
  scratch clean.h 'HANDLE start(void) { return CreateEvent(NULL, TRUE, FALSE, "stop"); }\n'
  check 0 port-check "$scratch/clean.h"
}

case $group in
  usage) usage ;;
  lookups) lookups ;;
  zones) zones ;;
  check-catalogue) check_catalogue ;;
  check-sysinfo) check_sysinfo ;;
  sound-and-commands) sound_and_commands ;;
  port-check) port_check ;;
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
