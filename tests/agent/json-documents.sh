#!/usr/bin/env bash
# tests/agent/json-documents.sh: runs each command with --json in the current directory, and validates all documents
# against docs/json-schema.json with python3-jsonschema, in one process. The variable KBAGENT is the program, SOURCE the
# tree of sources; KBAGENT_REPOSITORY, which is empty, and KBAGENT_PASSWORD are set. The directory "second" is another
# repository with that password.
set -euo pipefail
python3 -c 'from jsonschema import Draft202012Validator' 2>/dev/null || {
    echo "python3-jsonschema is not installed"
    exit 77
}
export LC_ALL=C
count=0
mkdir documents

# run EXIT_CODE DEFINITION ARGUMENT...: the documents are those of a definition of the schema.
run() {
    local expected=$1 definition=$2 code=0
    local file=documents/$((++count)).$definition
    shift 2
    "$KBAGENT" --json "$@" >"$file.out" 2>"$file.err" </dev/null || code=$?
    [ "$code" -eq "$expected" ] && return
    echo "kbagent --json $* ended with $code, not $expected:"
    cat "$file.out" "$file.err"
    exit 1
}
home=$PWD/home
mkdir -p home/a/deep
printf '12345' >home/a/x.txt
printf '1' >home/a/x.tmp
printf '2' >home/a/deep/y
ln -s x.txt home/a/link
mkfifo home/pipe

run 0 "job new" job new job.json "$home" --exclude '*.tmp'
run 0 "job add" job add job.json --exclude '*.bak'
run 0 "job remove" job remove job.json 4
run 0 "job show" job show job.json
run 0 "job check" job check job.json
run 0 "job new" job new bad.json home/a/link --exclude '*'
run 4 "job check" job check bad.json
run 0 "job new" job new place.json home/a/x.txt
run 0 "job remove" job remove place.json 1 # only the rule at the place of the file is left
run 0 explain explain --job place.json home/a/x.txt
KBAGENT_PROGRESS_FPS=1000000 run 4 explain explain --job job.json "$home" "$home/a/x.tmp" "$home/gone" --tree
run 0 backup backup --job job.json -v
printf '3' >>home/a/x.txt
run 3 backup backup "$home" "$home/gone" --verbose
run 0 backup backup "$home" --dry-run -v -v
run 0 init -r third init
run 0 snapshots snapshots
run 0 snapshots snapshots --group-by host,paths
run 0 ls ls latest
run 0 show show "latest:$home/a/x.txt"
cp "documents/$count.show.out" record.json
run 0 convert convert record.json
run 0 rename rename --from "$home" --to /srv record.json
run 0 import import --contents / record.json
openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -subj /CN=localhost 2>/dev/null
run 4 trust trust --cert cert.pem --name localhost
run 0 list list blobs
run 0 list list packs
run 0 cat cat config
run 0 cat cat snapshot latest
run 0 stats stats
run 0 stats stats --mode raw-data
run 0 restore restore latest --target out --verify -v
run 0 restore restore latest --target out --dry-run -v
printf '1' >out/extra
run 0 restore restore latest --target out --delete -v
KBAGENT_PROGRESS_FPS=1000 run 0 check check --read-data
run 0 key key list
run 0 tag tag --add x latest
KBAGENT_FROM_PASSWORD=$KBAGENT_PASSWORD run 0 copy -r second copy --from-repo "$KBAGENT_REPOSITORY"
KBAGENT_FROM_PASSWORD=$KBAGENT_PASSWORD run 0 copy -r second copy --from-repo "$KBAGENT_REPOSITORY"
run 0 rewrite rewrite --exclude x.txt
run 0 "repair index" repair index
run 0 rebuild-index rebuild-index
run 0 "repair snapshots" repair snapshots
run 0 recover recover
run 0 forget forget --keep-last 1 --group-by host
run 0 prune prune
run 0 unlock unlock
run 0 migrate migrate
run 0 volumes volumes
run 10 snapshots -r missing snapshots
run 2 check check --none
pack=$(find "$KBAGENT_REPOSITORY/data" -type f | head -n 1)
printf 'damaged!' | dd of="$pack" bs=1 seek=20 conv=notrunc status=none
run 1 check check --read-data
run 3 "repair packs" repair packs "$(basename "$pack")"

python3 - "$SOURCE/docs/json-schema.json" "$KBAGENT" documents <<'PYTHON'
import json
import pathlib
import re
import subprocess
import sys

from jsonschema import Draft202012Validator

schema = json.loads(pathlib.Path(sys.argv[1]).read_text())
Draft202012Validator.check_schema(schema)


def validator(definition):
    return Draft202012Validator({**schema, "$ref": "#/$defs/" + definition.replace(" ", "%20")})


def documents(text):
    decoder = json.JSONDecoder()
    while text := text.lstrip():
        document, end = decoder.raw_decode(text)
        yield document
        text = text[end:]


failures = []
seen = set()
for file in sorted(pathlib.Path(sys.argv[3]).iterdir()):
    _, definition, stream = file.name.split(".")
    text = file.read_text()
    if stream == "err":
        text = "\n".join(line for line in text.splitlines() if line.startswith("{"))
        definition = "messages"
    check = validator(definition)
    for document in documents(text):
        seen.add(definition)
        for error in check.iter_errors(document):
            failures.append(f"{file.name}: {error.message}\n  {json.dumps(document)[:600]}")

# Each command that has --json has a definition, and was seen, except for aliases.
usage = subprocess.run([sys.argv[2], "--help"], capture_output=True, text=True, check=True).stdout
for command in re.findall(r"^  ([a-z-]+) +[A-Z]", usage.split("Subcommands:")[-1], re.M):
    names = {name for name in seen if name.split()[0] == command}
    if not names and command not in ("dump", "service"):
        failures.append(f"no document of {command}")
if "messages" not in seen:
    failures.append("no document on standard error")
print("\n".join(failures))
sys.exit(1 if failures else 0)
PYTHON
